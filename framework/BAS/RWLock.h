// BAS::RWLock is the framework's readers-writer lock: any number of readers, or one writer.
// Readers are the hot path (one lookup each), so taking the read side must stay cheap.
// Use BAS::ReadLocker and BAS::WriteLocker to hold it for a scope.
//
// Design: each reader counts itself in one of slotCountCM counters, each on its own cache line,
// chosen per thread; so readers on different cores never write the same line, where one shared
// count would bounce between the cores on every lookup. A writer raises writingM and waits until
// every counter is zero. A reader announces itself (increment) before it looks at writingM, and
// the writer raises writingM before it looks at the counters; both with sequentially consistent
// operations, so at least one of them sees the other, and a reader that sees a writer steps back
// and waits, spinning for up to readerPatienceCM before it sleeps. Writers are serialised by a mutex. A writer that finds a reader holding on for long
// (a data dump holds the read side for seconds) lowers writingM again and waits for the readers
// to leave without blocking new ones, so that lookups never queue behind a waiting writer for more
// than writerPatienceCM. Not recursive on either side.
#pragma once

#include "BAS/Export.h"
#include "BAS/ThreadAnnotations.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <thread>

namespace BAS {

class CAPABILITY("rwlock") BAS_EXPORT RWLock {
public:
  RWLock() = default;
  RWLock(const RWLock&) = delete;
  RWLock& operator=(const RWLock&) = delete;

  void readLock() ACQUIRE_SHARED() NO_THREAD_SAFETY_ANALYSIS {
    std::atomic<long>& readers = slotsM[slotOfThisThread()].readersM;
    for (;;) {
      readers.fetch_add(1, std::memory_order_seq_cst);
      if (!writingM.load(std::memory_order_seq_cst)) return;
      readers.fetch_sub(1, std::memory_order_seq_cst);
      waitWhileWriting();
    }
  }

  void readUnlock() RELEASE_SHARED() NO_THREAD_SAFETY_ANALYSIS {
    slotsM[slotOfThisThread()].readersM.fetch_sub(1, std::memory_order_release);
  }

  void writeLock() ACQUIRE() NO_THREAD_SAFETY_ANALYSIS {
    writersM.lock();
    for (;;) {
      writingM.store(true, std::memory_order_seq_cst);
      if (waitForReaders(writerPatienceCM)) return;
      // A reader holds on: let the others in again and wait for a moment without readers.
      writingM.store(false, std::memory_order_seq_cst);
      writingM.notify_all();
      while (!noReaders()) std::this_thread::sleep_for(pollPauseCM);
    }
  }

  void writeUnlock() RELEASE() NO_THREAD_SAFETY_ANALYSIS {
    writingM.store(false, std::memory_order_seq_cst);
    writingM.notify_all();
    writersM.unlock();
  }

private:
  static constexpr std::size_t slotCountCM = 16;
  static constexpr std::chrono::microseconds writerPatienceCM{200};
  static constexpr std::chrono::microseconds pollPauseCM{100};
  static constexpr std::chrono::microseconds readerPatienceCM{200};

  struct alignas(64) Slot {
    std::atomic<long> readersM{0};  // readers of the threads mapped to this slot; atomic, no lock
  };

  // Threads take slots in turn, so up to slotCountCM threads never share a counter.
  static std::size_t slotOfThisThread() noexcept {
    static std::atomic<std::size_t> nextSlot{0};
    thread_local const std::size_t slot = nextSlot.fetch_add(1, std::memory_order_relaxed) % slotCountCM;
    return slot;
  }

  // A writer holds the lock for a pointer exchange, so a reader that finds one looks again for
  // a while before it sleeps: waking a sleeping thread can take a virtual machine a millisecond
  // or more, far longer than the writer needed.
  void waitWhileWriting() const noexcept {
    const auto deadline = std::chrono::steady_clock::now() + readerPatienceCM;
    while (writingM.load(std::memory_order_seq_cst)) {
      if (std::chrono::steady_clock::now() >= deadline) {
        writingM.wait(true, std::memory_order_seq_cst);
        return;
      }
      for (int spin = 0; spin < 16 && writingM.load(std::memory_order_relaxed); ++spin) pause();
    }
  }

  static void pause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
  }

  bool noReaders() const noexcept {
    for (const Slot& slot : slotsM) {
      if (slot.readersM.load(std::memory_order_seq_cst) != 0) return false;
    }
    return true;
  }

  // True as soon as no reader is counted; false when `patience` ran out first. Looks briefly
  // (readers of a lookup leave within microseconds), then yields the processor between looks.
  bool waitForReaders(std::chrono::microseconds patience) const {
    for (int spin = 0; spin < 64; ++spin) {
      if (noReaders()) return true;
    }
    const auto deadline = std::chrono::steady_clock::now() + patience;
    do {
      std::this_thread::yield();
      if (noReaders()) return true;
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
  }

  Slot slotsM[slotCountCM];
  // Raised while a writer holds or is about to take the lock; atomic, read by every reader.
  alignas(64) std::atomic<bool> writingM{false};
  std::mutex writersM;  // lets one writer at a time raise writingM
};

}  // namespace BAS
