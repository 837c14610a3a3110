// Number normalisation: every stored key must come out in one international form, whatever
// form the data file used, and with whatever dialling codes the registry configured.
#include "plugin/tests/TestEnvironment.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using NpTest::TestEnvironment;

struct Codes {
  std::string label;
  std::string countryCode;
  std::string nationalAccessCode;
  std::optional<std::string> internationalAccessCode;      // absent: registry default
  std::optional<std::string> internationalAccessCodeSign;  // absent: registry default
  std::vector<std::pair<std::string, std::string>> cases;  // number as read, stored key
};

std::string normalized(DAT::NumberPortability::PlugIn& plugIn, const std::string& number) {
  BAS::String text(number);
  plugIn.cacheManager()->normalize(text);
  return text.str();
}

const std::vector<Codes>& codeTable() {
  static const std::vector<Codes> table = {
      {"usual German codes, defaults for the international codes", "49", "0", std::nullopt, std::nullopt,
       {{"+4930123456", "004930123456"}, {"004930123456", "004930123456"}, {"030123456", "004930123456"},
        {"30123456", "004930123456"}, {"+441234567", "00441234567"}, {"0044-1234-567", "0044-1234-567"},
        {"", "0049"}, {"+", "00"}, {"0", "0049"}, {"00", "00"},
        // Nothing but the front is looked at: blanks and letters stay where they are.
        {"30 12-34 x", "004930 12-34 x"}}},
      {"empty international access code sign begins every number", "49", "0", std::nullopt, std::string(),
       {{"004930123456", "00004930123456"}, {"030123456", "00030123456"}, {"+4930", "00+4930"}, {"", "0049"}}},
      {"empty international access code keeps what the sign rule leaves", "49", "0", std::string(), std::nullopt,
       {{"+4930123456", "4930123456"}, {"030123456", "030123456"}, {"30123456", "30123456"}, {"", "49"}}},
      {"empty national access code puts the codes in front like a bare number", "49", "", std::nullopt, std::nullopt,
       {{"30123456", "004930123456"}, {"030123456", "0049030123456"}, {"004930123456", "004930123456"},
        {"+4930123456", "004930123456"}}},
      {"codes of several characters are replaced whole", "36", "06", std::nullopt, std::nullopt,
       {{"0612345678", "003612345678"}, {"06", "0036"},
        {"0", "00360"},  // shorter than the national access code: a bare number
        {"0712345678", "00360712345678"}, {"+3612345678", "003612345678"}, {"003612345678", "003612345678"}}},
      {"longer international codes", "1", "1", std::string("011"), std::string("++"),
       {{"++12125550100", "01112125550100"}, {"+12125550100", "0111+12125550100"}, {"01144123", "01144123"},
        {"12125550100", "01112125550100"}, {"2125550100", "01112125550100"},
        {"01", "011101"}}},  // shorter than "011" and not "1...": a bare number
  };
  return table;
}

TEST(Normalize, RewritesTheFrontOfTheNumberWithTheConfiguredCodes) {
  for (const Codes& codes : codeTable()) {
    SCOPED_TRACE(codes.label);
    TestEnvironment env;
    const std::string file = env.writeFile("np.txt", "");
    BAS::RegistryEntry& entry = env.configure(file, codes.countryCode, codes.nationalAccessCode);
    if (codes.internationalAccessCode) entry.add("InternationalAccessCode", *codes.internationalAccessCode);
    if (codes.internationalAccessCodeSign) entry.add("InternationalAccessCodeSign", *codes.internationalAccessCodeSign);
    DAT::NumberPortability::PlugIn& plugIn = env.make();
    ASSERT_NE(plugIn.cacheManager(), nullptr);
    for (const auto& [number, expected] : codes.cases) {
      EXPECT_EQ(normalized(plugIn, number), expected) << "number as read: '" << number << "'";
    }
  }
}

}  // namespace
