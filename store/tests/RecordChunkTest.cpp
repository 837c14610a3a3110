// Loading by chunk: a tree that takes a sorted chunk, empty or not, in one piece or several,
// must end exactly as single ordered inserts in file order leave it (same records, same
// refusals, same nodes), and the chunk must name each refused record as it was added. A
// released chunk gives its memory back to the system at once.
#include "store/NumberPortabilityTree.h"
#include "store/RecordChunk.h"
#include "testing/ResidentMemory.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace DAT::NumberPortability {
namespace {

struct Line {
  std::string number;
  NumberPortabilityData record;
};

// Numbers from a few blocks, so that keys share paths and end above and below one another,
// with few dates per number, so that dates repeat; and the odd ones: digits mixed with other
// characters, more digits than a key's high word or a whole key holds, none at all.
std::vector<Line> randomLines(std::size_t count) {
  std::mt19937_64 random(11);
  std::vector<Line> lines;
  const auto digits = [&random](std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i < length; ++i) text += static_cast<char>('0' + random() % 10);
    return text;
  };
  for (std::size_t i = 0; i < count; ++i) {
    std::string number;
    switch (random() % 20) {
      case 0: number = "00-49-" + digits(random() % 4); break;
      case 1: number = "00491234567890" + digits(3 + random() % 3); break;  // 17 to 19 digits, few apart
      case 2: number = "0049" + digits(29 + random() % 3); break;  // 33 to 35 digits: no key
      case 3: number = random() % 2 == 0 ? "+" : "abc"; break;
      default: number = "00" + std::to_string(random() % 3) + digits(random() % 8); break;
    }
    const std::string date = std::to_string(2000 + random() % 4) + "0101000000";
    lines.push_back({number, NumberPortabilityData(BAS::DateTime(std::string_view(date)), BAS::SimpleString(std::string_view("OP" + std::to_string(random() % 300))))});
  }
  return lines;
}

std::string dump(const NumberPortabilityTree& tree) {
  std::ostringstream out;
  tree.printTree(out, false);
  return out.str();
}

// The chunk of lines [first, end), sorted, inserted into `tree`: the indexes (counted from 0
// at the first line given) of the refused ones, and checks that the chunk names them as given.
// `chunk` is released at the end, as a load releases it, and refilled by the next call.
std::set<std::size_t> insertChunk(RecordChunk& chunk, NumberPortabilityTree& tree, const std::vector<Line>& lines,
                                  std::size_t first, std::size_t end) {
  for (std::size_t i = first; i < end; ++i) chunk.add(lines[i].number, lines[i].record);
  chunk.sort();
  for (std::size_t place = 1; place < chunk.keyedCount(); ++place) {
    const PBC::DigitKey before = chunk.key(place - 1), key = chunk.key(place);
    EXPECT_TRUE(before < key || (before == key && chunk.index(place - 1) < chunk.index(place))) << place;
  }
  std::vector<std::size_t> refused;
  tree.insertChunk(chunk, refused);
  std::set<std::size_t> indexes;
  for (const std::size_t place : refused) {
    const std::size_t index = first + chunk.index(place);
    EXPECT_EQ(chunk.number(place).str(), lines[index].number);
    EXPECT_EQ(chunk.record(place).validFromM, lines[index].record.validFromM);
    EXPECT_EQ(chunk.record(place).networkOperatorM.view(), lines[index].record.networkOperatorM.view());
    EXPECT_TRUE(indexes.insert(index).second) << "refused twice: " << index;
  }
  chunk.release();
  return indexes;
}

