// DAT::NumberPortability::HistoryArena holds the history blocks of one portability tree. A
// history grows by one record at a time into a block of exactly its length, so the blocks of up
// to pooledLengthsCM records come from slabs with one free list per length: the block that a
// growing history leaves behind is taken by the next history of that length. Longer blocks
// (rare: numbers ported dozens of times) are single heap blocks, linked so that reset() finds
// them. The owning tree uses it alone; not synchronised.
#pragma once

#include "store/SlabArena.h"
#include "store/StoredHistory.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace DAT::NumberPortability {

class HistoryArena {
public:
  static constexpr std::uint32_t pooledLengthsCM = 32;

  HistoryArena() : slabsM(PBC::SlabArena::defaultSlabBytesCM, alignof(StoredHistory)) {}
  ~HistoryArena() { releaseLongBlocks(); }
  HistoryArena(const HistoryArena&) = delete;
  HistoryArena& operator=(const HistoryArena&) = delete;

  // A history of `count` (at least 1) records whose records are left for the caller to write.
  // Out of memory propagates.
  StoredHistory* allocate(std::uint32_t count);
  // Gives back a history that allocate returned; its records need no clean-up.
  void release(StoredHistory* history) noexcept;
  // Takes back every block at once and keeps the slabs for the next fill.
  void reset() noexcept;
  // Whether released blocks wait for reuse: histories that grew left them behind.
  bool hasFreeBlocks() const noexcept {
    return std::ranges::any_of(freeM, [](const void* block) { return block != nullptr; });
  }
  // Gives back the slabs that no block lies in (see PBC::SlabArena::releaseUnused).
  void releaseUnused() noexcept { slabsM.releaseUnused(); }

private:
  struct LongBlock {
    LongBlock* previous;
    LongBlock* next;
  };

  void releaseLongBlocks() noexcept;

  PBC::SlabArena slabsM;
  void* freeM[pooledLengthsCM + 1] = {};  // by length; index 0 unused; each block holds its successor
  LongBlock* longM = nullptr;             // every block longer than pooledLengthsCM
};

}  // namespace DAT::NumberPortability
