#include "store/PrefixStack.h"
#include "store/PtrTree.h"

#include <gtest/gtest.h>

#include <map>
#include <ostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace PBC {
namespace {

// Payload that prints "key=name" and counts the live instances, so that the tests see what the
// trie releases.
struct Tag {
  explicit Tag(std::string tagName) : name(std::move(tagName)) { ++live; }
  ~Tag() { --live; }
  Tag(const Tag&) = delete;
  Tag& operator=(const Tag&) = delete;
  void printTree(std::ostream& out, const BAS::String& key) const { out << key << '=' << name << '\n'; }

  std::string name;
  static inline int live = 0;
};

using Tree = PtrTree<Tag>;

std::string nameOf(const Tag* tag) { return tag != nullptr ? tag->name : "null"; }

std::vector<std::string> allPrefixes(const Tree& tree, const BAS::String& key) {
  std::vector<Tag*> stack;
  tree.search(key, stack);
  std::vector<std::string> names;
  for (const Tag* tag : stack) names.push_back(nameOf(tag));
  return names;
}

std::string dump(const Tree& tree) {
  std::ostringstream out;
  tree.printTree(out);
  return out.str();
}

TEST(PtrTree, AnswersTheThreeSearchesOnSharedPrefixes) {
  Tree tree(10);
  tree.insert("0049", new Tag("0049"));
  tree.insert("004930", new Tag("004930"));
  tree.insert("004930123", new Tag("004930123"));

  EXPECT_EQ(nameOf(tree.search("004930123", true)), "004930123");
  EXPECT_EQ(nameOf(tree.search("004930123", false)), "0049");
  EXPECT_EQ(allPrefixes(tree, "004930123"), (std::vector<std::string>{"0049", "004930", "004930123"}));

  // An inner node without payload.
  EXPECT_EQ(tree.search("00493", true), nullptr);
  EXPECT_EQ(nameOf(tree.search("00493", false)), "0049");
  EXPECT_EQ(tree.search("004", false), nullptr);

  // Beyond the longest stored key.
  EXPECT_EQ(tree.search("0049301234", true), nullptr);
  EXPECT_EQ(nameOf(tree.search("0049301234", false)), "0049");
  EXPECT_EQ(allPrefixes(tree, "0049301234"), (std::vector<std::string>{"0049", "004930", "004930123"}));
  EXPECT_EQ(allPrefixes(tree, "0049305"), (std::vector<std::string>{"0049", "004930"}));
  EXPECT_EQ(allPrefixes(tree, "0033"), std::vector<std::string>{});
}

TEST(PtrTree, FindsOnlyTheLongerKeyWhenItsPrefixIsNotStored) {
  Tree tree(10);
  tree.insert("004930", new Tag("004930"));
  EXPECT_EQ(tree.search("00493", true), nullptr);
  EXPECT_EQ(tree.search("00493", false), nullptr);
  EXPECT_EQ(tree.search("0049301234", true), nullptr);
  EXPECT_EQ(nameOf(tree.search("0049301234", false)), "004930");
  EXPECT_EQ(allPrefixes(tree, "0049301234"), std::vector<std::string>{"004930"});
}

TEST(PtrTree, SkipsSeparatorsAndFindsNothingForKeysWithoutDigits) {
  Tree tree(10);
  tree.insert("+49 30-123", new Tag("4930123"));
  for (const char* key : {"4930123", "+4930123", "49 30 123", "49-30-123", " 4 9 3 0 1 2 3 "}) {
    EXPECT_EQ(nameOf(tree.search(key, true)), "4930123") << key;
  }
  // Radix 10 reads no letters: "4a9" is the key 49.
  EXPECT_EQ(tree.search("4a930123", true)->name, "4930123");

  for (const char* key : {"", "+- ", "abc"}) {
    EXPECT_EQ(tree.search(key, true), nullptr) << key;
    EXPECT_EQ(tree.search(key, false), nullptr) << key;
    EXPECT_TRUE(allPrefixes(tree, key).empty()) << key;
  }
}

TEST(PtrTree, KeyWithoutDigitsAddressesTheRootWhichOnlyPrefixSearchesReport) {
  Tree tree(10);
  tree.insert("--", new Tag("root"));
  tree.insert("12", new Tag("12"));
  EXPECT_EQ(tree.search("--", true), nullptr);
  EXPECT_EQ(nameOf(tree.search("99", false)), "root");
  EXPECT_EQ(allPrefixes(tree, "123"), (std::vector<std::string>{"root", "12"}));
  EXPECT_EQ(dump(tree), "12=12\n");
}

TEST(PtrTree, ReadsHexadecimalDigitsOfEitherCaseAndPrintsThemUpperCase) {
  Tree tree(16);
  EXPECT_EQ(tree.radix(), 16);
  tree.insert("0a1F", new Tag("a1f"));
  tree.insert("0A", new Tag("a"));
  EXPECT_EQ(nameOf(tree.search("0A1f", true)), "a1f");
  EXPECT_EQ(nameOf(tree.search("0a", true)), "a");
  EXPECT_EQ(nameOf(tree.search("0a1fff", false)), "a");
  EXPECT_EQ(tree.search("0g", true), nullptr);
  EXPECT_EQ(dump(tree), "0A=a\n0A1F=a1f\n");

  // Other radixes read hexadecimal digits too, with a slot for each.
  Tree eight(8);
  EXPECT_EQ(eight.radix(), 16);
  eight.insert("f9", new Tag("f9"));
  EXPECT_EQ(nameOf(eight.search("F9", true)), "f9");
}

TEST(PtrTree, DumpsInKeyOrderAPrefixBeforeItsExtensions) {
  Tree tree(10);
  for (const char* key : {"00492", "0049", "00491", "0050", "004910"}) tree.insert(key, new Tag(key));
  EXPECT_EQ(dump(tree), "0049=0049\n00491=00491\n004910=004910\n00492=00492\n0050=0050\n");
}

TEST(PtrTree, ReplacesAPayloadWithoutReleasingItAndReleasesTheRestOnDestroy) {
  const int before = Tag::live;
  {
    Tree tree(10);
    Tag* const first = new Tag("first");
    tree.insert("12", first);
    tree.insert("1-2", new Tag("second"));
    // The replaced payload is the caller's again, untouched.
    ASSERT_EQ(Tag::live, before + 2);
    EXPECT_EQ(first->name, "first");
    delete first;
    EXPECT_EQ(nameOf(tree.search("12", true)), "second");
    tree.insert("123", new Tag("123"));
    EXPECT_EQ(tree.nodeCount(), 4U);

    tree.destroy();
    EXPECT_EQ(Tag::live, before);
    EXPECT_EQ(tree.nodeCount(), 0U);
    EXPECT_EQ(tree.search("12", true), nullptr);
    EXPECT_EQ(tree.search("12", false), nullptr);
    EXPECT_TRUE(allPrefixes(tree, "12").empty());
    EXPECT_EQ(dump(tree), "");

    tree.createRoot();
    EXPECT_EQ(tree.nodeCount(), 1U);
    tree.insert("7", new Tag("7"));
    EXPECT_EQ(nameOf(tree.search("7", true)), "7");
  }
  EXPECT_EQ(Tag::live, before);
}

TEST(PtrTree, AgreesWithASimpleReferenceOnRandomKeys) {
  std::mt19937 random(20240607);
  // Few distinct digits and short keys, so that keys share many prefixes.
  const auto randomKey = [&random] {
    std::uniform_int_distribution<int> length(1, 7);
    std::uniform_int_distribution<int> digit('0', '3');
    std::string key(static_cast<std::size_t>(length(random)), '0');
    for (char& c : key) c = static_cast<char>(digit(random));
    return key;
  };

  Tree tree(10);
  std::map<std::string, std::string> reference;
  for (int i = 0; i < 800; ++i) {
    const std::string key = randomKey();
    if (reference.contains(key)) continue;
    reference.emplace(key, "v" + std::to_string(i));
    tree.insert(BAS::String(key), new Tag("v" + std::to_string(i)));
  }

  for (int i = 0; i < 3000; ++i) {
    const std::string key = randomKey();
    std::vector<std::string> prefixes;
    for (std::size_t n = 1; n <= key.size(); ++n) {
      const auto found = reference.find(key.substr(0, n));
      if (found != reference.end()) prefixes.push_back(found->second);
    }
    const auto exact = reference.find(key);
    EXPECT_EQ(nameOf(tree.search(BAS::String(key), true)), exact != reference.end() ? exact->second : "null") << key;
    EXPECT_EQ(nameOf(tree.search(BAS::String(key), false)), prefixes.empty() ? "null" : prefixes.front()) << key;
    EXPECT_EQ(allPrefixes(tree, BAS::String(key)), prefixes) << key;
  }

  std::string expected;
  for (const auto& [key, name] : reference) expected += key + '=' + name + '\n';
  EXPECT_EQ(dump(tree), expected);
}

TEST(PrefixStack, PopsInReverseOrderBeyondItsInlineRoom) {
  DAT::NumberPortability::PrefixStack<int, 4> stack;
  int item = -1;
  EXPECT_FALSE(stack.pop(item));
  EXPECT_EQ(item, -1);
  for (int i = 0; i < 40; ++i) stack.push_back(i);
  EXPECT_EQ(stack.size(), 40U);
  EXPECT_EQ(stack.view().front(), 0);
  for (int i = 39; i >= 0; --i) {
    ASSERT_TRUE(stack.pop(item));
    EXPECT_EQ(item, i);
  }
  EXPECT_TRUE(stack.empty());
  EXPECT_FALSE(stack.pop(item));
}

}  // namespace
}  // namespace PBC
