// PBC::DigitKey holds the decimal digits of a key, up to maxDigitsCM of them, packed four bits
// each (the digit plus one, so that an ended key reads 0) into two 64-bit words, most
// significant first. Comparing two keys as numbers therefore orders them as the trie walks
// them: digit by digit, a key before the keys that extend it. Loaders sort a whole file's keys
// in this form and build the trie from them in one pass (PtrTreeSortedBuild). A value type.
#pragma once

#include "store/PtrTreeDigits.h"

#include <bit>
#include <cstdint>
#include <string>
#include <string_view>

namespace PBC {

class DigitKey {
public:
  static constexpr unsigned maxDigitsCM = 32;

  DigitKey() noexcept = default;
  DigitKey(std::uint64_t high, std::uint64_t low) noexcept : highM(high), lowM(low) {}

  // The decimal digits of `text` (other characters skipped, as the trie skips them) into
  // `key`; false, and `key` unspecified, when there are more than maxDigitsCM of them.
  static bool pack(std::string_view text, DigitKey& key) noexcept {
    // The words are gathered in locals: through a reference to the key's words, every digit
    // waited for the store of the one before (a load packs every line of a data file).
    std::uint64_t high = 0;
    std::uint64_t low = 0;
    unsigned count = 0;
    for (const char c : text) {
      const int digit = PtrTreeDigits::value(c, 10);
      if (digit < 0) continue;
      if (count == maxDigitsCM) return false;
      const std::uint64_t nibble = std::uint64_t(digit + 1) << (60 - 4 * (count % halfCM));
      if (count < halfCM) {
        high |= nibble;
      } else {
        low |= nibble;
      }
      ++count;
    }
    key = DigitKey(high, low);
    return true;
  }

  // The high word holds the first sixteen digits, the low word the rest.
  std::uint64_t high() const noexcept { return highM; }
  std::uint64_t low() const noexcept { return lowM; }

  // Digit `index` (from 0); -1 past the end of the key.
  int digit(unsigned index) const noexcept {
    const std::uint64_t word = index < halfCM ? highM : lowM;
    return static_cast<int>(word >> (60 - 4 * (index % halfCM)) & 0xFu) - 1;
  }

  // Number of digits.
  unsigned length() const noexcept {
    if (lowM != 0) return halfCM + usedNibbles(lowM);
    return usedNibbles(highM);
  }

  // Number of leading digits that this key and `other` share.
  unsigned commonPrefix(const DigitKey& other) const noexcept {
    if (const std::uint64_t diff = highM ^ other.highM; diff != 0) return static_cast<unsigned>(std::countl_zero(diff)) / 4;
    if (const std::uint64_t diff = lowM ^ other.lowM; diff != 0) return halfCM + static_cast<unsigned>(std::countl_zero(diff)) / 4;
    return length();
  }

  // Appends the digits as characters.
  void appendTo(std::string& out) const {
    const unsigned count = length();
    for (unsigned i = 0; i < count; ++i) out.push_back(PtrTreeDigits::character(digit(i)));
  }

  friend bool operator==(const DigitKey&, const DigitKey&) noexcept = default;
  friend bool operator<(const DigitKey& a, const DigitKey& b) noexcept {
    return a.highM != b.highM ? a.highM < b.highM : a.lowM < b.lowM;
  }

private:
  static constexpr unsigned halfCM = 16;

  // Digits in one word: its nibbles up to the last one that is not 0.
  static unsigned usedNibbles(std::uint64_t word) noexcept {
    return word == 0 ? 0 : 16 - static_cast<unsigned>(std::countr_zero(word)) / 4;
  }

  std::uint64_t highM = 0;
  std::uint64_t lowM = 0;
};

}  // namespace PBC
