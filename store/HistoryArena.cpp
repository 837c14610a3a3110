#include "store/HistoryArena.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace DAT::NumberPortability {

namespace {

// A free block keeps the address of the next free block of its length in its first bytes; the
// blocks are only 4-byte aligned, so the address is copied in and out.
static_assert(StoredHistory::bytesFor(1) >= sizeof(void*), "a free block holds its successor");

void* nextFree(void* block) noexcept {
  void* next = nullptr;
  std::memcpy(&next, block, sizeof(next));
  return next;
}

}  // namespace

StoredHistory* HistoryArena::allocate(std::uint32_t count) {
  if (count <= pooledLengthsCM) {
    if (void* const reused = freeM[count]) {
      freeM[count] = nextFree(reused);
      return StoredHistory::create(reused, count);
    }
    return StoredHistory::create(slabsM.allocate(StoredHistory::bytesFor(count)), count);
  }
  void* const block = ::operator new(sizeof(LongBlock) + StoredHistory::bytesFor(count));
  LongBlock* const header = ::new (block) LongBlock{nullptr, longM};
  if (longM != nullptr) longM->previous = header;
  longM = header;
  return StoredHistory::create(header + 1, count);
}

void HistoryArena::release(StoredHistory* history) noexcept {
  if (history == nullptr) return;
  const std::uint32_t count = history->size();
  if (count <= pooledLengthsCM) {
    std::memcpy(static_cast<void*>(history), &freeM[count], sizeof(void*));
    freeM[count] = history;
    return;
  }
  LongBlock* const header = reinterpret_cast<LongBlock*>(history) - 1;
  if (header->previous != nullptr) header->previous->next = header->next;
  if (header->next != nullptr) header->next->previous = header->previous;
  if (longM == header) longM = header->next;
  ::operator delete(header);
}

void HistoryArena::reset() noexcept {
  releaseLongBlocks();
  std::fill(std::begin(freeM), std::end(freeM), nullptr);
  slabsM.reset();
}

void HistoryArena::releaseLongBlocks() noexcept {
  while (longM != nullptr) {
    LongBlock* const next = longM->next;
    ::operator delete(longM);
    longM = next;
  }
}

}  // namespace DAT::NumberPortability
