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
  const DateTime d("20230301123456");
  EXPECT_EQ(d, DateTime::fromFields(2023, 3, 1, 12, 34, 56));
  EXPECT_EQ(d.unixTime(), 1677674096);
  EXPECT_EQ(DateTime::fromUnixTime(0), DateTime("19700101000000"));
  EXPECT_EQ(DateTime::fromSecs(0), DateTime("00010101000000"));
  EXPECT_EQ(DateTime("20240301000000").secs() - DateTime("20240228000000").secs(), 2u * 86400u);
}

TEST(DateTime, RefusesTextsThatAreNoDateTime) {
  for (const char* text : {"", "2023030100000", "202303010000000", "2023030100000a", " 20230301000000", "00000101000000",
                           "20231301000000", "20230001000000", "20230100000000", "20230230000000", "20230229000000",
                           "19000229000000", "20230431000000", "20230301240000", "20230301006000", "20230301000060"}) {
    const DateTime d(text);
    EXPECT_FALSE(d.isValid()) << '"' << text << '"';
    EXPECT_GE(d.secs(), DateTime::invalidSecsCM) << '"' << text << '"';
    EXPECT_TRUE(d.asString("%Y").empty());
    char digits[14];
    EXPECT_EQ(d.writeCompact(digits), 0u);
  }
}

TEST(DateTime, OrdersByTimeWithTheInvalidValueLast) {
  EXPECT_LT(DateTime("20230301000000"), DateTime("20230301000001"));
  EXPECT_LT(DateTime("20221231235959"), DateTime("20230101000000"));
  EXPECT_LT(DateTime("99991231235959"), DateTime());
  EXPECT_EQ(DateTime(), DateTime("bad"));
}

TEST(DateTime, FormatsEveryConversion) {
  const DateTime d("20240305070809");
  EXPECT_EQ(d.asString("%F %T").str(), "2024-03-05 07:08:09");
  EXPECT_EQ(d.asString("%y/%m/%d %j %%Y %q").str(), "24/03/05 065 %Y %q");
  EXPECT_EQ(DateTime("20241231000000").asString("%j").str(), "366");
  EXPECT_EQ(DateTime("00050101000000").asString("%Y").str(), "0005");
}

}  // namespace
