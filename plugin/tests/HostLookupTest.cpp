// The host's batch lookup: for each search method, the record, the length of the key that
// answered (the number's own or a block's) and the generation of the data that was read.
#include "plugin/tests/TestEnvironment.h"

#include "plugin/PortabilityLookup.h"

#include <string>
#include <vector>

namespace {

using DAT::NumberPortability::PortabilityLookup;
using NpTest::TestEnvironment;

// A number, the block 0049301 above it, and a number below no block.
const char* const data = "030111111 20200101000000 NUM\n0301 20100101000000 BLOCK\n040222222 20200101000000 OTHER\n";

// "operator/validFrom/keyLength/match/generation" per number, or "-" and the generation.
std::string answers(PortabilityLookup& lookup, const std::vector<std::string_view>& numbers, const char* date) {
  const std::vector<BAS::DateTime> dates(numbers.size(), BAS::DateTime(date));
  std::vector<PortabilityLookup::Answer> answers(numbers.size());
  auto found = std::make_unique<bool[]>(numbers.size());
  lookup.lookUp(numbers.data(), dates.data(), numbers.size(), answers.data(), found.get());
  std::string text;
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const PortabilityLookup::Answer& a = answers[i];
    if (found[i]) {
      const bool own = a.keyLength == PortabilityLookup::digitCount(numbers[i]);
      text += std::string(a.networkOperator.view()) + "/" + a.validFrom.asString("%Y").str() + "/" +
              std::to_string(a.keyLength) + (own ? "/number" : "/prefix");
    } else {
      text += "-";
    }
    text += "/" + std::to_string(a.generation.publication) + " ";
  }
  return text;
}

TEST(HostLookup, EachMethodTellsTheKeyThatAnsweredAndTheGenerationThatWasRead) {
  const std::vector<std::string_view> numbers = {"004930111111", "0049-30-111 111", "004930122222", "004940222222",
                                                 "004950000000"};
  const struct {
    const char* method;
    const char* date;
    std::string expected;
  } rows[] = {
      {"0", "20300101000000", "NUM/2020/12/number/1 NUM/2020/12/number/1 BLOCK/2010/7/prefix/1 OTHER/2020/12/number/1 -/1 "},
      {"0", "20150101000000", "BLOCK/2010/7/prefix/1 BLOCK/2010/7/prefix/1 BLOCK/2010/7/prefix/1 -/1 -/1 "},
      {"1", "20300101000000", "NUM/2020/12/number/1 NUM/2020/12/number/1 -/1 OTHER/2020/12/number/1 -/1 "},
      {"1", "20150101000000", "-/1 -/1 -/1 -/1 -/1 "},
      {"2", "20300101000000", "BLOCK/2010/7/prefix/1 BLOCK/2010/7/prefix/1 BLOCK/2010/7/prefix/1 OTHER/2020/12/number/1 -/1 "},
      {"2", "20050101000000", "-/1 -/1 -/1 -/1 -/1 "},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string("method ") + row.method + " at " + row.date);
    TestEnvironment env;
    env.configure(data).add("SearchMethod", row.method);
    env.start();
    EXPECT_EQ(answers(*env.plugIn, numbers, row.date), row.expected);
    EXPECT_EQ(env.plugIn->generation().publication, 1U);
  }
}

}  // namespace
