#include "store/NumberPortabilityTree.h"
#include "store/PtrTree.h"
#include "store/tests/FlushRecorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {
namespace {

BAS::DateTime at(std::string_view digits) { return BAS::DateTime(digits); }

NumberPortabilityData record(std::string_view digits, std::string_view networkOperator) {
  return NumberPortabilityData(at(digits), BAS::SimpleString(networkOperator));
}

// The operator found, or nullopt on a miss (after checking that a miss left the result alone).
std::optional<std::string> find(const NumberPortabilityTree& tree, const char* number, std::string_view date,
                                std::uint32_t method) {
  NumberPortabilityData result = record("19000101000000", "UNTOUCHED");
  if (tree.search(number, at(date), result, method)) return std::string(result.networkOperatorM.view());
  EXPECT_EQ(result.networkOperatorM.view(), "UNTOUCHED");
  return std::nullopt;
}

std::string dump(const NumberPortabilityTree& tree, bool withBanner) {
  std::ostringstream out;
  tree.printTree(out, withBanner);
  return out.str();
}

const std::string bannerCM = std::string(59, '-') + "\n                 Number Portability Data\n" + std::string(59, '-') + "\n";

class NumberPortabilityTreeTest : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(tree.insert("0049", record("20000101000000", "OPA"), true));
    ASSERT_TRUE(tree.insert("004930", record("20150601000000", "OPB"), true));
    ASSERT_TRUE(tree.insert("0049301234", record("20220201000000", "OPC"), true));
  }

  NumberPortabilityTree tree;
};

TEST_F(NumberPortabilityTreeTest, SearchMethodsAnswerAsTheirDefinitionsSay) {
  using Tree = NumberPortabilityTree;
  const std::optional<std::string> none;
  struct Case {
    const char* number;
    const char* date;
    std::optional<std::string> best, exact, anyPrefix;
  };
  const std::vector<Case> cases = {
      {"0049301234", "20230101000000", "OPC", "OPC", "OPA"},
      {"0049301234", "20200101000000", "OPB", none, "OPA"},
      {"0049305555", "20200101000000", "OPB", none, "OPA"},
      {"0049301234", "19990101000000", none, none, none},
      {"0033123456", "20230101000000", none, none, none},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.number) + " at " + c.date);
    EXPECT_EQ(find(tree, c.number, c.date, Tree::BEST_MATCH), c.best);
    EXPECT_EQ(find(tree, c.number, c.date, Tree::EXACT_MATCH), c.exact);
    EXPECT_EQ(find(tree, c.number, c.date, Tree::ANY_PREFIX_MATCH), c.anyPrefix);
    // Unknown methods search as ANY_PREFIX_MATCH.
    EXPECT_EQ(find(tree, c.number, c.date, 7), c.anyPrefix);
  }
}

TEST_F(NumberPortabilityTreeTest, SkipsSeparatorsInTheSearchedNumber) {
  EXPECT_EQ(find(tree, "0049-301-234", "20230101000000", NumberPortabilityTree::EXACT_MATCH), "OPC");
}

TEST_F(NumberPortabilityTreeTest, CountsAcceptedRecordsOnlyAndRefusesNumbersWithoutDigits) {
  EXPECT_EQ(tree.recordCount(), 3U);
  EXPECT_FALSE(tree.insert("0049", record("20000101000000", "OPX"), true));
  EXPECT_EQ(tree.recordCountM, 3U);
  EXPECT_EQ(find(tree, "0049", "20000101000000", NumberPortabilityTree::EXACT_MATCH), "OPA");

  EXPECT_FALSE(tree.insert("+-", record("20000101000000", "OPX"), true));
  EXPECT_FALSE(tree.insert("", record("20000101000000", "OPX"), false));
  EXPECT_EQ(tree.recordCount(), 3U);
  EXPECT_EQ(find(tree, "0033", "20230101000000", NumberPortabilityTree::ANY_PREFIX_MATCH), std::nullopt);

  // Unordered insertion appends without the duplicate check.
  EXPECT_TRUE(tree.insert("0049", record("20000101000000", "OPX"), false));
  EXPECT_EQ(tree.recordCount(), 4U);
}

