// DAT::NumberPortability::HistoryArena holds the record arrays of one portability tree's
// histories. A history grows by one record at a time into an array of exactly its length, so
// the arrays of up to pooledLengthsCM records come from slabs with one free list per length:
// the array that a growing history leaves behind is taken by the next history of that length.
// Longer arrays (rare: numbers ported dozens of times) are single heap blocks, linked so that
// reset() finds them. The owning tree uses it alone; not synchronised.
#pragma once

#include "store/NumberPortabilityData.h"
#include "store/SlabArena.h"

#include <cstddef>
#include <cstdint>

namespace DAT::NumberPortability {

class HistoryArena {
public:
  static constexpr std::uint32_t pooledLengthsCM = 32;

  HistoryArena() = default;
  ~HistoryArena() { releaseLongArrays(); }
  HistoryArena(const HistoryArena&) = delete;
  HistoryArena& operator=(const HistoryArena&) = delete;

  // Uninitialised room for `count` (at least 1) records. Out of memory propagates.
  NumberPortabilityData* allocate(std::uint32_t count);
  // Gives back an array that allocate(count) returned; its records must be dead or moved away.
  void release(NumberPortabilityData* records, std::uint32_t count) noexcept;
  // Takes back every array at once and keeps the slabs for the next fill.
  void reset() noexcept;

private:
  struct FreeArray {
    FreeArray* next;
  };
  struct LongArray {
    LongArray* previous;
    LongArray* next;
  };

  void releaseLongArrays() noexcept;

  PBC::SlabArena slabsM;
  FreeArray* freeM[pooledLengthsCM + 1] = {};  // by length; index 0 unused
  LongArray* longM = nullptr;                  // every array longer than pooledLengthsCM
};

}  // namespace DAT::NumberPortability
