// NpGen::Permutation is a keyed bijection of [0, size) that is computed, not stored: a balanced
// Feistel network over the smallest even number of bits that holds size, walked until the value
// falls inside the range. npgen uses it to put numbers in shuffled order, to place numbers inside
// number blocks and to pick distinct numbers, all without keeping a table of 10 million entries;
// invert() lets the generator tell whether a given number is one it produces.
#pragma once

#include <cstdint>

namespace NpGen {

class Permutation {
public:
  Permutation(std::uint64_t size, std::uint64_t key);

  // Both take and give a value below size().
  std::uint64_t apply(std::uint64_t value) const;
  std::uint64_t invert(std::uint64_t value) const;

  std::uint64_t size() const { return sizeM; }

private:
  std::uint64_t encrypt(std::uint64_t value) const;
  std::uint64_t decrypt(std::uint64_t value) const;
  std::uint64_t round(unsigned index, std::uint64_t half) const;

  static constexpr unsigned roundsCM = 6;

  std::uint64_t sizeM;
  std::uint64_t keyM;
  unsigned halfBitsM = 1;
  std::uint64_t halfMaskM = 1;
};

}  // namespace NpGen
