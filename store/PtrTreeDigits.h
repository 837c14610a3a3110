// How the digit trie PBC::PtrTree and its walks read key characters as slot numbers and write
// slot numbers back as key characters. Shared by the trie, its batched walks and its key-order
// walks, so that all of them agree on which characters are digits. Tables only, no state.
#pragma once

#include <array>
#include <cstddef>

namespace PBC {

class PtrTreeDigits {
public:
  // Digit value of a character code taken as unsigned byte; -1 for codes that are no digit.
  static constexpr std::array<int, 256> DIGIT_INDEX = [] {
    std::array<int, 256> index{};
    index.fill(-1);
    for (int c = '0'; c <= '9'; ++c) index[static_cast<std::size_t>(c)] = c - '0';
    for (int c = 'A'; c <= 'F'; ++c) index[static_cast<std::size_t>(c)] = c - 'A' + 10;
    for (int c = 'a'; c <= 'f'; ++c) index[static_cast<std::size_t>(c)] = c - 'a' + 10;
    return index;
  }();
  // Digit value to the character printed in keys; hexadecimal digits print in upper case.
  static constexpr std::array<char, 16> CHAR_INDEX = {'0', '1', '2', '3', '4', '5', '6', '7',
                                                      '8', '9', 'A', 'B', 'C', 'D', 'E', 'F'};

  // The slot for character `c` in a trie of `radix` slots, or -1 when that trie does not read
  // it as a digit.
  static int value(char c, int radix) noexcept {
    const int digit = DIGIT_INDEX[static_cast<unsigned char>(c)];
    return digit < radix ? digit : -1;
  }

  // The key character for slot `slot`.
  static char character(int slot) noexcept { return CHAR_INDEX[static_cast<std::size_t>(slot)]; }
};

}  // namespace PBC
