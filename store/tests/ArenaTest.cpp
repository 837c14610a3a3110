#include "store/HistoryArena.h"
#include "store/NumberPortabilityTree.h"
#include "store/SlabArena.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {
namespace {

NumberPortabilityData record(std::string_view digits, std::string_view networkOperator) {
  return NumberPortabilityData(BAS::DateTime(digits), BAS::SimpleString(networkOperator));
}

TEST(SlabArena, HandsOutDistinctAlignedBlocksAndRefillsTheSameMemoryAfterReset) {
  PBC::SlabArena arena(100);  // rounded up to 104: four blocks of 24 bytes per slab
  std::vector<void*> first;
  for (int i = 0; i < 10; ++i) first.push_back(arena.allocate(20));
  EXPECT_EQ(std::set<void*>(first.begin(), first.end()).size(), first.size());
  for (void* block : first) EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % PBC::SlabArena::alignCM, 0U);
  EXPECT_EQ(arena.usedBytes(), 10U * 24U);
  EXPECT_EQ(arena.reservedBytes(), 3U * 104U);

  std::size_t visited = 0;
  arena.forEachUsed([&visited](char* begin, char* end) { visited += static_cast<std::size_t>(end - begin) / 24; });
  EXPECT_EQ(visited, 10U);
  EXPECT_THROW(arena.allocate(105), std::bad_alloc);

  arena.reset();
  EXPECT_EQ(arena.usedBytes(), 0U);
  std::vector<void*> second;
  for (int i = 0; i < 10; ++i) second.push_back(arena.allocate(20));
  EXPECT_EQ(second, first);  // the same blocks, in the same order, and no new slab
  EXPECT_EQ(arena.reservedBytes(), 3U * 104U);
}

TEST(HistoryArena, ReusesReleasedArraysByLengthAndKeepsLongOnesApart) {
  HistoryArena arena;
  NumberPortabilityData* const two = arena.allocate(2);
  NumberPortabilityData* const three = arena.allocate(3);
  arena.release(two, 2);
  EXPECT_NE(arena.allocate(3), two);  // another length does not take it
  EXPECT_EQ(arena.allocate(2), two);
  arena.release(three, 3);
  EXPECT_EQ(arena.allocate(3), three);

  // Arrays beyond the pooled lengths are heap blocks; released, reset or left to the
  // destructor, none may leak (the sanitizer build checks).
  NumberPortabilityData* const longOne = arena.allocate(HistoryArena::pooledLengthsCM + 1);
  arena.allocate(HistoryArena::pooledLengthsCM + 5);
  arena.allocate(HistoryArena::pooledLengthsCM + 9);
  arena.release(longOne, HistoryArena::pooledLengthsCM + 1);
  arena.reset();
  arena.allocate(HistoryArena::pooledLengthsCM + 2);
}

TEST(NumberPortabilityTreeMemory, KeepsLongHistoriesAndLongOperatorTextsThroughGrowthClearAndRefill) {
  const std::string longOperator(40, 'L');  // too long to sit inline: a heap block per record
  NumberPortabilityTree tree;
  for (int round = 0; round < 2; ++round) {
    // Forty records of one number, inserted oldest first, so that every insertion moves the
    // whole history, across the pooled lengths and beyond.
    for (int year = 1980; year < 2020; ++year) {
      ASSERT_TRUE(tree.insert("0049301", record(std::to_string(year) + "0101000000", longOperator + std::to_string(year)), true));
    }
    ASSERT_TRUE(tree.insert("0049302", record("20000101000000", "SHORT"), true));
    EXPECT_EQ(tree.recordCount(), 41U);

    std::ostringstream out;
    tree.printTree(out, false);
    std::string expected;
    for (int year = 2019; year >= 1980; --year) {
      expected += "0049301  " + std::to_string(year) + "0101000000  " + longOperator + std::to_string(year) + "\n";
    }
    expected += "0049302  20000101000000  SHORT\n";
    EXPECT_EQ(out.str(), expected);

    const std::size_t nodes = tree.nodeCount();
    tree.clearAndDestroy();
    EXPECT_EQ(tree.nodeCount(), 1U);
    EXPECT_EQ(tree.recordCount(), 0U);
    EXPECT_EQ(nodes, 9U);
  }
  // The destructor releases the texts of a filled tree.
  ASSERT_TRUE(tree.insert("0049303", record("20000101000000", longOperator), true));
}

TEST(NumberPortabilityTreeMemory, InsertManyAnswersAsSingleInsertsInOrder) {
  // Equal numbers inside one batch, a duplicate date, a number without digits, and more
  // numbers than one batch holds.
  std::vector<std::string> numbers = {"0049301", "0049301", "+-", "0049301", "004930", "0049301"};
  std::vector<NumberPortabilityData> records = {record("20200101000000", "A"), record("20210101000000", "B"),
                                                record("20200101000000", "X"), record("20200101000000", "C"),
                                                record("20190101000000", "D"), record("20220101000000", "E")};
  for (int i = 0; i < 100; ++i) {
    numbers.push_back("00491" + std::to_string(1000 + i * 37));
    records.push_back(record("20100101000000", "N" + std::to_string(i)));
  }
  std::vector<std::string_view> views(numbers.begin(), numbers.end());

  NumberPortabilityTree single;
  NumberPortabilityTree many;
  std::vector<char> expected;
  for (std::size_t i = 0; i < numbers.size(); ++i) expected.push_back(single.insert(numbers[i].c_str(), records[i], true));
  bool accepted[200];
  many.insertMany(views.data(), records.data(), views.size(), true, accepted);
  EXPECT_EQ(std::vector<char>(accepted, accepted + views.size()), expected);
  EXPECT_EQ(expected[2], 0);
  EXPECT_EQ(expected[3], 0);

  std::ostringstream singleDump;
  std::ostringstream manyDump;
  single.printTree(singleDump, false);
  many.printTree(manyDump, false);
  EXPECT_EQ(manyDump.str(), singleDump.str());
  EXPECT_EQ(many.recordCount(), single.recordCount());
  EXPECT_NE(manyDump.str().find("0049301  20220101000000  E\n0049301  20210101000000  B\n0049301  20200101000000  A\n"),
            std::string::npos);
}

}  // namespace
}  // namespace DAT::NumberPortability
