// PBC::LargeArray is a growable array of plain values (trivially copyable) in one BAS::LargeBlock:
// growing it remaps the pages instead of copying them. A loader's chunk of records (RecordChunk)
// keeps up to a million or so entries in one, refilled chunk after chunk and returned to the
// system when the load ends. Small pages only: asking for huge pages for memory that is filled
// and emptied at every load made the system compact memory at every reload, moving pages under
// the lookups that read the active tree and stalling them for milliseconds. Not synchronised:
// one thread changes it; any number may read it while nobody does.
#pragma once

#include "BAS/LargeBlock.h"

#include <algorithm>
#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace PBC {

template <class T>
class LargeArray {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

public:
  LargeArray() = default;
  ~LargeArray() { release(); }
  LargeArray(const LargeArray&) = delete;
  LargeArray& operator=(const LargeArray&) = delete;

  std::size_t size() const noexcept { return sizeM; }
  bool empty() const noexcept { return sizeM == 0; }
  T* data() noexcept { return dataM; }
  const T* data() const noexcept { return dataM; }
  T& operator[](std::size_t i) noexcept { return dataM[i]; }
  const T& operator[](std::size_t i) const noexcept { return dataM[i]; }

  // Out of memory propagates, the array unchanged.
  void push_back(const T& value) {
    if (sizeM == capacityM) grow(sizeM + 1);
    ::new (static_cast<void*>(dataM + sizeM)) T(value);
    ++sizeM;
  }
  // Makes it `count` long; new elements are zero-filled (as fresh pages are) or hold what
  // earlier elements left there.
  void resize(std::size_t count) {
    if (count > capacityM) grow(count);
    sizeM = count;
  }
  // Forgets the elements, keeps the memory.
  void clear() noexcept { sizeM = 0; }
  // Forgets the elements and returns the memory.
  void release() noexcept {
    BAS::LargeBlock::release(dataM, capacityM * sizeof(T));
    dataM = nullptr;
    capacityM = 0;
    sizeM = 0;
  }
  void swap(LargeArray& other) noexcept {
    std::swap(dataM, other.dataM);
    std::swap(sizeM, other.sizeM);
    std::swap(capacityM, other.capacityM);
  }

private:
  void grow(std::size_t least) {
    std::size_t capacity = std::max(capacityM * 2, BAS::LargeBlock::alignCM / sizeof(T));
    while (capacity < least) capacity *= 2;
    dataM = static_cast<T*>(BAS::LargeBlock::resize(dataM, capacityM * sizeof(T), capacity * sizeof(T), false));
    capacityM = capacity;
  }

  T* dataM = nullptr;
  std::size_t sizeM = 0;
  std::size_t capacityM = 0;
};

}  // namespace PBC
