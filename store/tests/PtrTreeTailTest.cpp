// A key alone below a branch is kept as one tail node. Whichever way the trie is filled (one
// by one, in batches, from sorted keys, as a copy, merging sorted runs), it must answer, count and dump as a sorted
// map does when later keys leave a tail at any of its digits, end inside it or go on past it,
// and the numbers of a sparse numbering plan must take about one node each.
#include "store/PtrTree.h"
#include "store/tests/Tag.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace PBC {
namespace {

using test::Tag;
using Tree = PtrTree<Tag>;

std::string digitsOf(const std::string& key) {
  std::string digits;
  for (const char c : key) {
    if (c >= '0' && c <= '9') digits += c;
  }
  return digits;
}

// All a reader sees for `queries`: per query the exact, shortest-prefix and all-prefixes
// answers and searchMany's visits (name@depth, '*' for the query's own key); then the node
// count, the dump, and the pieces walked one after another.
std::string seen(const Tree& tree, const std::vector<std::string>& queries) {
  std::vector<std::string> visits(queries.size());
  const std::vector<std::string_view> views(queries.begin(), queries.end());
  tree.searchMany(views.data(), views.size(), [&](std::size_t i, const Tag* tag, std::uint32_t depth, bool whole) {
    visits[i] += tag->name + '@' + std::to_string(depth) + (whole ? "* " : " ");
  });
  std::string text;
  for (std::size_t i = 0; i < queries.size(); ++i) {
    const BAS::String key(queries[i]);
    const Tag* const exact = tree.search(key, true);
    const Tag* const shortest = tree.search(key, false);
    std::vector<Tag*> stack;
    tree.search(key, stack);
    text += queries[i] + ':' + (exact ? exact->name : "-") + ',' + (shortest ? shortest->name : "-") + ',';
    for (const Tag* tag : stack) text += tag->name + ' ';
    text += '|' + visits[i] + '\n';
  }
  std::ostringstream out;
  tree.printTree(out);
  text += std::to_string(tree.nodeCount()) + " nodes\n" + out.str();
  for (const std::size_t least : {1, 40}) {
    text += "pieces\n";
    Tree::Walker walker;
    for (const Tree::Piece& piece : tree.pieces(least, 13)) {
      walker.start(piece);
      for (const Tag* tag = nullptr; walker.step(tag, 10);) {
        if (tag != nullptr) text += walker.currentKey() + '=' + tag->name + '\n';
      }
    }
  }
  return text;
}

// The same from a sorted map of digit keys to names: a trie has a node for every prefix.
std::string expected(const std::map<std::string, std::string>& stored, const std::vector<std::string>& queries) {
  std::string text;
  for (const std::string& query : queries) {
    const std::string key = digitsOf(query);
    std::string shortest = "-", all, visits;
    for (std::size_t n = 1; n <= key.size(); ++n) {
      if (const auto found = stored.find(key.substr(0, n)); found != stored.end()) {
        if (shortest == "-") shortest = found->second;
        all += found->second + ' ';
        visits += found->second + '@' + std::to_string(n) + (n == key.size() ? "* " : " ");
      }
    }
    const auto exact = stored.find(key);
    text += query + ':' + (exact != stored.end() ? exact->second : "-") + ',' + shortest + ',' + all + '|' + visits + '\n';
  }
  std::set<std::string> prefixes;
  std::string dump;
  for (const auto& [key, name] : stored) {
    for (std::size_t n = 1; n <= key.size(); ++n) prefixes.insert(key.substr(0, n));
    dump += key + '=' + name + '\n';
  }
  text += std::to_string(prefixes.size() + 1) + " nodes\n" + dump;
  return text + "pieces\n" + dump + "pieces\n" + dump;
}

// "" when the texts are equal, else their first line that differs: a diff of texts this long
// would take the test's memory.
std::string firstDifference(const std::string& actual, const std::string& wanted) {
  std::istringstream a(actual), w(wanted);
  std::string lineA, lineW;
  for (int line = 1;; ++line) {
    const bool moreA = static_cast<bool>(std::getline(a, lineA));
    const bool moreW = static_cast<bool>(std::getline(w, lineW));
    if (!moreA && !moreW) return "";
    if (moreA != moreW || lineA != lineW) {
      return "line " + std::to_string(line) + ": '" + (moreA ? lineA : "(end)") + "', wanted '" + (moreW ? lineW : "(end)") + "'";
    }
  }
}

// The ways to fill a tree with `keys` (in this order), each payload named after its key.
enum class Fill { single, batches, sorted, copy, merged };

void fill(Tree& tree, Fill how, const std::vector<std::string>& keys, std::size_t batch = 32) {
  switch (how) {
    case Fill::single:
      for (const std::string& key : keys) {
        if (tree.search(BAS::String(key), true) == nullptr) tree.insert(BAS::String(key), new Tag(key));
      }
      return;
    case Fill::batches:
      for (std::size_t first = 0; first < keys.size(); first += batch) {
        const std::size_t count = std::min(batch, keys.size() - first);
        const std::vector<std::string_view> views(keys.begin() + first, keys.begin() + first + count);
        std::vector<Tag**> slots(count);
        tree.payloadSlots(views.data(), count, slots.data());
        // Every slot must still be its key's own once the whole batch is in.
        for (std::size_t i = 0; i < count; ++i) {
          if (*slots[i] == nullptr) *slots[i] = new Tag(keys[first + i]);
        }
      }
      return;
    case Fill::sorted: {
      std::map<std::string, std::string> byDigits;
      for (const std::string& key : keys) byDigits.emplace(digitsOf(key), key);
      std::vector<DigitKey> packed;
      std::vector<std::string> names;
      for (const auto& [digits, key] : byDigits) {
        packed.emplace_back();
        ASSERT_TRUE(DigitKey::pack(digits, packed.back()));
        names.push_back(key);
      }
      ASSERT_TRUE(tree.buildSorted(
          packed.size(), [&](std::size_t i) { return packed[i]; },
          [&](std::size_t first, std::size_t) { return new Tag(names[first]); }));
      return;
    }
    case Fill::merged: {
      // Three sorted runs, each merged into what the ones before left, as a load merges its
      // chunks; keys of equal digits share a run, where the first of them wins.
      std::map<std::string, std::string> runs[3];
      for (const std::string& key : keys) runs[std::hash<std::string>()(digitsOf(key)) % 3].emplace(digitsOf(key), key);
      for (const auto& run : runs) {
        std::vector<DigitKey> packed;
        for (const auto& entry : run) {
          packed.emplace_back();
          ASSERT_TRUE(DigitKey::pack(entry.first, packed.back()));
        }
        Tree::SortedInsert cursor(tree);
        std::size_t i = 0;
        for (const auto& entry : run) {
          Tag** const slot = cursor.reach(packed[i]);
          ASSERT_NE(slot, nullptr) << entry.first;
          if (*slot == nullptr) *slot = new Tag(entry.second);
          ++i;
        }
      }
      return;
    }
    case Fill::copy: {
      Tree original(10);
      fill(original, Fill::single, keys);
      tree.copyFrom(original, [](const Tag* tag) { return new Tag(tag->name); });
      return;
    }
  }
}

std::map<std::string, std::string> storedAs(const std::vector<std::string>& keys) {
  std::map<std::string, std::string> stored;
  for (const std::string& key : keys) stored.emplace(digitsOf(key), key);
  return stored;
}

TEST(PtrTreeTail, KeysThatLeaveATailEndInsideItOrGoOnPastItAnswerAsASortedMap) {
  // Tails of a few digits, of as many as a node holds and of more (an ordinary chain above a
  // tail), each met by a second key at each of its digits; the second key comes first as well.
  const std::vector<std::string> bases = {"51234", "123456789012", "7" + std::string(18, '3') + "9"};
  for (const std::string& base : bases) {
    for (std::size_t at = 1; at <= base.size(); ++at) {
      const std::string same = base.substr(0, at);
      const char other = base[at - 1] == '0' ? '9' : '0';
      const std::vector<std::vector<std::string>> pairs = {
          {base, same},                                       // ends inside the tail (or is its key)
          {base, base.substr(0, at - 1) + other + "44"},      // leaves it at this digit
          {base, base + "-" + std::string(1 + at % 3, '8')},  // goes on past it, with a separator
          {base.substr(0, at - 1) + "-" + base.substr(at - 1), "0" + base.substr(0, at) + "5"},  // with a branch at the root
      };
      for (const std::vector<std::string>& pair : pairs) {
        for (const bool reversed : {false, true}) {
          std::vector<std::string> keys = pair;
          if (reversed) std::reverse(keys.begin(), keys.end());
          std::vector<std::string> queries = keys;
          for (const std::string& key : keys) {
            const std::string digits = digitsOf(key);
            queries.push_back(digits.substr(0, at));
            queries.push_back(digits.substr(0, digits.size() - 1));
            queries.push_back(digits + "0");
            queries.push_back(digits.substr(0, at - 1) + other + digits.substr(at));
          }
          for (const Fill how : {Fill::single, Fill::batches, Fill::sorted, Fill::copy, Fill::merged}) {
            SCOPED_TRACE(keys[0] + " then " + keys[1] + ", fill " + std::to_string(static_cast<int>(how)));
            const int before = Tag::live;
            {
              Tree tree(10);
              fill(tree, how, keys);
              ASSERT_EQ(firstDifference(seen(tree, queries), expected(storedAs(keys), queries)), "");
              // Single keys after a batch and a sorted build: the same as keys arriving one by one.
              const std::vector<std::string> more = {base.substr(0, at), base + "1"};
              fill(tree, Fill::single, more);
              std::vector<std::string> all = keys;
              all.insert(all.end(), more.begin(), more.end());
              ASSERT_EQ(firstDifference(seen(tree, queries), expected(storedAs(all), queries)), "");
            }
            EXPECT_EQ(Tag::live, before);
          }
        }
      }
    }
  }
}

// Keys equal within a batch, or a prefix and an extension of a tail that another walk of the
// same batch makes, must all get the field of their own key.
TEST(PtrTreeTail, WalksOfOneBatchThatMakeAndMeetTheSameTailKeepTheirOwnFields) {
  const std::vector<std::vector<std::string>> batches = {
      {"123456", "123456", "12345", "1234567", "123457", "12", "123456"},
      {"98765", "98", "98765", "9876", "98761", "987650000000"},
      {"4" + std::string(20, '1'), "4" + std::string(20, '1'), "4" + std::string(12, '1'), "4" + std::string(19, '1') + "2"},
  };
  for (const std::vector<std::string>& keys : batches) {
    SCOPED_TRACE(keys[0]);
    Tree batched(10), single(10);
    fill(batched, Fill::batches, keys);
    fill(single, Fill::single, keys);
    std::vector<std::string> queries = keys;
    queries.push_back(keys[0] + "3");
    EXPECT_EQ(firstDifference(seen(batched, queries), expected(storedAs(keys), queries)), "");
    EXPECT_EQ(firstDifference(seen(single, queries), seen(batched, queries)), "");
  }
}

// Uniform twelve-digit numbers with prefixes and longer keys among them: every fill answers as
// the map does, and numbers alone below the dense levels take about one node each.
TEST(PtrTreeTail, ASparseNumberSetAnswersAsASortedMapAndTakesAboutOneNodePerNumber) {
  std::mt19937_64 random(7);
  const auto number = [&random](std::size_t length) {
    std::string key;
    while (key.size() < length) key += static_cast<char>('0' + random() % 10);
    return key;
  };
  std::vector<std::string> keys;
  for (int i = 0; i < 20000; ++i) keys.push_back(number(12));
  for (int i = 0; i < 300; ++i) keys.push_back(keys[random() % keys.size()].substr(0, 2 + random() % 10));
  for (int i = 0; i < 100; ++i) keys.push_back(keys[random() % keys.size()] + number(1 + random() % 12));
  std::shuffle(keys.begin(), keys.end(), random);
  std::vector<std::string> queries;
  for (std::size_t i = 0; i < keys.size(); i += 7) {
    std::string changed = keys[i];
    changed[random() % changed.size()] = static_cast<char>('0' + random() % 10);
    std::string separated = keys[i];
    separated.insert(random() % separated.size(), "-");
    queries.insert(queries.end(), {keys[i], changed, separated, keys[i].substr(0, keys[i].size() - 1), keys[i] + "5"});
  }
  const std::string want = expected(storedAs(keys), queries);
  for (const Fill how : {Fill::single, Fill::batches, Fill::sorted, Fill::copy, Fill::merged}) {
    SCOPED_TRACE(static_cast<int>(how));
    Tree tree(10);
    fill(tree, how, keys);
    EXPECT_EQ(firstDifference(seen(tree, queries), want), "");
    // Without tails a key alone below the fourth level took a two-word node per digit (over
    // a hundred bytes); with them, one node and its share of the branches above.
    EXPECT_LE(tree.usedBytes(), keys.size() * 40) << tree.usedBytes() / keys.size() << " bytes per key";
  }
}

}  // namespace
}  // namespace PBC
