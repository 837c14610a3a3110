// NpGen::NumberSpace decides which subscriber numbers exist and which block prefixes carry a
// record, as pure functions of an index and the seed. Number i is computed whenever it is needed
// (the data file, the delta file and the events all ask for the same i), so npgen never holds a
// list of numbers, and indexOf() answers whether any number is one of them.
//
// In block mode each number block is cut into sub-blocks of spanCM consecutive numbers; a chosen
// sub-block holds density * spanCM numbers, so neighbouring numbers share all but their last few
// digits, as in a national portability database. In sparse mode the numbers are 12 digits drawn
// uniformly, the worst case for a digit trie. Built once by the generator, then read only.
#pragma once

#include "NumberingPlan.h"
#include "Permutation.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace NpGen {

class Random;

class NumberSpace {
public:
  struct Number {
    unsigned country = 0;        // index into the plan's countries
    std::uint64_t national = 0;  // national number, or the national part of a block prefix
    unsigned length = 0;         // its digits; it never starts with 0

    friend bool operator==(const Number&, const Number&) = default;
  };

  // capacity: how many numbers indices may reach (those of the data file and the reserve that
  // delta files draw new numbers from). prefixCount is cut to prefixCandidates(). Throws
  // std::invalid_argument when the blocks cannot hold capacity numbers at that density.
  NumberSpace(const NumberingPlan& plan, bool sparse, double density, std::uint64_t capacity,
              std::uint64_t prefixCount, std::uint64_t seed);

  // Number index, index below capacity; distinct indices give distinct numbers.
  Number numberAt(std::uint64_t index) const;
  // The index of a full number if it is one of the space's numbers.
  std::optional<std::uint64_t> indexOf(const Number& number) const;

  std::uint64_t prefixCount() const { return prefixCountM; }
  // Stored prefix index, index below prefixCount(); block keys come first.
  Number prefixAt(std::uint64_t index) const;
  // Whether some stored prefix is a prefix of the full number.
  bool covered(const Number& number) const;
  // A full-length number starting with prefix, the other digits drawn at random.
  Number extend(const Number& prefix, Random& random) const;
  // The number with its last lastDigitsCM digits drawn at random.
  static Number near(const Number& number, Random& random);

  static std::uint64_t prefixCandidates(const NumberingPlan& plan, bool sparse);

  static constexpr std::uint64_t spanCM = 10000;
  static constexpr unsigned lastDigitsCM = 4;
  static constexpr unsigned sparseDigitsCM = 12;

private:
  struct PlacedBlock {
    unsigned country;
    NumberingPlan::Block block;
  };

  struct CountryLayout {
    std::size_t firstBlock = 0;  // into blocksM
    std::size_t blockCount = 0;
    std::vector<std::uint64_t> subBlocksBefore;  // per block of the country, and the total last
    std::uint64_t quota = 0;                     // sub-blocks the country holds
    std::uint64_t firstSubBlock = 0;             // of the country's quota among all sub-blocks
    Permutation placement{0, 0};                 // quota index -> sub-block of the country
  };

  // Index into blocksM of the block a full number or a prefix falls in.
  std::optional<std::size_t> blockOf(const Number& number) const;
  Permutation members(std::uint64_t subBlock) const;
  unsigned sparseCountry(std::uint64_t index) const;
  bool storedExtraPrefix(std::uint64_t candidate) const;

  const NumberingPlan& planM;
  bool sparseM;
  std::uint64_t capacityM;
  std::uint64_t prefixCountM;
  std::uint64_t seedM;
  std::vector<PlacedBlock> blocksM;
  std::vector<CountryLayout> layoutM;
  std::uint64_t perSubBlockM = 1;
  std::uint64_t subBlocksM = 0;
  std::vector<std::uint64_t> sparseShareM;  // cumulative country shares in units of 2^-32
  Permutation sparseNumbersM{0, 0};  // index -> 12-digit number less its first-digit offset
  Permutation extraPrefixesM{0, 0};
};

}  // namespace NpGen
