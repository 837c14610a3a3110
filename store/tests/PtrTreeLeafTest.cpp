// A node without children is kept as its payload word in its parent's group. Such a leaf must
// turn into a node when a key goes on below it, whichever way the key arrives (one by one, in
// a batch whose other walks stand beside it, into a tree built from sorted keys), and payloads
// must be neither lost nor released twice when a copy or a sorted build fails half-way.
#include "store/PtrTree.h"
#include "store/tests/Tag.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace PBC {
namespace {

using test::Tag;
using Tree = PtrTree<Tag>;

// Every key's exact and shortest-prefix answer, the all-prefixes answer, then the dump.
std::string answers(const Tree& tree, const std::vector<std::string>& keys) {
  std::string text;
  for (const std::string& key : keys) {
    const Tag* const exact = tree.search(BAS::String(key), true);
    const Tag* const shortest = tree.search(BAS::String(key), false);
    std::vector<Tag*> stack;
    tree.search(BAS::String(key), stack);
    text += key + ':' + (exact ? exact->name : "-") + ',' + (shortest ? shortest->name : "-") + ',';
    for (const Tag* tag : stack) text += tag->name + ' ';
    text += '\n';
  }
  std::ostringstream out;
  tree.printTree(out);
  return text + out.str();
}

// The same answers from a sorted map holding each key's name.
std::string expected(const std::map<std::string, std::string>& stored, const std::vector<std::string>& keys) {
  std::string text;
  for (const std::string& key : keys) {
    std::string shortest = "-", all;
    for (std::size_t n = 1; n <= key.size(); ++n) {
      if (const auto found = stored.find(key.substr(0, n)); found != stored.end()) {
        if (shortest == "-") shortest = found->second;
        all += found->second + ' ';
      }
    }
    const auto exact = stored.find(key);
    text += key + ':' + (exact != stored.end() ? exact->second : "-") + ',' + shortest + ',' + all + '\n';
  }
  for (const auto& [key, name] : stored) text += key + '=' + name + '\n';
  return text;
}

TEST(PtrTreeLeaf, KeysBelowALeafTurnItIntoANodeWhicheverWayTheyArrive) {
  struct Case {
    const char* label;
    std::vector<std::vector<std::string>> batches;  // each batch through payloadSlots in one call
  };
  const std::vector<Case> cases = {
      // Two leaves of one parent turned into nodes in the same round: the second walk's place
      // moves when the first one's leaf becomes a node.
      {"siblings turned in one batch", {{"12", "13", "19"}, {"123", "135", "12", "1357", "199"}}},
      {"a key and its extensions in one batch", {{"1234", "12", "123456", "1"}}},
      {"extensions first, then their prefixes", {{"123456"}, {"1234", "12"}, {"1"}}},
      {"a leaf of every digit, each then extended", {{"50", "51", "52", "53", "54", "55", "56", "57", "58", "59"},
                                                     {"590", "580", "570", "560", "550", "540", "530", "520", "510", "500"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    const int before = Tag::live;
    Tree batched(10), single(10);
    std::map<std::string, std::string> stored;
    std::vector<std::string> queries = {"1", "12", "1299", "59", "5900", "9"};
    int serial = 0;
    for (const std::vector<std::string>& batch : c.batches) {
      const std::vector<std::string_view> keys(batch.begin(), batch.end());
      std::vector<Tag**> slots(keys.size());
      batched.payloadSlots(keys.data(), keys.size(), slots.data());
      // Every slot of a batch must still be the key's own after the whole batch is in.
      for (std::size_t i = 0; i < batch.size(); ++i) {
        const std::string name = batch[i] + '#' + std::to_string(serial++);
        if (*slots[i] == nullptr) {
          *slots[i] = new Tag(name);
          single.insert(BAS::String(batch[i]), new Tag(name));
          stored.emplace(batch[i], name);
        }
        queries.push_back(batch[i]);
      }
    }
    EXPECT_EQ(answers(batched, queries), expected(stored, queries));
    EXPECT_EQ(answers(single, queries), expected(stored, queries));
    EXPECT_EQ(batched.nodeCount(), single.nodeCount());
    batched.destroy();
    single.destroy();
    EXPECT_EQ(Tag::live, before);
  }
}

// A tree built from sorted keys has leaves everywhere; single inserts go on below them.
TEST(PtrTreeLeaf, ATreeBuiltFromSortedKeysTakesKeysBelowItsLeaves) {
  const std::vector<std::string> sorted = {"10", "11", "111", "2", "205", "206", "3"};
  std::vector<DigitKey> keys(sorted.size());
  for (std::size_t i = 0; i < sorted.size(); ++i) ASSERT_TRUE(DigitKey::pack(sorted[i], keys[i]));
  Tree tree(10);
  std::map<std::string, std::string> stored;
  ASSERT_TRUE(tree.buildSorted(
      keys.size(), [&](std::size_t i) { return keys[i]; },
      [&](std::size_t first, std::size_t) {
        stored.emplace(sorted[first], sorted[first]);
        return new Tag(sorted[first]);
      }));
  for (const std::string key : {"100", "2050", "30", "1119"}) {
    tree.insert(BAS::String(key), new Tag(key + "+"));
    stored.emplace(key, key + "+");
  }
  const std::vector<std::string> queries = {"1", "100", "1009", "111", "11190", "2051", "205", "3", "30", "31"};
  EXPECT_EQ(answers(tree, queries), expected(stored, queries));
}

// Failures half-way: the payloads made so far are released exactly once, those of the other
// tree are untouched, and the failed tree is empty and usable.
TEST(PtrTreeLeaf, AFailedCopyOrSortedBuildReleasesWhatItMadeExactlyOnce) {
  // Tails too: one below a node with a payload, still staged when the key after it fails, and
  // one below a chain.
  const std::vector<std::string> sorted = {"1", "10", "100", "101", "11", "2", "20", "21", "3",
                                           "3456789", "35", "4123456789012"};
  std::vector<DigitKey> keys(sorted.size());
  for (std::size_t i = 0; i < sorted.size(); ++i) ASSERT_TRUE(DigitKey::pack(sorted[i], keys[i]));
  for (const int failAt : {0, 1, 3, 4, 8, 9, 10, 11}) {
    SCOPED_TRACE(failAt);
    const int before = Tag::live;
    Tree original(10);
    for (const std::string& key : sorted) original.insert(BAS::String(key), new Tag(key));
    int made = 0;
    Tree copy(10);
    copy.insert(BAS::String("77"), new Tag("77"));
    EXPECT_THROW(copy.copyFrom(original,
                               [&](const Tag* tag) {
                                 if (made++ == failAt) throw std::runtime_error("clone");
                                 return new Tag(tag->name);
                               }),
                 std::runtime_error);
    EXPECT_EQ(Tag::live, before + static_cast<int>(sorted.size()));
    EXPECT_EQ(answers(copy, {"1", "77"}), "1:-,-,\n77:-,-,\n");
    EXPECT_EQ(answers(original, {"101"}), "101:101,1,1 10 101 \n1=1\n10=10\n100=100\n101=101\n11=11\n2=2\n20=20\n21=21\n3=3\n"
                                          "3456789=3456789\n35=35\n4123456789012=4123456789012\n");

    made = 0;
    Tree built(10);
    EXPECT_THROW(built.buildSorted(
                     keys.size(), [&](std::size_t i) { return keys[i]; },
                     [&](std::size_t first, std::size_t) {
                       if (made++ == failAt) throw std::runtime_error("make");
                       return new Tag(sorted[first]);
                     }),
                 std::runtime_error);
    EXPECT_EQ(Tag::live, before + static_cast<int>(sorted.size()));
    built.insert(BAS::String("5"), new Tag("5"));
    EXPECT_EQ(answers(built, {"10"}), "10:-,-,\n5=5\n");
  }
}

}  // namespace
}  // namespace PBC
