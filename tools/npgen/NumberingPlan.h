// NpGen::NumberingPlan holds the countries npgen writes numbers for and the mobile number blocks
// of each: the block code after the country code and how many subscriber digits follow it. The
// first country is the home country, whose numbers the data file may also write in national
// form. Used by the number space and the generator; built once, then read only.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace NpGen {

class NumberingPlan {
public:
  struct Block {
    std::uint64_t code;  // digits after the country code, e.g. 151
    unsigned codeLength;
    unsigned subscriberLength;
  };

  struct Country {
    std::string code;  // e.g. "49"
    double share;      // of all generated numbers
    std::vector<Block> blocks;
  };

  // The first code is the home country. Throws std::invalid_argument for an empty list, a
  // repeated code or one npgen has no blocks for.
  explicit NumberingPlan(const std::vector<std::string>& countryCodes);

  const std::vector<Country>& countries() const { return countriesM; }

  // Country codes that are not in the plan, so that numbers with them are known to nobody.
  const std::vector<std::string>& foreignCodes() const { return foreignCodesM; }

  // Every country code npgen knows blocks for, the default plan's order.
  static std::vector<std::string> knownCountryCodes();

  static constexpr std::string_view internationalAccessCodeCM = "00";
  static constexpr std::string_view internationalAccessSignCM = "+";
  static constexpr std::string_view nationalAccessCodeCM = "0";
  static constexpr double homeShareCM = 0.7;

private:
  std::vector<Country> countriesM;
  std::vector<std::string> foreignCodesM;
};

}  // namespace NpGen
