#include "NumberSpace.h"

#include "Random.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace NpGen {

namespace {

constexpr std::uint64_t memberPurposeC = 0x6d656d62;
constexpr std::uint64_t placementPurposeC = 0x706c6163;
constexpr std::uint64_t prefixPurposeC = 0x70726566;
constexpr std::uint64_t sparsePurposeC = 0x73706172;
constexpr std::uint64_t countryPurposeC = 0x636f756e;

// Block prefixes go at most this many digits past the block code: 1 + 10 + 100 keys a block.
constexpr std::uint64_t extraPerBlockC = 110;
// Sparse prefixes are the first three national digits, 100 to 999.
constexpr std::uint64_t sparsePrefixDigitsC = 3;
constexpr std::uint64_t sparsePrefixesPerCountryC = 900;

std::uint64_t power10(unsigned exponent) {
  std::uint64_t value = 1;
  while (exponent-- > 0) {
    value *= 10;
  }
  return value;
}

std::uint64_t key(std::uint64_t seed, std::uint64_t purpose, std::uint64_t index = 0) {
  return Random::mix(Random::mix(seed ^ (purpose * Random::goldenCM)) + index);
}

}  // namespace

NumberSpace::NumberSpace(const NumberingPlan& plan, bool sparse, double density, std::uint64_t capacity,
                         std::uint64_t prefixCount, std::uint64_t seed)
    : planM(plan),
      sparseM(sparse),
      capacityM(capacity),
      prefixCountM(std::min(prefixCount, prefixCandidates(plan, sparse))),
      seedM(seed) {
  const auto& countries = plan.countries();
  if (sparseM) {
    sparseNumbersM = Permutation(9 * power10(sparseDigitsCM - 1), key(seed, sparsePurposeC));
    double cumulative = 0;
    for (const auto& country : countries) {
      cumulative += country.share;
      sparseShareM.push_back(static_cast<std::uint64_t>(std::min(cumulative, 1.0) * 4294967296.0));
    }
    sparseShareM.back() = std::uint64_t{1} << 32;
    extraPrefixesM = Permutation(sparsePrefixesPerCountryC * countries.size(), key(seed, prefixPurposeC));
    return;
  }

  perSubBlockM = std::clamp<std::uint64_t>(static_cast<std::uint64_t>(density * spanCM + 0.5), 1, spanCM);
  subBlocksM = (capacity + perSubBlockM - 1) / perSubBlockM;
  std::uint64_t foreignSubBlocks = 0;
  for (unsigned c = 0; c < countries.size(); ++c) {
    CountryLayout layout;
    layout.firstBlock = blocksM.size();
    layout.blockCount = countries[c].blocks.size();
    layout.subBlocksBefore.push_back(0);
    for (const auto& block : countries[c].blocks) {
      blocksM.push_back({c, block});
      layout.subBlocksBefore.push_back(layout.subBlocksBefore.back() + power10(block.subscriberLength) / spanCM);
    }
    if (c > 0) {
      layout.quota = static_cast<std::uint64_t>(countries[c].share * static_cast<double>(subBlocksM));
      foreignSubBlocks += layout.quota;
    }
    layoutM.push_back(std::move(layout));
  }
  layoutM[0].quota = subBlocksM - foreignSubBlocks;
  std::uint64_t first = 0;
  for (unsigned c = 0; c < countries.size(); ++c) {
    CountryLayout& layout = layoutM[c];
    const std::uint64_t available = layout.subBlocksBefore.back();
    if (layout.quota > available) {
      throw std::invalid_argument("the blocks of country " + countries[c].code + " hold " +
                                  std::to_string(available * perSubBlockM) + " numbers at this density but " +
                                  std::to_string(layout.quota * perSubBlockM) +
                                  " are needed: raise the density or lower the record count");
    }
    layout.firstSubBlock = first;
    first += layout.quota;
    layout.placement = Permutation(available, key(seed, placementPurposeC, c));
  }
  if (blocksM.size() < prefixCountM) {
    extraPrefixesM = Permutation(extraPerBlockC * blocksM.size(), key(seed, prefixPurposeC));
  }
}

std::uint64_t NumberSpace::prefixCandidates(const NumberingPlan& plan, bool sparse) {
  std::uint64_t blocks = 0;
  for (const auto& country : plan.countries()) {
    blocks += country.blocks.size();
  }
  return sparse ? sparsePrefixesPerCountryC * plan.countries().size() : (1 + extraPerBlockC) * blocks;
}

Permutation NumberSpace::members(std::uint64_t subBlock) const {
  return Permutation(spanCM, key(seedM, memberPurposeC, subBlock));
}

unsigned NumberSpace::sparseCountry(std::uint64_t index) const {
  const std::uint64_t draw = Random::mix(key(seedM, countryPurposeC) ^ index) >> 32;
  return static_cast<unsigned>(std::upper_bound(sparseShareM.begin(), sparseShareM.end(), draw) - sparseShareM.begin());
}

NumberSpace::Number NumberSpace::numberAt(std::uint64_t index) const {
  if (sparseM) {
    return {sparseCountry(index), power10(sparseDigitsCM - 1) + sparseNumbersM.apply(index), sparseDigitsCM};
  }
  // Consecutive indices go to different sub-blocks, so that the reserve behind the data file's
  // numbers is spread over all sub-blocks too.
  const std::uint64_t subBlock = index % subBlocksM;
  const std::uint64_t member = index / subBlocksM;
  unsigned c = 0;
  while (subBlock >= layoutM[c].firstSubBlock + layoutM[c].quota) {
    ++c;
  }
  const CountryLayout& layout = layoutM[c];
  const std::uint64_t place = layout.placement.apply(subBlock - layout.firstSubBlock);
  const auto blockEnd = std::upper_bound(layout.subBlocksBefore.begin(), layout.subBlocksBefore.end(), place);
  const auto blockInCountry = static_cast<std::size_t>(blockEnd - layout.subBlocksBefore.begin() - 1);
  const NumberingPlan::Block& block = blocksM[layout.firstBlock + blockInCountry].block;
  const std::uint64_t subscriber =
      (place - layout.subBlocksBefore[blockInCountry]) * spanCM + members(subBlock).apply(member);
  return {c, block.code * power10(block.subscriberLength) + subscriber, block.codeLength + block.subscriberLength};
}

