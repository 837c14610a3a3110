// DAT::NumberPortability::PublishedStamp holds the stamp of the data that answers lookups, for a
// host that shows it (status) and must never wait for the cache to do so. The cache manager's
// operation in progress stores each new stamp as it publishes a tree.
// Thread contract: one writer at a time (operations never overlap); readers in any thread, at
// any time. A reader takes no lock: it only reads again when a store was half done meanwhile.
#pragma once

#include "store/PublicationStamp.h"

#include <atomic>
#include <cstdint>

namespace DAT::NumberPortability {

class PublishedStamp {
public:
  void store(const PublicationStamp& stamp) noexcept {
    const std::uint64_t sequence = sequenceM.load(std::memory_order_relaxed);
    sequenceM.store(sequence + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    numberM.store(stamp.numberM, std::memory_order_relaxed);
    utcMillisM.store(stamp.utcMillisM, std::memory_order_relaxed);
    sequenceM.store(sequence + 2, std::memory_order_release);
  }

  // Both fields of one stored stamp, never one field of one and the other of another.
  PublicationStamp load() const noexcept {
    for (;;) {
      const std::uint64_t before = sequenceM.load(std::memory_order_acquire);
      PublicationStamp stamp;
      stamp.numberM = numberM.load(std::memory_order_relaxed);
      stamp.utcMillisM = utcMillisM.load(std::memory_order_relaxed);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (before % 2 == 0 && sequenceM.load(std::memory_order_relaxed) == before) return stamp;
    }
  }

private:
  // Odd while a store is in progress; the fields are atomics too, so that a reader that races a
  // store reads values, never torn bytes, and then sees the sequence moved and reads again.
  std::atomic<std::uint64_t> sequenceM{0};
  std::atomic<std::uint64_t> numberM{0};
  std::atomic<std::int64_t> utcMillisM{0};
};

}  // namespace DAT::NumberPortability