TEST_F(NumberPortabilityTreeTest, ClearAndDestroyLeavesAnEmptyUsableTree) {
  tree.clearAndDestroy();
  EXPECT_EQ(tree.recordCount(), 0U);
  EXPECT_EQ(tree.nodeCount(), 1U);
  EXPECT_EQ(find(tree, "0049301234", "20230101000000", NumberPortabilityTree::BEST_MATCH), std::nullopt);
  EXPECT_EQ(dump(tree, false), "");

  ASSERT_TRUE(tree.insert("0033", record("20100101000000", "OPF"), true));
  EXPECT_EQ(tree.recordCount(), 1U);
  EXPECT_EQ(find(tree, "00331", "20230101000000", NumberPortabilityTree::BEST_MATCH), "OPF");
}

TEST_F(NumberPortabilityTreeTest, PrintedDataReadsBackAsTheSameRecords) {
  ASSERT_TRUE(tree.insert("004930", record("20100101000000", "OPD"), true));
  ASSERT_TRUE(tree.insert("004930", record("20200101000000", "OPE"), true));
  const std::string printed = dump(tree, false);
  EXPECT_EQ(printed,
            "0049  20000101000000  OPA\n"
            "004930  20200101000000  OPE\n"
            "004930  20150601000000  OPB\n"
            "004930  20100101000000  OPD\n"
            "0049301234  20220201000000  OPC\n");
  EXPECT_EQ(dump(tree, true), bannerCM + printed);

  NumberPortabilityTree copy;
  std::istringstream lines(printed);
  std::string line;
  while (std::getline(lines, line)) {
    const std::vector<BAS::String> fields = BAS::String(line).split();
    ASSERT_EQ(fields.size(), 3U) << line;
    EXPECT_TRUE(copy.insert(fields[0], NumberPortabilityData(BAS::DateTime(fields[1]), BAS::SimpleString(fields[2].view())), true));
  }
  EXPECT_EQ(copy.recordCount(), tree.recordCount());
  EXPECT_EQ(dump(copy, false), printed);
}

TEST_F(NumberPortabilityTreeTest, CopyHoldsTheSameRecordsInTheSameOrder) {
  NumberPortabilityTree copy;
  copy.insert("0033999", record("20200101000000", "STALE"), true);
  copy.copyFrom(tree);
  EXPECT_EQ(dump(copy, false), dump(tree, false));
  EXPECT_EQ(copy.recordCount(), tree.recordCount());
  EXPECT_EQ(find(copy, "0049305555", "20200101000000", NumberPortabilityTree::BEST_MATCH), "OPB");
  EXPECT_EQ(find(copy, "0033999", "20230101000000", NumberPortabilityTree::EXACT_MATCH), std::nullopt);
}

// Someone watching a console or FIFO sees the banner as soon as the dump starts; the records
// follow in one flush at the end.
TEST_F(NumberPortabilityTreeTest, DumpFlushesEachBannerLineBeforeAnyRecord) {
  FlushRecorder recorder;
  std::ostream out(&recorder);
  tree.printTree(out, true);
  const std::string rule = std::string(59, '-') + "\n";
  EXPECT_EQ(recorder.flushed, (std::vector<std::string>{rule, rule + "                 Number Portability Data\n", bannerCM,
                                                        bannerCM + dump(tree, false)}));
}

// The generic trie over histories, with each history printing itself, writes what the tree's
// own fast dump writes, flushing every line.
TEST(NumberPortabilityTree, TrieOfHistoriesPrintsWhatTheFastDumpPrints) {
  const std::vector<std::pair<const char*, NumberPortabilityData>> records = {
      {"0049301234", record("20220201000000", "OPC")}, {"0049", record("20000101000000", "OPA")},
      {"0049-30-1234", record("20230101000000", " OPD ")}, {"00491", record("20100101000000", "OPE")},
      {"004930", record("20150601000000", "OPB")}};
  NumberPortabilityTree tree;
  PBC::PtrTree<NumberPortabilityList> histories(10);
  for (const auto& [number, data] : records) {
    ASSERT_TRUE(tree.insert(number, data, true));
    NumberPortabilityList* list = histories.search(number, true);
    if (list == nullptr) histories.insert(number, list = new NumberPortabilityList);
    ASSERT_TRUE(list->insertAt(data));
  }

  FlushRecorder recorder;
  std::ostream out(&recorder);
  histories.printTree(out);
  EXPECT_EQ(recorder.str(), dump(tree, false));
  EXPECT_EQ(recorder.flushed.size(), 5U);
}

