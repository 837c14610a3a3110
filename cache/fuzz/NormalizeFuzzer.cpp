// Fuzzes CacheManager::normalize with any dialling codes. The input is up to five parts cut at
// line feeds: national access code, international access code, country code, international
// access code sign, number (the last part is always the number, and codes it leaves out keep
// the usual values 0, 00, 49, +). The manager reads the codes on every call, so one manager,
// made once over the codes below, serves every input. Properties:
//  - the rules, first match wins: an empty number becomes iac+cc; a number that begins with the
//    sign has it replaced by iac; one that begins with iac stays; one that begins with the
//    national access code has it replaced by iac+cc; any other gets iac+cc in front;
//  - whatever rule applied, the result begins with iac, and it ends with the number less the
//    front that the rule replaced: nothing but the front changes;
//  - a result that does not begin with the sign is left alone by a second normalisation.
#include "cache/fuzz/FuzzPlugIn.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace {

using NpFuzz::failProperty;

struct Codes {
  BAS::String nationalAccessCode{"0"};
  BAS::String internationalAccessCode{"00"};
  BAS::String countryCode{"49"};
  BAS::String internationalAccessCodeSign{"+"};
};

Codes& codes() {
  static Codes* theCodes = new Codes;
  return *theCodes;
}

DAT::NumberPortability::CacheManager& manager() {
  static auto* theManager = [] {
    Codes& c = codes();
    auto& environment = NpFuzz::PlugInEnvironment::instance(false);
    return new DAT::NumberPortability::CacheManager(&environment.plugIn(), c.nationalAccessCode,
                                                    c.internationalAccessCode, c.countryCode,
                                                    c.internationalAccessCodeSign, 3, BAS::String("unused.txt"));
  }();
  return *theManager;
}

std::string normalised(std::string_view number) {
  BAS::String text(number);
  manager().normalize(text);
  return text.str();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  manager();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  Codes& c = codes();
  c = Codes{};
  BAS::String* const parts[] = {&c.nationalAccessCode, &c.internationalAccessCode, &c.countryCode,
                                &c.internationalAccessCodeSign};
  for (BAS::String* part : parts) {
    const auto end = rest.find('\n');
    if (end == std::string_view::npos) break;
    *part = BAS::String(rest.substr(0, end));
    rest.remove_prefix(end + 1);
  }
  const std::string_view number = rest;
  const std::string nac(c.nationalAccessCode.view());
  const std::string iac(c.internationalAccessCode.view());
  const std::string cc(c.countryCode.view());
  const std::string sign(c.internationalAccessCodeSign.view());

  std::string expected;
  std::size_t replaced = 0;  // length of the number's front that the rule replaces
  if (number.empty()) {
    expected = iac + cc;
  } else if (number.starts_with(sign)) {
    replaced = sign.size();
    expected = iac + std::string(number.substr(replaced));
  } else if (number.starts_with(iac)) {
    expected = std::string(number);
  } else if (number.starts_with(nac)) {
    replaced = nac.size();
    expected = iac + cc + std::string(number.substr(replaced));
  } else {
    expected = iac + cc + std::string(number);
  }

  const std::string result = normalised(number);
  if (result != expected) failProperty("the first matching rule gives the result", result);
  if (!result.starts_with(iac)) failProperty("a normalised number begins with the international access code", result);
  if (!result.ends_with(number.substr(replaced))) failProperty("nothing but the front of the number changes", result);
  if (!result.empty() && !result.starts_with(sign) && normalised(result) != result)
    failProperty("a normalised number that does not begin with the sign stays as it is", result);
  return 0;
}
