// A stack of trivially copyable items (pointers) with room for InlineCapacity of them inside
// the object, moving to the heap only when more are pushed. The best-match search collects
// the histories of a number's prefixes on one, so ordinary lookups do not allocate. Each
// search has its own; a stack is not shared between threads.
#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <type_traits>

namespace DAT::NumberPortability {

template <class T, std::size_t InlineCapacity>
class PrefixStack {
  static_assert(std::is_trivially_copyable_v<T>, "items are copied bytewise when the stack moves to the heap");
  static_assert(InlineCapacity > 0, "the inline room doubles into the heap room");

public:
  PrefixStack() noexcept = default;
  ~PrefixStack() { delete[] heapM; }
  PrefixStack(const PrefixStack&) = delete;
  PrefixStack& operator=(const PrefixStack&) = delete;

  // Out of memory while moving to the heap propagates; the stack keeps its items.
  void push_back(T item) {
    if (sizeM == capacityM) grow();
    items()[sizeM++] = item;
  }

  // True and the top item taken into `item`; false, and `item` untouched, when empty.
  bool pop(T& item) noexcept {
    if (sizeM == 0) return false;
    item = items()[--sizeM];
    return true;
  }

  // True and the top item copied into `item`, which stays on the stack; false when empty.
  bool top(T& item) const noexcept {
    if (sizeM == 0) return false;
    item = view().back();
    return true;
  }

  std::size_t size() const noexcept { return sizeM; }
  bool empty() const noexcept { return sizeM == 0; }
  // Bottom first.
  std::span<const T> view() const noexcept { return {heapM != nullptr ? heapM : inlineM, sizeM}; }

private:
  T* items() noexcept { return heapM != nullptr ? heapM : inlineM; }

  void grow() {
    T* const bigger = new T[capacityM * 2];
    std::copy_n(items(), sizeM, bigger);
    delete[] heapM;
    heapM = bigger;
    capacityM *= 2;
  }

  T inlineM[InlineCapacity];  // only the first sizeM are set while heapM is null
  T* heapM = nullptr;         // owned
  std::size_t sizeM = 0;
  std::size_t capacityM = InlineCapacity;
};

}  // namespace DAT::NumberPortability
