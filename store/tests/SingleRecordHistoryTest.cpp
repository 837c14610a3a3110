// The two forms of a history: a single record held in the trie's payload pointer, and a block.
// A record must come back unchanged from either, operator indexes that do not fit the pointer
// must take a block, and a history must grow out of the pointer as if it had always had a block.
#include "store/HistoryArena.h"
#include "store/NumberPortabilityTree.h"
#include "store/RecordChunk.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace DAT::NumberPortability {
namespace {

NumberPortabilityData record(std::string_view date, std::string_view networkOperator) {
  return NumberPortabilityData(BAS::DateTime(date), BAS::SimpleString(networkOperator));
}

std::string dump(const NumberPortabilityTree& tree) {
  std::ostringstream out;
  tree.printTree(out, false);
  return out.str();
}

// The ends of the dates and operator indexes that a record holds, on both sides of the index
// where the pointer form stops.
TEST(StoredHistory, ASingleRecordReadsBackFromThePointerOrFromABlockBeyondItsOperatorRange) {
  const std::uint32_t half = StoredRecord::operatorLimitCM / 2;
  const std::vector<std::pair<BAS::DateTime, std::uint32_t>> cases = {
      {BAS::DateTime(std::string_view("00010101000000")), 0},
      {BAS::DateTime(std::string_view("99991231235959")), half - 1},
      {BAS::DateTime(std::string_view("20200101000000")), half},
      {BAS::DateTime(), StoredRecord::operatorLimitCM - 1},  // the invalid date-time
  };
  HistoryArena arena;
  for (const auto& [date, operatorIndex] : cases) {
    const StoredRecord stored(date, operatorIndex);
    StoredHistory* history = StoredHistory::single(stored);
    EXPECT_EQ(history != nullptr, operatorIndex < half) << operatorIndex;
    if (history == nullptr) {
      history = arena.allocate(1);
      history->data()[0] = stored;
    }
    StoredRecord room;
    const std::span<const StoredRecord> records = StoredHistory::recordsOf(history, room);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].secs(), date.secs()) << operatorIndex;
    EXPECT_EQ(records[0].operatorIndex(), operatorIndex);
  }
}

// One number's records inserted in turn, ordered or appended, between neighbours of one record:
// what insert answers, the number's dump lines, and the answer at 2015-06-01.
TEST(NumberPortabilityTree, AHistoryGrowsOutOfItsSingleRecordAsIfItHadAlwaysHadABlock) {
  struct Case {
    std::vector<std::string> inserts;  // year, operator, 'o' ordered or 'a' appended
    std::string accepted, lines, answer;
  };
  const std::vector<Case> cases = {
      {{"2010Ao"}, "1", "2010A", "A"},
      {{"2010Ao", "2020Bo"}, "11", "2020B 2010A", "A"},
      {{"2020Bo", "2010Ao"}, "11", "2020B 2010A", "A"},
      {{"2010Ao", "2010Xo"}, "10", "2010A", "A"},
      {{"2010Ao", "2020Ba"}, "11", "2010A 2020B", "A"},
      {{"2010Aa", "2010Ba"}, "11", "2010A 2010B", "A"},
      {{"2016Co", "2015Bo", "2010Ao"}, "111", "2016C 2015B 2010A", "B"},
  };
  for (const Case& c : cases) {
    NumberPortabilityTree tree;
    ASSERT_TRUE(tree.insert("0049", record("20000101000000", "P"), true));
    ASSERT_TRUE(tree.insert("00493012", record("20000101000000", "Q"), true));
    std::string accepted;
    for (const std::string& i : c.inserts) {
      accepted += tree.insert("004930", record(i.substr(0, 4) + "0101000000", i.substr(4, 1)), i[5] == 'o') ? '1' : '0';
    }
    std::string expected = "0049  20000101000000  P\n";
    for (std::size_t at = 0; at < c.lines.size(); at += 6) {
      expected += "004930  " + c.lines.substr(at, 4) + "0101000000  " + c.lines.substr(at + 4, 1) + "\n";
    }
    NumberPortabilityData found;
    const bool hit = tree.search(BAS::String("0049301"), BAS::DateTime(std::string_view("20150601000000")), found,
                                 NumberPortabilityTree::BEST_MATCH);
    EXPECT_EQ(accepted, c.accepted) << c.lines;
    EXPECT_EQ(dump(tree), expected + "00493012  20000101000000  Q\n");
    EXPECT_EQ(hit ? std::string(found.networkOperatorM.view()) : "-", c.answer) << c.lines;
  }
}

// A sorted load keeps the first of a number's records of one date, in the pointer form, and
// later inserts grow that history in order.
TEST(NumberPortabilityTree, ALoadedSingleRecordTakesLaterInsertsInOrder) {
  RecordChunk chunk;
  chunk.add("004930", record("20100101000000", "FIRST"));
  chunk.add("004930", record("20100101000000", "SECOND"));
  chunk.sort();
  NumberPortabilityTree tree;
  std::vector<std::size_t> refused;
  tree.insertChunk(chunk, refused);
  ASSERT_EQ(refused.size(), 1U);
  EXPECT_EQ(chunk.record(refused[0]).networkOperatorM.view(), "SECOND");
  EXPECT_FALSE(tree.insert("004930", record("20100101000000", "AGAIN"), true));
  EXPECT_TRUE(tree.insert("004930", record("20200101000000", "LATER"), true));
  EXPECT_TRUE(tree.insert("004930", record("20050101000000", "EARLIER"), true));
  EXPECT_EQ(dump(tree), "004930  20200101000000  LATER\n004930  20100101000000  FIRST\n004930  20050101000000  EARLIER\n");
  EXPECT_EQ(tree.recordCount(), 3U);
}

}  // namespace
}  // namespace DAT::NumberPortability
