#include "store/HistoryArena.h"

#include <algorithm>
#include <new>

namespace DAT::NumberPortability {

static_assert(sizeof(NumberPortabilityData) >= sizeof(void*), "a free array holds its successor in its first record");

NumberPortabilityData* HistoryArena::allocate(std::uint32_t count) {
  if (count <= pooledLengthsCM) {
    if (FreeArray* const reused = freeM[count]) {
      freeM[count] = reused->next;
      return reinterpret_cast<NumberPortabilityData*>(reused);
    }
    return static_cast<NumberPortabilityData*>(slabsM.allocate(std::size_t{count} * sizeof(NumberPortabilityData)));
  }
  void* const block = ::operator new(sizeof(LongArray) + std::size_t{count} * sizeof(NumberPortabilityData));
  LongArray* const header = ::new (block) LongArray{nullptr, longM};
  if (longM != nullptr) longM->previous = header;
  longM = header;
  return reinterpret_cast<NumberPortabilityData*>(header + 1);
}

void HistoryArena::release(NumberPortabilityData* records, std::uint32_t count) noexcept {
  if (records == nullptr) return;
  if (count <= pooledLengthsCM) {
    freeM[count] = ::new (static_cast<void*>(records)) FreeArray{freeM[count]};
    return;
  }
  LongArray* const header = reinterpret_cast<LongArray*>(records) - 1;
  if (header->previous != nullptr) header->previous->next = header->next;
  if (header->next != nullptr) header->next->previous = header->previous;
  if (longM == header) longM = header->next;
  ::operator delete(header);
}

void HistoryArena::reset() noexcept {
  releaseLongArrays();
  std::fill(std::begin(freeM), std::end(freeM), nullptr);
  slabsM.reset();
}

void HistoryArena::releaseLongArrays() noexcept {
  while (longM != nullptr) {
    LongArray* const next = longM->next;
    ::operator delete(longM);
    longM = next;
  }
}

}  // namespace DAT::NumberPortability