std::optional<std::size_t> NumberSpace::blockOf(const Number& number) const {
  if (number.country >= layoutM.size()) {
    return std::nullopt;
  }
  const CountryLayout& layout = layoutM[number.country];
  for (std::size_t b = layout.firstBlock; b < layout.firstBlock + layout.blockCount; ++b) {
    const NumberingPlan::Block& block = blocksM[b].block;
    if (number.length >= block.codeLength && number.length <= block.codeLength + block.subscriberLength &&
        number.national / power10(number.length - block.codeLength) == block.code) {
      return b;
    }
  }
  return std::nullopt;
}

std::optional<std::uint64_t> NumberSpace::indexOf(const Number& number) const {
  if (number.country >= planM.countries().size()) {
    return std::nullopt;
  }
  if (sparseM) {
    const std::uint64_t low = power10(sparseDigitsCM - 1);
    if (number.length != sparseDigitsCM || number.national < low || number.national >= 10 * low) {
      return std::nullopt;
    }
    const std::uint64_t index = sparseNumbersM.invert(number.national - low);
    if (index < capacityM && sparseCountry(index) == number.country) {
      return index;
    }
    return std::nullopt;
  }
  const auto b = blockOf(number);
  if (!b || number.length != blocksM[*b].block.codeLength + blocksM[*b].block.subscriberLength) {
    return std::nullopt;
  }
  const CountryLayout& layout = layoutM[number.country];
  const std::uint64_t subscriber = number.national % power10(blocksM[*b].block.subscriberLength);
  const std::uint64_t place = layout.subBlocksBefore[*b - layout.firstBlock] + subscriber / spanCM;
  const std::uint64_t quotaIndex = layout.placement.invert(place);
  if (quotaIndex >= layout.quota) {
    return std::nullopt;
  }
  const std::uint64_t subBlock = layout.firstSubBlock + quotaIndex;
  const std::uint64_t index = members(subBlock).invert(subscriber % spanCM) * subBlocksM + subBlock;
  if (index < capacityM) {
    return index;
  }
  return std::nullopt;
}

NumberSpace::Number NumberSpace::prefixAt(std::uint64_t index) const {
  if (sparseM) {
    const std::uint64_t candidate = extraPrefixesM.apply(index);
    return {static_cast<unsigned>(candidate / sparsePrefixesPerCountryC), 100 + candidate % sparsePrefixesPerCountryC,
            sparsePrefixDigitsC};
  }
  if (index < blocksM.size()) {
    const PlacedBlock& placed = blocksM[index];
    return {placed.country, placed.block.code, placed.block.codeLength};
  }
  const std::uint64_t candidate = extraPrefixesM.apply(index - blocksM.size());
  const PlacedBlock& placed = blocksM[candidate / extraPerBlockC];
  const std::uint64_t rest = candidate % extraPerBlockC;
  if (rest < 10) {
    return {placed.country, placed.block.code * 10 + rest, placed.block.codeLength + 1};
  }
  return {placed.country, placed.block.code * 100 + (rest - 10), placed.block.codeLength + 2};
}

bool NumberSpace::storedExtraPrefix(std::uint64_t candidate) const {
  const std::uint64_t before = sparseM ? 0 : blocksM.size();
  return prefixCountM > before && extraPrefixesM.invert(candidate) < prefixCountM - before;
}

bool NumberSpace::covered(const Number& number) const {
  if (sparseM) {
    if (number.country >= planM.countries().size() || number.length != sparseDigitsCM) {
      return false;
    }
    const std::uint64_t leading = number.national / power10(sparseDigitsCM - sparsePrefixDigitsC);
    return storedExtraPrefix(number.country * sparsePrefixesPerCountryC + leading - 100);
  }
  const auto b = blockOf(number);
  if (!b) {
    return false;
  }
  const NumberingPlan::Block& block = blocksM[*b].block;
  if (number.length != block.codeLength + block.subscriberLength) {
    return false;
  }
  if (*b < prefixCountM) {
    return true;
  }
  const std::uint64_t subscriber = number.national % power10(block.subscriberLength);
  const std::uint64_t oneDigit = subscriber / power10(block.subscriberLength - 1);
  const std::uint64_t twoDigits = subscriber / power10(block.subscriberLength - 2);
  return storedExtraPrefix(*b * extraPerBlockC + oneDigit) || storedExtraPrefix(*b * extraPerBlockC + 10 + twoDigits);
}

NumberSpace::Number NumberSpace::extend(const Number& prefix, Random& random) const {
  unsigned fullLength = sparseDigitsCM;
  if (!sparseM) {
    const PlacedBlock& placed = blocksM[*blockOf(prefix)];
    fullLength = placed.block.codeLength + placed.block.subscriberLength;
  }
  const std::uint64_t scale = power10(fullLength - prefix.length);
  return {prefix.country, prefix.national * scale + random.below(scale), fullLength};
}

NumberSpace::Number NumberSpace::near(const Number& number, Random& random) {
  const std::uint64_t scale = power10(lastDigitsCM);
  return {number.country, number.national - number.national % scale + random.below(scale), number.length};
}

}  // namespace NpGen