TEST(RecordChunk, ATreeTakesChunksAsSingleInsertsInFileOrderWouldLeaveIt) {
  const std::vector<Line> lines = randomLines(40000);
  NumberPortabilityTree single;
  std::set<std::size_t> singleRefused;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (!single.insert(BAS::String(lines[i].number), lines[i].record, true)) singleRefused.insert(i);
  }
  ASSERT_GT(singleRefused.size(), 1000U);  // repeated dates and numbers without digits both occur
  const std::string expected = dump(single);

  struct Split {
    const char* label;
    std::size_t singles;                // lines inserted one by one before the chunks
    std::vector<std::size_t> chunkEnds; // then a chunk up to each of these
  };
  // One chunk for every load below, larger and smaller in turn: each refill must hold only its
  // own records, whatever the memory that an earlier one left.
  RecordChunk chunk;
  const Split splits[] = {
      {"one chunk into an empty tree", 0, {lines.size()}},
      {"a chunk into an empty tree, then one into the filled tree", 0, {lines.size() / 3, lines.size()}},
      {"single inserts first, then a chunk", lines.size() / 2, {lines.size()}},
      {"a small chunk builds the tree, ten more go into it", 0,
       {1000, 4900, 8800, 12700, 16600, 20500, 24400, 28300, 32200, 36100, lines.size()}},
  };
  for (const Split& split : splits) {
    SCOPED_TRACE(split.label);
    NumberPortabilityTree tree;
    std::set<std::size_t> refused;
    for (std::size_t i = 0; i < split.singles; ++i) {
      if (!tree.insert(BAS::String(lines[i].number), lines[i].record, true)) refused.insert(i);
    }
    std::size_t first = split.singles;
    for (const std::size_t end : split.chunkEnds) {
      refused.merge(insertChunk(chunk, tree, lines, first, end));
      first = end;
    }
    EXPECT_EQ(refused, singleRefused);
    EXPECT_EQ(tree.recordCount(), single.recordCount());
    EXPECT_EQ(tree.nodeCount(), single.nodeCount());
    EXPECT_TRUE(dump(tree) == expected) << "the dumps differ";
    // A tree built in one pass takes single inserts afterwards as any other.
    tree.insert(BAS::String("0012345"), NumberPortabilityData(BAS::DateTime("19990101000000"), BAS::SimpleString("LATE")), true);
    NumberPortabilityData found;
    EXPECT_TRUE(tree.search(BAS::String("0012345"), BAS::DateTime("19990101000000"), found, NumberPortabilityTree::EXACT_MATCH));
    EXPECT_EQ(found.networkOperatorM.view(), "LATE");
  }
}

// A file sorted by country: every number of its first half shares its leading digits, which
// those of the second half do not. The sort skips a byte only when the whole chunk shares it.
TEST(RecordChunk, SortsAChunkWhoseHalvesDifferInADigitThatEachHalfShares) {
  std::vector<Line> lines;
  for (const char* country : {"0049", "0043"}) {
    for (int i = 0; i < 500; ++i) {
      const std::string number = country + std::to_string(7000000 - i * 7919 % 1000000);
      lines.push_back({number, NumberPortabilityData(BAS::DateTime("20200101000000"), BAS::SimpleString("OP"))});
    }
  }
  NumberPortabilityTree single, chunked;
  for (const Line& line : lines) single.insert(BAS::String(line.number), line.record, true);
  RecordChunk chunk;
  EXPECT_TRUE(insertChunk(chunk, chunked, lines, 0, lines.size()).empty());
  EXPECT_TRUE(dump(chunked) == dump(single)) << "the dumps differ";
}

using NpTest::residentBytes;

// A load's chunk must not stay in the process's resident memory once the load is over: pages
// only offered back to the system still count there until it runs short, and an operator's
// monitoring takes them for the data's.
TEST(RecordChunk, AReleasedChunkLeavesTheResidentMemoryAtOnce) {
  if (!std::ifstream("/proc/self/statm")) GTEST_SKIP() << "no /proc/self/statm to read the resident memory from";
  if (!NpTest::unmappedPagesLeaveCM) GTEST_SKIP() << "the sanitizer's shadow of unmapped pages stays resident";
  RecordChunk chunk;
  const NumberPortabilityData record(BAS::DateTime("20200101000000"), BAS::SimpleString("OP"));
  const std::size_t before = residentBytes();
  char number[32] = "0049";
  for (std::uint64_t i = 0; i < 2000000; ++i) {
    // No heap on the way: only the chunk's own memory grows.
    const auto written = std::to_chars(number + 4, number + sizeof number, 9999999999 - i * 7919 % 100000000);
    chunk.add(std::string_view(number, static_cast<std::size_t>(written.ptr - number)), record);
  }
  chunk.sort();  // the sort's second array is the chunk's too
  const std::size_t filled = residentBytes();
  ASSERT_GT(filled, before + 64 * 1024 * 1024) << "two arrays of 24-byte entries for two million records";
  chunk.release();
  EXPECT_LT(residentBytes(), before + (filled - before) / 8);
}

}  // namespace
}  // namespace DAT::NumberPortability
