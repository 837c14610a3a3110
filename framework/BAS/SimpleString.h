// BAS::SimpleString is a light text for short identifiers such as network operator names.
// It takes 16 bytes and keeps texts of up to 15 bytes inline, so a stored record needs no heap
// block for its operator; longer texts live in one heap block. A value type like BAS::String.
#pragma once

#include "BAS/Export.h"

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string_view>

namespace BAS {

class BAS_EXPORT SimpleString {
public:
  static constexpr std::size_t inlineCapacityCM = 15;

  SimpleString() noexcept { clearInline(); }
  explicit SimpleString(std::string_view text) { assignFresh(text); }
  SimpleString(const char* text, std::size_t length) { assignFresh(std::string_view(text, length)); }
  SimpleString(const SimpleString& other) { assignFresh(other.view()); }
  SimpleString(SimpleString&& other) noexcept;
  SimpleString& operator=(const SimpleString& other);
  SimpleString& operator=(SimpleString&& other) noexcept;
  ~SimpleString() { release(); }

  std::string_view view() const noexcept {
    if (isHeap()) return std::string_view(heapText(), heapLength());
    return std::string_view(storageM.bytes, inlineLength());
  }
  std::size_t length() const noexcept { return view().size(); }
  bool empty() const noexcept { return length() == 0; }

  friend bool operator==(const SimpleString& a, const SimpleString& b) noexcept { return a.view() == b.view(); }
  friend auto operator<=>(const SimpleString& a, const SimpleString& b) noexcept { return a.view() <=> b.view(); }

private:
  static constexpr std::size_t tagIndexCM = 15;
  static constexpr unsigned char heapTagCM = 0xFF;

  bool isHeap() const noexcept { return static_cast<unsigned char>(storageM.bytes[tagIndexCM]) == heapTagCM; }
  std::size_t inlineLength() const noexcept { return static_cast<unsigned char>(storageM.bytes[tagIndexCM]); }
  const char* heapText() const noexcept { return storageM.heap.block + sizeof(std::size_t); }
  std::size_t heapLength() const noexcept;
  void clearInline() noexcept;
  void assignFresh(std::string_view text);
  void release() noexcept;

  // Inline: the text in bytes[0..14], its length in bytes[15].
  // Heap: `block` holds a length followed by the text; bytes[15] is heapTagCM.
  union Storage {
    char bytes[16];
    struct {
      char* block;
      char unused[8];
    } heap;
  } storageM;
};

static_assert(sizeof(SimpleString) == 16);

BAS_EXPORT std::ostream& operator<<(std::ostream& out, const SimpleString& text);

}  // namespace BAS