TEST(NumberPortabilityTree, NewTreeFindsNothingAndDumpsTheBannerOnly) {
  const NumberPortabilityTree tree;
  EXPECT_EQ(tree.recordCountM, 0U);
  for (std::uint32_t method : {0U, 1U, 2U}) {
    EXPECT_EQ(find(tree, "0049", "20230101000000", method), std::nullopt);
  }
  EXPECT_EQ(dump(tree, true), bannerCM);
  EXPECT_EQ(dump(tree, false), "");
}

TEST(NumberPortabilityTree, BestMatchFallsBackThroughMorePrefixesThanItsInlineRoom) {
  NumberPortabilityTree tree;
  std::string number;
  for (int length = 1; length <= 40; ++length) {
    number += static_cast<char>('0' + length % 10);
    // Only the shortest prefix holds in 2001; each longer one starts a year later.
    ASSERT_TRUE(tree.insert(BAS::String(number), record(std::to_string(2000 + length) + "0101000000", "P" + std::to_string(length)), true));
  }
  EXPECT_EQ(find(tree, number.c_str(), "20010601000000", NumberPortabilityTree::BEST_MATCH), "P1");
  EXPECT_EQ(find(tree, number.c_str(), "20300601000000", NumberPortabilityTree::BEST_MATCH), "P30");
  EXPECT_EQ(find(tree, number.c_str(), "20991231000000", NumberPortabilityTree::BEST_MATCH), "P40");
}

TEST(NumberPortabilityTree, SearchManyAnswersEachNumberAsSearchDoes) {
  // Numbers drawn from a few short blocks, so that queries share paths, stop in the middle of
  // keys, end above and below stored numbers, and fall back through stored prefixes; one chain
  // is deeper than a batch's inline room for prefixes.
  NumberPortabilityTree tree;
  std::uint64_t seed = 12345;
  const auto next = [&seed](std::uint64_t bound) {
    seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
    return (seed >> 33) % bound;
  };
  const auto randomNumber = [&](const char* country) {
    std::string number = country + std::to_string(next(3));
    for (std::uint64_t digits = next(5) + 1; digits != 0; --digits) number += static_cast<char>('0' + next(10));
    return number;
  };
  const auto randomDate = [&] { return std::to_string(1995 + next(30)) + "0101000000"; };
  for (int i = 0; i < 400; ++i) tree.insert(BAS::String(randomNumber("49")), record(randomDate(), "R" + std::to_string(i)), true);
  std::string deep = "7";
  for (int length = 1; length <= 20; ++length, deep += static_cast<char>('0' + length % 10)) {
    tree.insert(BAS::String(deep), record(std::to_string(2000 + length) + "0101000000", "D" + std::to_string(length)), true);
  }

  std::vector<std::string> numbers = {"", "+-", deep, deep + "99", "7", "8", "4-9-0"};
  while (numbers.size() < 1000) numbers.push_back(randomNumber(next(4) == 0 ? "48" : "49"));
  std::vector<BAS::DateTime> dates;
  for (std::size_t i = 0; i < numbers.size(); ++i) dates.push_back(at(randomDate()));
  const std::vector<std::string_view> views(numbers.begin(), numbers.end());

  for (const std::uint32_t method : {0U, 1U, 2U, 7U}) {
    SCOPED_TRACE("method " + std::to_string(method));
    std::vector<NumberPortabilityData> results(numbers.size(), record("19000101000000", "UNTOUCHED"));
    auto found = std::make_unique<bool[]>(numbers.size());
    tree.searchMany(views.data(), dates.data(), numbers.size(), method, results.data(), found.get());
    std::size_t hits = 0;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
      SCOPED_TRACE(numbers[i]);
      NumberPortabilityData single = record("19000101000000", "UNTOUCHED");
      ASSERT_EQ(found[i], tree.search(BAS::String(numbers[i]), dates[i], single, method));
      EXPECT_EQ(results[i].networkOperatorM.view(), single.networkOperatorM.view());
      EXPECT_TRUE(results[i].validFromM == single.validFromM);
      hits += found[i] ? 1 : 0;
    }
    // Both answers occur, so the comparison above covers hits and misses alike.
    EXPECT_GT(hits, 50U);
    EXPECT_LT(hits, numbers.size() - 50);
  }
}

