// The operator table: every text keeps the index it was first given, whichever way it is found
// again (texts of up to eight bytes by their bytes as a word, longer ones by the map), and a
// cleared table forgets every text.
#include "store/OperatorTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using DAT::NumberPortability::OperatorTable;
using namespace std::string_literals;

// Texts that a word of their bytes alone would confuse, beside thousands of ordinary ones.
std::vector<std::string> texts() {
  std::vector<std::string> all = {"",         "A",         "A\0"s,      "\0"s,       "\0\0"s,     "AB",
                                  "BA",       "ABCDEFGH",  "ABCDEFGI",  "ABCDEFGHI", "ABCDEFGHJ", "\xff\xff\xff\xff\xff\xff\xff\xff",
                                  "TRANS01",  "TRANS01 ",  "NRES017",   "DMV07"};
  for (int i = 0; i < 3000; ++i) all.push_back("OP" + std::to_string(i));
  for (int i = 0; i < 300; ++i) all.push_back("OPERATOR-" + std::to_string(i));
  // Texts that differ only in trailing NULs, so that some share a place in the cache.
  for (int i = 0; i < 100; ++i) {
    for (std::size_t nuls = 1; nuls <= 5; ++nuls) all.push_back("T" + std::to_string(i) + std::string(nuls, '\0'));
  }
  return all;
}

TEST(OperatorTable, AnyTextFoundAgainGetsTheIndexItWasFirstGiven) {
  const std::vector<std::string> all = texts();
  std::vector<std::string> order = all;
  std::mt19937 random(7);
  OperatorTable table;
  std::map<std::string, std::uint32_t> first;
  for (int round = 0; round < 3; ++round) {
    std::shuffle(order.begin(), order.end(), random);
    for (const std::string& text : order) {
      const std::uint32_t index = table.intern(text);
      const auto [known, added] = first.emplace(text, index);
      ASSERT_EQ(index, known->second) << "text '" << text << "' in round " << round;
      ASSERT_EQ(table.text(index).view(), text);
    }
  }
  EXPECT_EQ(table.size(), all.size());

  // A copy answers as the original, and so does the original once cleared and filled anew.
  OperatorTable copy(table);
  for (const std::string& text : all) EXPECT_EQ(copy.intern(text), first[text]) << "text '" << text << "'";
  table.clear();
  EXPECT_EQ(table.size(), 0u);
  for (std::size_t i = 0; i < order.size(); ++i) {
    const std::string& text = order[order.size() - 1 - i];
    ASSERT_EQ(table.intern(text), i) << "text '" << text << "' after clear";
  }
}

}  // namespace
