// The framework's values: the date-time of every data record, checked day by day against a
// plain day count over the years 1 to 9999, and the compact string that the store keeps
// operator names in.
#include "BAS/DateTime.h"
#include "BAS/LargeBlock.h"
#include "BAS/SimpleString.h"
#include "fuzz/CalendarOracle.h"
#include "testing/ResidentMemory.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

using BAS::DateTime;
using BAS::SimpleString;

BAS::String compact(int year, int month, int day, int second) {
  char text[32];
  std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d", year, month, day, second / 3600, second / 60 % 60,
                second % 60);
  return text;
}

// Each day is read at another second of the day; the day after each month's last is refused.
TEST(DateTime, EveryDayOfTheYearsOneTo9999AgreesWithAPlainDayCount) {
  DateTime::Secs day = 0, failures = 0;  // days since 0001-01-01, counted one at a time
  for (int year = 1; year <= 9999; ++year) {
    for (int month = 1, dayOfYear = 0; month <= 12; ++month) {
      const int length = NpFuzz::monthLength(year, month);
      for (int d = 1; d <= length; ++d, ++day) {
        const int second = static_cast<int>(day * 7919 % 86400);
        const BAS::String text = compact(year, month, d, second);
        const DateTime read(text);
        char written[14];
        const bool ok = read.secs() == day * 86400 + second && DateTime::fromSecs(read.secs()).writeCompact(written) &&
                        std::string(written, 14) == text.str() && std::stoi(read.asString("%j").str()) == ++dayOfYear &&
                        DateTime::fromFields(year, month, d, second / 3600, second / 60 % 60, second % 60) == read;
        if (!ok && ++failures < 5) ADD_FAILURE() << text << " read as " << read;
      }
      if (DateTime(compact(year, month, length + 1, 0)).isValid() && ++failures < 5) ADD_FAILURE() << year << month;
    }
  }
  EXPECT_TRUE(failures == 0 && day == 3652059u) << "days counted: " << day;
  EXPECT_EQ(DateTime::fromUnixTime(1677674096), DateTime("20230301123456"));
  EXPECT_EQ(DateTime("20240305070809").asString("%F %T %j %y %%Y %q").str(), "2024-03-05 07:08:09 065 24 %Y %q");
}

TEST(DateTime, RefusesTextsThatAreNoDateTimeAndOrdersThemLast) {
  for (const char* text : {"", "2023030100000", "202303010000000", "2023030100000a", " 20230301000000", "00000101000000",
                           "20231301000000", "20230001000000", "20230100000000", "20230301240000", "20230301006000",
                           "20230301000060"}) {
    char digits[14];
    const DateTime d(text);
    EXPECT_TRUE(d == DateTime() && d.asString("%Y").empty() && !d.writeCompact(digits)) << '"' << text << '"';
  }
  EXPECT_LT(DateTime("99991231235959"), DateTime());
  // A character just outside the digits, or far from them, in any place.
  for (std::size_t place = 0; place < 14; ++place) {
    for (const char bad : {'/', ':', '?', '\0', 'a', ' ', '\x80', '\xb0', '\xff', '\x06'}) {
      std::string text = "20230301123456";
      text[place] = bad;
      EXPECT_FALSE(DateTime(std::string_view(text)).isValid()) << "place " << place << ", character " << static_cast<int>(bad);
    }
  }
}

TEST(Strings, CompactOnesCopyMoveAndCompareAcrossTheInlineLimitAndNumbersAreReadWhole) {
  const std::string longText = "a network operator name far longer than fifteen bytes";
  for (const std::string& text : {std::string(15, 'x'), std::string(16, 'y'), std::string("a\0b", 3)})
    EXPECT_EQ(SimpleString(text).view(), text);
  for (const std::string& from : {std::string("D2"), longText}) {
    for (const std::string& to : {std::string("D2"), longText + "!"}) {
      auto original = std::make_unique<SimpleString>(from);
      SimpleString copy(*original), assigned(to), target(to);
      assigned = *original;
      original.reset();  // the copies must not share its storage
      target = std::move(copy);
      SimpleString constructed(std::move(target));
      SimpleString& alias = constructed;
      constructed = alias;
      constructed = std::move(alias);
      // NOLINTNEXTLINE(bugprone-use-after-move): a moved-from string is empty by contract
      EXPECT_TRUE(assigned.view() == from && constructed.view() == from && copy.empty() && target.empty());
    }
  }
  EXPECT_LT(SimpleString(longText), SimpleString(std::string_view("abc")));  // "a " sorts before "ab"
  EXPECT_LT(SimpleString(longText), SimpleString(longText + "!"));
  // The string reads whole unsigned numbers that fit, and otherwise leaves the number as it was.
  for (const auto& [text, read] : {std::pair{"000042", 42u}, {"4294967295", 4294967295u}, {"", 7u}, {"-1", 7u},
                                   {" 1", 7u}, {"1a", 7u}, {"4294967296", 7u}, {"99999999999999999999", 7u}}) {
    unsigned int n = 7;
    EXPECT_TRUE(BAS::String(text).toNum(n) == (read != 7) && n == read) << '"' << text << '"';
  }
}

TEST(LargeBlock, HandsOutAlignedZeroedBlocksThatCanBeUsedToTheirEnd) {
  for (const std::size_t bytes : {std::size_t{1}, 3 * BAS::LargeBlock::alignCM + 5}) {
    auto* const block = static_cast<unsigned char*>(BAS::LargeBlock::allocate(bytes, bytes > 1));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % BAS::LargeBlock::alignCM, 0U);
    EXPECT_TRUE(std::all_of(block, block + bytes, [](unsigned char byte) { return byte == 0; }));
    std::fill(block, block + bytes, 0xA5), BAS::LargeBlock::release(block, bytes);
  }
}

using NpTest::libraryHeapCM;
using NpTest::residentBytes;

// Small allocations freed below one that is still in use stay with the heap, resident, until
// someone asks for them back: what a load's line buffers leave behind if nobody does.
TEST(LargeBlock, ReturnsTheHeapsFreePagesBelowMemoryStillInUse) {
  if (!libraryHeapCM) GTEST_SKIP() << "malloc is the sanitizer's here";
  if (!std::ifstream("/proc/self/statm")) GTEST_SKIP() << "no /proc/self/statm to read the resident memory from";
  const std::size_t before = residentBytes();
  std::vector<std::unique_ptr<char[]>> pieces;
  for (int i = 0; i < 64 * 1024; ++i) {
    pieces.push_back(std::make_unique<char[]>(1000));
    std::fill_n(pieces.back().get(), 1000, 'x');
    asm volatile("" : : "r"(pieces.back().get()) : "memory");  // kept from the optimiser's allocation elision
  }
  const auto kept = std::make_unique<char[]>(1000);  // above them: the heap's top cannot shrink
  asm volatile("" : : "r"(kept.get()) : "memory");
  pieces.clear();
  const std::size_t freed = residentBytes();
  ASSERT_GT(freed, before + 32 * 1024 * 1024) << "the freed pieces are expected to stay resident";
  BAS::LargeBlock::returnFreeHeap();
  EXPECT_LT(residentBytes(), before + (freed - before) / 4);
}

}  // namespace
