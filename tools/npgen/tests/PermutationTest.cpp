#include "DateText.h"
#include "Permutation.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using NpGen::DateText;
using NpGen::Permutation;

TEST(Permutation, IsABijectionThatInvertUndoesForAwkwardSizes) {
  for (const std::uint64_t size : {1ULL, 2ULL, 3ULL, 17ULL, 1000ULL, 4097ULL}) {
    const Permutation permutation(size, 42 + size);
    std::vector<bool> seen(size);
    for (std::uint64_t x = 0; x < size; ++x) {
      const std::uint64_t y = permutation.apply(x);
      ASSERT_LT(y, size);
      EXPECT_FALSE(seen[y]) << "size " << size << " maps two values to " << y;
      seen[y] = true;
      EXPECT_EQ(permutation.invert(y), x);
    }
  }
}

TEST(DateText, WritesCalendarDatesAcrossLeapDaysAndCenturies) {
  const auto text = [](std::int64_t seconds) {
    char digits[DateText::digitsCM];
    DateText::write(seconds, digits);
    return std::string(digits, sizeof digits);
  };
  EXPECT_EQ(text(0), "19700101000000");
  EXPECT_EQ(text(951782400), "20000229000000");
  EXPECT_EQ(text(DateText::seconds(2024, 2, 29, 23, 59, 59) + 1), "20240301000000");
  EXPECT_EQ(text(DateText::seconds(2100, 3, 1) - 1), "21000228235959");
}
