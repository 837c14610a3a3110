#include "BAS/SimpleString.h"

#include <cstring>
#include <ostream>

namespace BAS {

void SimpleString::clearInline() noexcept { std::memset(storageM.bytes, 0, sizeof storageM.bytes); }

std::size_t SimpleString::heapLength() const noexcept {
  std::size_t length;
  std::memcpy(&length, storageM.heap.block, sizeof length);
  return length;
}

void SimpleString::assignFresh(std::string_view text) {
  clearInline();
  if (text.size() <= inlineCapacityCM) {
    std::memcpy(storageM.bytes, text.data(), text.size());
    storageM.bytes[tagIndexCM] = static_cast<char>(text.size());
    return;
  }
  const std::size_t length = text.size();
  char* block = new char[sizeof length + length];
  std::memcpy(block, &length, sizeof length);
  std::memcpy(block + sizeof length, text.data(), length);
  storageM.heap.block = block;
  storageM.bytes[tagIndexCM] = static_cast<char>(heapTagCM);
}

void SimpleString::release() noexcept {
  if (isHeap()) delete[] storageM.heap.block;
}

SimpleString::SimpleString(SimpleString&& other) noexcept {
  std::memcpy(&storageM, &other.storageM, sizeof storageM);
  other.clearInline();
}

SimpleString& SimpleString::operator=(const SimpleString& other) {
  if (this != &other) {
    if (!other.isHeap() && !isHeap()) {
      std::memcpy(&storageM, &other.storageM, sizeof storageM);
    } else {
      SimpleString copy(other);
      *this = std::move(copy);
    }
  }
  return *this;
}

SimpleString& SimpleString::operator=(SimpleString&& other) noexcept {
  if (this != &other) {
    release();
    std::memcpy(&storageM, &other.storageM, sizeof storageM);
    other.clearInline();
  }
  return *this;
}

std::ostream& operator<<(std::ostream& out, const SimpleString& text) { return out << text.view(); }

}  // namespace BAS
