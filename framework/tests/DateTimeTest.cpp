// Edge dates pinned by value; the fuzzer checks the same conversions against a reference
// calendar on arbitrary input.
#include "BAS/DateTime.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using BAS::DateTime;

TEST(DateTime, ReadsAndWritesTheFourteenDigitFormAsUtc) {
  for (const char* text : {"20230301000000", "00010101000000", "99991231235959", "20240229123456", "20000229000000"}) {
    const DateTime d(text);
    ASSERT_TRUE(d.isValid()) << text;
    EXPECT_EQ(d.asString("%Y%m%d%H%M%S").str(), text);
    char digits[14];
    ASSERT_EQ(d.writeCompact(digits), 14u);
    EXPECT_EQ(std::string(digits, 14), text);
  }
  EXPECT_EQ(DateTime("20230301123456").unixTime(), 1677674096);
  EXPECT_EQ(DateTime::fromSecs(0), DateTime("00010101000000"));
  EXPECT_EQ(DateTime("20240305070809").asString("%F %T %j %%Y").str(), "2024-03-05 07:08:09 065 %Y");
}

TEST(DateTime, RefusesTextsThatAreNoDateTimeAndOrdersThemLast) {
  for (const char* text : {"", "2023030100000", "202303010000000", "2023030100000a", " 20230301000000", "00000101000000",
                           "20231301000000", "20230001000000", "20230100000000", "20230230000000", "20230229000000",
                           "19000229000000", "20230431000000", "20230301240000", "20230301006000", "20230301000060"}) {
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

}  // namespace