TEST(NumberPortabilityTree, DumpOfManyNumbersListsThemInKeyOrder) {
  // Enough numbers that the dump cuts the trie into many pieces and holds more of them than it
  // keeps texts for; lengths from 1 to 14 digits, so that numbers are prefixes of others.
  std::mt19937_64 random(7);
  std::map<std::string, std::vector<std::string>> expected;  // number to its lines, newest first
  NumberPortabilityTree tree;
  for (int i = 0; i < 60000; ++i) {
    std::string number = std::to_string(random() % 5);
    for (std::uint64_t digits = random() % 14; digits != 0; --digits) number += static_cast<char>('0' + random() % 10);
    const std::string date = std::to_string(1990 + random() % 30) + "0101000000";
    if (!tree.insert(BAS::String(number), record(date, "OP" + std::to_string(i % 97)), true)) continue;
    expected[number].push_back(date + "  OP" + std::to_string(i % 97));
  }
  std::string lines;
  for (auto& [number, history] : expected) {
    std::sort(history.rbegin(), history.rend());
    for (const std::string& line : history) lines += number + "  " + line + "\n";
  }
  // Line by line: on a failure, a diff of two texts this long would take gigabytes.
  std::istringstream printed(dump(tree, false));
  std::istringstream wanted(lines);
  std::string got;
  std::string want;
  for (std::size_t line = 1; std::getline(wanted, want); ++line) {
    ASSERT_TRUE(std::getline(printed, got)) << "the dump ends before line " << line << ", " << want;
    ASSERT_EQ(got, want) << "line " << line;
  }
  EXPECT_FALSE(std::getline(printed, got)) << "the dump goes on with " << got;
}

TEST(NumberPortabilityTree, HandlesAKeyOfAMillionDigits) {
  std::string digits(1'000'000, '0');
  for (std::size_t i = 0; i < digits.size(); i += 7) digits[i] = static_cast<char>('0' + i % 10);
  const BAS::String number(digits);

  NumberPortabilityTree tree;
  ASSERT_TRUE(tree.insert(number, record("20200101000000", "DEEP"), true));
  ASSERT_TRUE(tree.insert(BAS::String(digits.substr(0, 500'000)), record("20100101000000", "HALF"), true));
  EXPECT_EQ(tree.nodeCount(), digits.size() + 1);

  NumberPortabilityData result;
  ASSERT_TRUE(tree.search(number, at("20190101000000"), result, NumberPortabilityTree::BEST_MATCH));
  EXPECT_EQ(result.networkOperatorM.view(), "HALF");
  ASSERT_TRUE(tree.search(number, at("20210101000000"), result, NumberPortabilityTree::EXACT_MATCH));
  EXPECT_EQ(result.networkOperatorM.view(), "DEEP");
  ASSERT_TRUE(tree.search(number, at("20210101000000"), result, NumberPortabilityTree::ANY_PREFIX_MATCH));
  EXPECT_EQ(result.networkOperatorM.view(), "HALF");

  const std::string printed = dump(tree, false);
  EXPECT_EQ(printed, digits.substr(0, 500'000) + "  20100101000000  HALF\n" + digits + "  20200101000000  DEEP\n");

  tree.clearAndDestroy();
  EXPECT_EQ(tree.nodeCount(), 1U);
  ASSERT_TRUE(tree.insert(number, record("20200101000000", "AGAIN"), true));
}  // and the destructor takes the deep key apart once more

}  // namespace
}  // namespace DAT::NumberPortability
