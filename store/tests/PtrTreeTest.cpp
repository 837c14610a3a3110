// The digit trie and the arenas under the portability tree.
#include "store/HistoryArena.h"
#include "store/PtrTree.h"
#include "store/tests/Tag.h"
#include "store/SlabArena.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace PBC {
namespace {

using test::Tag;
using Tree = PtrTree<Tag>;

std::string nameOf(const Tag* tag) { return tag != nullptr ? tag->name : "null"; }

// The exact, the shortest-prefix and the all-prefixes answer, then the dump: "exact|shortest|a,b,|dump".
std::string answers(const Tree& tree, const std::string& key) {
  std::vector<Tag*> stack;
  tree.search(BAS::String(key), stack);
  std::string text = nameOf(tree.search(BAS::String(key), true)) + '|' + nameOf(tree.search(BAS::String(key), false)) + '|';
  for (const Tag* tag : stack) text += tag->name + ',';
  std::ostringstream out;
  tree.printTree(out);
  return text + '|' + out.str();
}

// Keys of few distinct digits share many prefixes; the reference is a sorted map. The digits
// are taken from both ends of the radix, so that every position of a node's digit set, and a
// group of children as large as the radix, is used.
TEST(PtrTree, AgreesWithASortedMapOnRandomKeysAndDumpsInItsOrder) {
  for (const auto& [radix, digits] : std::vector<std::pair<int, std::string>>{{10, "0123"}, {10, "0189"}, {16, "07AF"}}) {
    SCOPED_TRACE(digits);
    std::mt19937 random(20240607);
    const auto randomKey = [&random, &digits = digits] {
      std::string key(static_cast<std::size_t>(std::uniform_int_distribution<int>(1, 7)(random)), '0');
      for (char& c : key) c = digits[std::uniform_int_distribution<std::size_t>(0, digits.size() - 1)(random)];
      return key;
    };
    Tree tree(radix);
    std::map<std::string, std::string> reference;
    for (int i = 0; i < 800; ++i) {
      const std::string key = randomKey();
      if (reference.emplace(key, "v" + std::to_string(i)).second) tree.insert(BAS::String(key), new Tag("v" + std::to_string(i)));
    }
    std::string dump;
    for (const auto& [key, name] : reference) dump += key + '=' + name + '\n';
    for (int i = 0; i < 3000; ++i) {
      const std::string key = randomKey();
      std::string shortest = "null", all;
      for (std::size_t n = 1; n <= key.size(); ++n) {
        const auto found = reference.find(key.substr(0, n));
        if (found == reference.end()) continue;
        if (all.empty()) shortest = found->second;
        all += found->second + ',';
      }
      const auto exact = reference.find(key);
      ASSERT_EQ(answers(tree, key), (exact != reference.end() ? exact->second : "null") + '|' + shortest + '|' + all + '|' + dump) << key;
    }
  }
}

// A copy answers as the tree did when it was copied, whatever the tree does afterwards; the
// tree goes on growing in the copied node array's free places.
TEST(PtrTree, CopyAnswersAsTheOriginalDidAndSharesNothingWithIt) {
  std::mt19937 random(99);
  const auto randomKey = [&random] { return std::to_string(random() % 4000); };
  Tree tree(10);
  std::map<std::string, std::string> reference;
  const auto fill = [&](int count) {
    for (int i = 0; i < count; ++i) {
      const std::string key = randomKey();
      if (reference.emplace(key, key).second) tree.insert(BAS::String(key), new Tag(key));
    }
  };
  fill(1500);
  Tree copy(10);
  copy.insert("999999", new Tag("stale"));
  copy.copyFrom(tree, [](const Tag* tag) { return new Tag(tag->name); });
  const std::map<std::string, std::string> copied = reference;
  const std::size_t nodesAtCopy = tree.nodeCount();
  fill(1500);
  for (const std::string key : {"1", "12", "123", "1234", "3999", "40000", "999999"}) {
    const auto found = copied.find(key);
    EXPECT_EQ(nameOf(copy.search(BAS::String(key), true)), found != copied.end() ? found->second : "null") << key;
  }
  std::string dump;
  for (const auto& [key, name] : copied) dump += key + '=' + name + '\n';
  std::ostringstream out;
  copy.printTree(out);
  EXPECT_EQ(out.str(), dump);
  EXPECT_EQ(copy.nodeCount(), nodesAtCopy);
}

TEST(PtrTree, ReadsTheDigitsOfItsRadixOnlyAndPrintsHexUpperCase) {
  struct Case {
    int radix;
    std::vector<const char*> keys;  // each stored with itself as name
    const char* query;
    const char* answers;
  };
  const std::vector<Case> cases = {
      {10, {"+49 30-123"}, " 4-9a30 12 3", "+49 30-123|+49 30-123|+49 30-123,|4930123=+49 30-123\n"},
      // A key without digits addresses the root: only prefix searches report it, dumps leave it out.
      {10, {"--", "12"}, "123", "null|--|--,12,|12=12\n"},
      {10, {"--"}, "--", "null|null||"},
      {16, {"0a1F", "0A"}, "0a1fff", "null|0A|0A,0a1F,|0A=0A\n0A1F=0a1F\n"},
      {8, {"f9"}, "F9", "f9|f9|f9,|F9=f9\n"},  // other radixes read hexadecimal too
  };
  for (const Case& c : cases) {
    Tree tree(c.radix);
    for (const char* key : c.keys) tree.insert(key, new Tag(key));
    EXPECT_EQ(answers(tree, c.query), c.answers) << c.query;
  }
}

TEST(PtrTree, ReplacesAPayloadWithoutReleasingItAndReleasesTheRestOnDestroy) {
  const int before = Tag::live;
  Tree tree(10);
  const auto first = std::make_unique<Tag>("first");
  tree.insert("12", first.get());
  tree.insert("1-2", new Tag("second"));
  tree.insert("123", new Tag("123"));
  EXPECT_EQ(answers(tree, "123"), "123|second|second,123,|12=second\n123=123\n");
  EXPECT_EQ(std::to_string(tree.nodeCount()) + " nodes, " + std::to_string(Tag::live - before) + " live", "4 nodes, 3 live");
  tree.destroy();
  EXPECT_EQ(Tag::live, before + 1);  // the replaced one is the caller's again
  EXPECT_EQ(answers(tree, "123") + std::to_string(tree.nodeCount()), "null|null||0");
}

TEST(SlabArena, HandsOutDistinctAlignedBlocksAndRefillsTheSameMemoryAfterReset) {
  SlabArena arena(100);  // rounded up to 104: four blocks of 24 bytes per slab
  std::vector<void*> first;
  for (int i = 0; i < 10; ++i) first.push_back(arena.allocate(20));
  EXPECT_EQ(std::set<void*>(first.begin(), first.end()).size(), first.size());
  for (void* block : first) EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % SlabArena::alignCM, 0U);
  std::size_t visited = 0;
  arena.forEachUsed([&visited](char* begin, char* end) { visited += static_cast<std::size_t>(end - begin); });
  EXPECT_EQ(visited + arena.usedBytes(), 2U * 10U * 24U);
  EXPECT_THROW(arena.allocate(105), std::bad_alloc);
  arena.reset();
  EXPECT_EQ(arena.usedBytes(), 0U);
  std::vector<void*> second;
  for (int i = 0; i < 10; ++i) second.push_back(arena.allocate(20));
  EXPECT_EQ(second, first);  // the same blocks, in the same order, and no new slab
  EXPECT_EQ(arena.reservedBytes(), 3U * 104U);
}

TEST(HistoryArena, ReusesReleasedArraysByLengthOnly) {
  using DAT::NumberPortability::HistoryArena;
  HistoryArena arena;
  auto* const two = arena.allocate(2);
  auto* const three = arena.allocate(3);
  arena.release(two);
  EXPECT_NE(arena.allocate(3), two);
  EXPECT_EQ(arena.allocate(2), two);
  arena.release(three);
  EXPECT_EQ(arena.allocate(3), three);
}

}  // namespace
}  // namespace PBC
