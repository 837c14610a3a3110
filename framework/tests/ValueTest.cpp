// The framework's values: the date-time of every data record, checked day by day against a
// plain day count over the years 1 to 9999; the string that splits lines and reads numbers; the
// compact string that the store keeps operator names in; the large blocks of the store's arenas.
#include "BAS/DateTime.h"
#include "BAS/LargeBlock.h"
#include "BAS/SimpleString.h"
#include "BAS/String.h"
#include "fuzz/CalendarOracle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using BAS::DateTime;
using BAS::SimpleString;
using BAS::String;
using Fields = std::vector<String>;

String compact(int year, int month, int day, int second) {
  char text[32];
  std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d", year, month, day, second / 3600, second / 60 % 60,
                second % 60);
  return text;
}

TEST(DateTime, EveryDayOfTheYearsOneTo9999AgreesWithAPlainDayCount) {
  DateTime::Secs day = 0;  // days since 0001-01-01, counted one at a time
  int failures = 0;
  for (int year = 1; year <= 9999; ++year) {
    int dayOfYear = 0;
    for (int month = 1; month <= 12; ++month) {
      const int length = NpFuzz::monthLength(year, month);
      for (int d = 1; d <= length; ++d, ++day) {
        const int second = static_cast<int>(day * 7919 % 86400);
        const String text = compact(year, month, d, second);
        const DateTime read(text);
        char written[14];
        const bool ok = read.secs() == day * 86400 + second &&
                        DateTime::fromSecs(read.secs()).writeCompact(written) == 14 && std::string(written, 14) == text.str() &&
                        DateTime::fromFields(year, month, d, second / 3600, second / 60 % 60, second % 60) == read &&
                        std::stoi(read.asString("%j").str()) == ++dayOfYear;
        if (!ok && ++failures < 5) ADD_FAILURE() << text << " read as " << read;
      }
      if (DateTime(compact(year, month, length + 1, 0)).isValid() && ++failures < 5) {
        ADD_FAILURE() << compact(year, month, length + 1, 0) << " was taken";
      }
    }
  }
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(day, 3652059u);
  EXPECT_EQ(DateTime("19700101000000").unixTime(), 0);
  EXPECT_EQ(DateTime::fromUnixTime(1677674096), DateTime("20230301123456"));
  EXPECT_EQ(DateTime("20240305070809").asString("%F %T %j %y %%Y %q").str(), "2024-03-05 07:08:09 065 24 %Y %q");
}

TEST(DateTime, RefusesTextsThatAreNoDateTimeAndOrdersThemLast) {
  for (const char* text : {"", "2023030100000", "202303010000000", "2023030100000a", " 20230301000000", "00000101000000",
                           "20231301000000", "20230001000000", "20230100000000", "20230301240000", "20230301006000",
                           "20230301000060"}) {
    const DateTime d(text);
    EXPECT_FALSE(d.isValid()) << '"' << text << '"';
    EXPECT_TRUE(d.asString("%Y").empty());
    char digits[14];
    EXPECT_EQ(d.writeCompact(digits), 0u);
    EXPECT_EQ(d, DateTime());
  }
  EXPECT_LT(DateTime("20221231235959"), DateTime("20230101000000"));
  EXPECT_LT(DateTime("99991231235959"), DateTime());
}

TEST(String, SplitsAtAnyWhiteSpaceTrimsBlanksAndReadsWholeUnsignedNumbers) {
  const std::pair<const char*, Fields> splits[] = {
      {"491701234567 20230301000000 D2", {"491701234567", "20230301000000", "D2"}},
      {"  a\t\tb\r\nc\vd\fe  ", {"a", "b", "c", "d", "e"}}, {"", {}}, {" \t\r\n\v\f", {}}, {"x y", {"x", "y"}}};
  Fields reused{"left", "over", "from", "before"};  // the loaders reuse one vector for every line
  for (const auto& [text, fields] : splits) {
    EXPECT_EQ(String(text).split(), fields) << text;
    String(text).split(reused);
    EXPECT_EQ(reused, fields) << text;
  }
  for (const auto& [text, trimmed] : {std::pair{"  a  b  ", "a  b"}, {"\t a \t", "\t a \t"}, {"    ", ""}, {"", ""}}) {
    EXPECT_EQ(String(text).trim(), trimmed) << '"' << text << '"';
  }
  for (const auto& [text, expected] : {std::pair{"0", 0u}, {"4294967295", 4294967295u}, {"000042", 42u}}) {
    unsigned int n = 7;
    EXPECT_TRUE(String(text).toNum(n) && n == expected) << text;
  }
  for (const char* text : {"", "-1", "+1", " 1", "1 ", "1a", "4294967296", "99999999999999999999", "0x10"}) {
    unsigned int n = 12345;
    EXPECT_FALSE(String(text).toNum(n) || n != 12345u) << "refused, leaving the number as it was: \"" << text << '"';
  }
  EXPECT_EQ(String("old").convert(0), "0");
  EXPECT_EQ(String("old").convert(18446744073709551615ul), "18446744073709551615");
}

TEST(SimpleString, CopiesMovesAndComparesAcrossTheInlineLimit) {
  const std::string longText = "a network operator name far longer than fifteen bytes";
  for (const std::string& text : {std::string(15, 'x'), std::string(16, 'y'), std::string("a\0b", 3)}) {
    EXPECT_EQ(SimpleString(text).view(), text);
  }
  for (const std::string& from : {std::string("D2"), longText}) {
    for (const std::string& to : {std::string("D2"), longText + "!"}) {
      auto original = std::make_unique<SimpleString>(from);
      SimpleString copy(*original), assigned(to), target(to);
      assigned = *original;
      original.reset();  // the copies must not share its storage
      EXPECT_EQ(assigned.view(), from);
      target = std::move(copy);
      EXPECT_TRUE(copy.empty());  // NOLINT(bugprone-use-after-move): moved-from is empty by contract
      SimpleString constructed(std::move(target));
      EXPECT_TRUE(target.empty());  // NOLINT(bugprone-use-after-move)
      SimpleString& alias = constructed;
      constructed = alias;
      constructed = std::move(alias);
      EXPECT_EQ(constructed.view(), from);
    }
  }
  EXPECT_NE(SimpleString(std::string_view("abc")), SimpleString(std::string_view("abd")));
  EXPECT_LT(SimpleString(longText), SimpleString(std::string_view("abc")));  // "a " sorts before "ab"
  EXPECT_LT(SimpleString(longText), SimpleString(longText + "!"));
}

TEST(LargeBlock, HandsOutAlignedZeroedBlocksThatCanBeUsedToTheirEnd) {
  for (const bool hugePages : {false, true}) {
    for (const std::size_t bytes : {std::size_t{1}, BAS::LargeBlock::alignCM, 3 * BAS::LargeBlock::alignCM + 5}) {
      auto* const block = static_cast<unsigned char*>(BAS::LargeBlock::allocate(bytes, hugePages));
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % BAS::LargeBlock::alignCM, 0U);
      EXPECT_TRUE(std::all_of(block, block + bytes, [](unsigned char byte) { return byte == 0; }));
      std::fill(block, block + bytes, 0xA5);
      BAS::LargeBlock::release(block, bytes);
    }
  }
}

}  // namespace
