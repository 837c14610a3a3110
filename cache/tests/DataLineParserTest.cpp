// The data line parser: which lines become records (number in stored form, date, operator) and
// why the others are rejected, with the identifier and the arguments that the cache reports;
// and normalisation under the dialling codes a registry may configure.
#include "cache/DataLineParser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using DAT::NumberPortability::DataLineParser;
using namespace std::string_literals;

struct Line {
  std::string text;
  std::vector<std::string> expected;  // number in stored form, date, operator; or identifier and arguments
};

TEST(DataLineParser, ReadsGoodLinesAndNamesWhyOthersAreRejected) {
  const std::string at = "At Line# 7 in File 'np.txt'. ", invalid = "Invalid N-Port Data at Line# 7 in File 'np.txt'. ";
  const Line lines[] = {
      {"030111111 20200101000000 OPA", {"004930111111", "20200101000000", "OPA"}},
      {"  +4930222222 \t 20211231235959   OPB \r", {"004930222222", "20211231235959", "OPB"}},
      {"30444444 20200101000000 OPD", {"004930444444", "20200101000000", "OPD"}},
      {"0049-30 20200101000000 N\0UL"s, {"0049-30", "20200101000000", "N\0UL"s}},
      {"0049301 20200101000000 \xff\xfe", {"0049301", "20200101000000", "\xff\xfe"}},
      {"", {"ERR_NUMBER_OF_FIELDS_IN_RECORD", "0", "3", "", at}},
      {" \t ", {"ERR_NUMBER_OF_FIELDS_IN_RECORD", "0", "3", " \t ", at}},
      {"030333333 20200101000000", {"ERR_NUMBER_OF_FIELDS_IN_RECORD", "2", "3", "030333333 20200101000000", at}},
      {"030 20200101000000 OP X", {"ERR_NUMBER_OF_FIELDS_IN_RECORD", "4", "3", "030 20200101000000 OP X", at}},
      {"030555555 2020010100000 OPC", {"ERR_INVALID_DATETIME", invalid, "2020010100000", "004930555555"}},
      {"+4930666666 20201301000000 OPD", {"ERR_INVALID_DATETIME", invalid, "20201301000000", "004930666666"}},
  };
  const BAS::String nac("0"), iac("00"), cc("49"), sign("+");
  const DataLineParser parser(nac, iac, cc, sign, 3);
  for (const Line& line : lines) {
    SCOPED_TRACE("line '" + line.text + "'");
    BAS::String number;
    DAT::NumberPortability::NumberPortabilityData record;
    DataLineParser::Rejection rejection;
    std::vector<std::string> got;
    if (parser.parse(BAS::String(line.text), 7, BAS::String("np.txt"), number, record, &rejection)) {
      got = {number.str(), record.validFromM.asString("%Y%m%d%H%M%S", BAS::DateTime::Zone::UTC).str(),
             std::string(record.networkOperatorM.view())};
    } else {
      got = {rejection.messageIdM};
      for (const BAS::String& argument : rejection.argumentsM) got.push_back(argument.str());
    }
    EXPECT_EQ(got, line.expected);

    // The loaders' path takes the same lines, with the number in a room of any size.
    for (const std::size_t roomSize : {std::size_t{64}, std::size_t{5}}) {
      DataLineParser::Accepted accepted;
      std::vector<char> room(roomSize);
      const bool taken = parser.accept(line.text, accepted, room);
      EXPECT_EQ(taken, got.size() == 3) << "room " << roomSize;
      if (!taken || got.size() != 3) continue;
      EXPECT_EQ((std::vector<std::string>{std::string(accepted.numberM),
                                          accepted.validFromM.asString("%Y%m%d%H%M%S", BAS::DateTime::Zone::UTC).str(),
                                          std::string(accepted.networkOperatorM)}),
                got)
          << "room " << roomSize;
    }
  }
}

struct Codes {
  const char* label;
  BAS::String nac, iac, cc, sign;  // national and international access code, country code, sign
  std::vector<std::pair<std::string, std::string>> cases;  // number as read, stored form
};

TEST(DataLineParser, NormalisesTheFrontOfTheNumberWithTheConfiguredCodes) {
  const Codes table[] = {
      {"usual codes", "0", "00", "49", "+", {{"+4930123", "004930123"}, {"0049301", "0049301"}, {"0301", "0049301"},
        {"301", "0049301"}, {"", "0049"}, {"+", "00"}, {"0", "0049"}, {"30 1-2 x", "004930 1-2 x"}}},
      {"empty sign begins every number", "0", "00", "49", "", {{"0049301", "000049301"}, {"0301", "000301"}}},
      {"empty international access code", "0", "", "49", "+", {{"+49301", "49301"}, {"0301", "0301"}, {"", "49"}}},
      {"empty national access code", "", "00", "49", "+", {{"301", "0049301"}, {"0301", "00490301"}}},
      {"codes of several characters", "06", "011", "36", "++", {{"06123", "01136123"}, {"0", "011360"},
        {"++36123", "01136123"}, {"+36123", "01136+36123"}, {"01", "0113601"}}},
  };
  for (const Codes& codes : table) {
    SCOPED_TRACE(codes.label);
    const DataLineParser parser(codes.nac, codes.iac, codes.cc, codes.sign, 3);
    for (const auto& [number, expected] : codes.cases) {
      BAS::String text(number);
      parser.normalize(text);
      EXPECT_EQ(text.str(), expected) << "number as read: '" << number << "'";
      // A number that is a field of a line comes out of the loaders' path the same.
      if (number.empty() || number.find(' ') != std::string::npos) continue;
      DataLineParser::Accepted accepted;
      char room[6];
      ASSERT_TRUE(parser.accept(number + " 20200101000000 OP", accepted, room));
      EXPECT_EQ(accepted.numberM, expected) << "number as read: '" << number << "'";
    }
  }
}

}  // namespace
