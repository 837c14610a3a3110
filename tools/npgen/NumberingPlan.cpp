#include "NumberingPlan.h"

#include <algorithm>
#include <stdexcept>

namespace NpGen {

namespace {

struct KnownCountry {
  const char* code;
  std::vector<NumberingPlan::Block> blocks;
};

// Mobile ranges shaped like those of real national plans: three-digit blocks with seven or
// eight subscriber digits, two-digit blocks with seven.
const std::vector<KnownCountry>& knownCountries() {
  static const std::vector<KnownCountry> countries{
      {"49",
       {{151, 3, 8}, {152, 3, 8}, {155, 3, 8}, {157, 3, 8}, {159, 3, 8}, {160, 3, 7}, {162, 3, 7}, {163, 3, 7},
        {170, 3, 7}, {171, 3, 7}, {172, 3, 7}, {173, 3, 7}, {174, 3, 7}, {175, 3, 7}, {176, 3, 8}, {177, 3, 7},
        {178, 3, 7}, {179, 3, 7}}},
      {"43", {{650, 3, 7}, {660, 3, 7}, {664, 3, 7}, {676, 3, 7}, {680, 3, 7}, {688, 3, 7}, {699, 3, 8}}},
      {"41", {{75, 2, 7}, {76, 2, 7}, {77, 2, 7}, {78, 2, 7}, {79, 2, 7}}},
      {"31", {{61, 2, 7}, {62, 2, 7}, {63, 2, 7}, {64, 2, 7}, {65, 2, 7}}},
  };
  return countries;
}

// Candidates for numbers of countries outside the plan; all two digits long, so none is a
// prefix of a planned country code or the other way round.
constexpr const char* foreignCandidatesC[] = {"33", "34", "39", "44", "45", "46", "47", "48",
                                             "30", "32", "36", "40", "49", "43", "41", "31"};

}  // namespace

NumberingPlan::NumberingPlan(const std::vector<std::string>& countryCodes) {
  if (countryCodes.empty()) {
    throw std::invalid_argument("at least one country code is needed");
  }
  const double foreignShare = countryCodes.size() == 1 ? 0.0 : (1.0 - homeShareCM) / (countryCodes.size() - 1);
  for (const std::string& code : countryCodes) {
    const auto& known = knownCountries();
    const auto found = std::find_if(known.begin(), known.end(), [&](const KnownCountry& k) { return code == k.code; });
    if (found == known.end()) {
      throw std::invalid_argument("no number blocks known for country code '" + code + "'");
    }
    if (std::any_of(countriesM.begin(), countriesM.end(), [&](const Country& c) { return c.code == code; })) {
      throw std::invalid_argument("country code '" + code + "' is given twice");
    }
    countriesM.push_back({code, countriesM.empty() ? (countryCodes.size() == 1 ? 1.0 : homeShareCM) : foreignShare,
                          found->blocks});
  }
  for (const char* candidate : foreignCandidatesC) {
    if (std::none_of(countryCodes.begin(), countryCodes.end(), [&](const std::string& c) { return c == candidate; })) {
      foreignCodesM.emplace_back(candidate);
    }
  }
}

std::vector<std::string> NumberingPlan::knownCountryCodes() {
  std::vector<std::string> codes;
  for (const KnownCountry& country : knownCountries()) {
    codes.emplace_back(country.code);
  }
  return codes;
}

}  // namespace NpGen
