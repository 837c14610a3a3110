// Records, histories and the portability tree: the answers of the search methods, the insert
// rules, the batched walks against single ones, and the dump's order and format.
#include "store/NumberPortabilityList.h"
#include "store/NumberPortabilityTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {
namespace {

using Tree = NumberPortabilityTree;

NumberPortabilityData record(std::string_view date, std::string_view networkOperator) {
  return NumberPortabilityData(BAS::DateTime(date), BAS::SimpleString(networkOperator));
}

// The operator that search(result) finds, or "-" after checking that a miss left the result alone.
template <class Search>
std::string answerOf(const Search& search) {
  NumberPortabilityData result = record("19000101000000", "UNTOUCHED");
  if (search(result)) return std::string(result.networkOperatorM.view());
  EXPECT_EQ(result.networkOperatorM.view(), "UNTOUCHED");
  return "-";
}
std::string find(const NumberPortabilityList& list, std::string_view date) {
  return answerOf([&](NumberPortabilityData& result) { return list.search(BAS::DateTime(date), result); });
}
std::string find(const Tree& tree, const std::string& number, std::string_view date, std::uint32_t method) {
  return answerOf([&](NumberPortabilityData& result) { return tree.search(BAS::String(number), BAS::DateTime(date), result, method); });
}

std::string operatorsOf(const NumberPortabilityList& list) {
  std::string names;
  for (const NumberPortabilityData& r : list.records()) names += std::string(r.networkOperatorM.view()) + ' ';
  return names;
}

std::string dump(const Tree& tree) {
  std::ostringstream out;
  tree.printTree(out, false);
  return out.str();
}

// Keeps, at every flush, the whole text written so far: what a reader of the stream had been given, and when.
struct FlushRecorder : std::stringbuf {
  std::vector<std::string> flushed;
  int sync() override { flushed.push_back(str()); return 0; }
};

TEST(NumberPortabilityData, ComparesByDateOnlyAndPrintsBothFields) {
  EXPECT_TRUE(record("20200115120000", "OPA") == record("20200115120000", "OPB"));
  EXPECT_TRUE(record("20200115120000", "OPB") < record("20230301000000", "OPA"));
  std::ostringstream out;
  out << record("20200115120000", "OPA");
  EXPECT_EQ(out.str(), "(2020-01-15 12:00:00 UTC OPA)");
}

// Every insertion order of three dates, with a second record of an already stored date last:
// newest first, the first of two equal dates kept, and the answers on and around each date.
TEST(NumberPortabilityList, KeepsHistoryNewestFirstRefusesEqualDatesAndAnswersTheRecordThatHolds) {
  for (const auto& order : std::vector<std::vector<std::string>>{{"2010", "2015", "2020"}, {"2020", "2015", "2010"},
                                                                 {"2015", "2020", "2010"}, {"2015", "2010", "2020"}}) {
    NumberPortabilityList list;
    EXPECT_EQ(find(list, "20240101000000"), "-");
    for (const std::string& year : order) EXPECT_TRUE(list.insertAt(record(year + "0101000000", year)));
    EXPECT_FALSE(list.insertAt(record(order[1] + "0101000000", "SECOND")));
    EXPECT_EQ(operatorsOf(list), "2020 2015 2010 ");
    const std::vector<std::pair<std::string_view, std::string_view>> cases = {
        {"20091231235959", "-"},    {"20100101000000", "2010"}, {"20141231235959", "2010"},
        {"20150101000000", "2015"}, {"20200101000000", "2020"}, {"20991231235959", "2020"}};
    for (const auto& [date, expected] : cases) EXPECT_EQ(find(list, date), expected) << date;
  }
  NumberPortabilityList appended;  // unordered: stored order, and the first that qualifies answers
  for (const std::string year : {"2010", "2020", "2010"}) appended.insert(record(year + "0101000000", year));
  EXPECT_EQ(operatorsOf(appended) + find(appended, "20250101000000"), "2010 2020 2010 2010");
}

// A history prints as data file lines, newest first, the number and operator trimmed, and each
// line reaches the stream's reader on its own; an empty history prints nothing.
TEST(NumberPortabilityList, PrintsEachRecordAsADataLineAndFlushesEveryLine) {
  NumberPortabilityList list;
  FlushRecorder recorder;
  std::ostream out(&recorder);
  list.printTree(out, BAS::String("4930123456"));
  ASSERT_TRUE(list.insertAt(record("20200115120000", " OPA ")) && list.insertAt(record("20230301000000", "OPB")));
  list.printTree(out, BAS::String(" 4930123456 "));
  const std::string first = "4930123456  20230301000000  OPB\n";
  EXPECT_EQ(recorder.flushed, (std::vector<std::string>{first, first + "4930123456  20200115120000  OPA\n"}));
}

TEST(NumberPortabilityTree, SearchMethodsInsertRulesDumpAndCopy) {
  Tree tree;
  ASSERT_TRUE(tree.insert("0049", record("20000101000000", "OPA"), true));
  ASSERT_TRUE(tree.insert("004930", record("20150601000000", "OPB"), true));
  ASSERT_TRUE(tree.insert("0049-301234", record("20220201000000", "OPC"), true));
  EXPECT_FALSE(tree.insert("0049", record("20000101000000", "OPX"), true));  // the first of a date stays
  EXPECT_FALSE(tree.insert("+-", record("20000101000000", "OPX"), false));   // no digits: no number
  EXPECT_EQ(tree.recordCount(), 3U);
  // number, date, then the answers of BEST_MATCH, EXACT_MATCH, ANY_PREFIX_MATCH and 7 (searching as the last)
  const std::vector<std::vector<std::string>> cases = {{"0049301234", "20230101000000", "OPC OPC OPA OPA"},
                                                       {"0049-30-1234", "20200101000000", "OPB - OPA OPA"},
                                                       {"0049305555", "20200101000000", "OPB - OPA OPA"},
                                                       {"00493", "20200101000000", "OPA - OPA OPA"},
                                                       {"0049301234", "19990101000000", "- - - -"},
                                                       {"0033123456", "20230101000000", "- - - -"}};
  for (const auto& c : cases) {
    std::string got;
    for (const std::uint32_t method : {Tree::BEST_MATCH, Tree::EXACT_MATCH, Tree::ANY_PREFIX_MATCH, 7U}) {
      got += (got.empty() ? "" : " ") + find(tree, c[0], c[1], method);
    }
    EXPECT_EQ(got, c[2]) << c[0] << " at " << c[1];
  }
  EXPECT_TRUE(tree.insert("004930", record("20100101000000", " OPD "), false));  // appended unchecked, counted
  EXPECT_EQ(tree.recordCountM, 4U);
  const std::string rule = std::string(59, '-') + "\n", banner = rule + "                 Number Portability Data\n" + rule;
  const std::string lines = "0049  20000101000000  OPA\n004930  20150601000000  OPB\n004930  20100101000000  OPD\n"
                            "0049301234  20220201000000  OPC\n";
  // Each banner line reaches the stream before anything else; the records follow in one flush.
  FlushRecorder recorder;
  std::ostream out(&recorder);
  tree.printTree(out, true);
  EXPECT_EQ(recorder.flushed, (std::vector<std::string>{rule, rule + "                 Number Portability Data\n", banner, banner + lines}));
  Tree copy;
  copy.insert("0033999", record("20200101000000", "STALE"), true);
  copy.copyFrom(tree);
  EXPECT_EQ(dump(copy) + std::to_string(copy.recordCount()), lines + "4");
  tree.clearAndDestroy();
  EXPECT_EQ(find(tree, "0049301234", "20230101000000", Tree::BEST_MATCH) + dump(tree) + std::to_string(tree.recordCount()), "-0");
  ASSERT_TRUE(tree.insert("0033", record("20100101000000", "OPF"), true));
  ASSERT_TRUE(tree.insert("004930", record("20160101000000", "OPG"), true));
  EXPECT_EQ(find(tree, "00331", "20230101000000", Tree::BEST_MATCH), "OPF");
  // The copy shares nothing with the tree it was made from, which was emptied and refilled.
  EXPECT_EQ(dump(copy) + find(copy, "0049301", "20230101000000", Tree::BEST_MATCH), lines + "OPB");
}

TEST(NumberPortabilityTree, BestMatchFallsBackThroughMorePrefixesThanItsInlineRoom) {
  Tree tree;
  std::string number;
  for (int length = 1; length <= 40; ++length) {  // each longer prefix starts a year later
    number += static_cast<char>('0' + length % 10);
    ASSERT_TRUE(tree.insert(BAS::String(number), record(std::to_string(2000 + length) + "0101000000", "P" + std::to_string(length)), true));
  }
  EXPECT_EQ(find(tree, number, "20010601000000", Tree::BEST_MATCH) + find(tree, number, "20300601000000", Tree::BEST_MATCH), "P1P30");
}

// A number ported more often than the arena keeps pooled lengths for: its history moves through
// blocks of every length, pooled and not, and stays newest first; emptying the tree gives them
// all back, and the tree fills again.
TEST(NumberPortabilityTree, LongHistoriesStayOrderedThroughEveryBlockLength) {
  Tree tree;
  std::mt19937 random(3);
  std::vector<int> years(60);
  for (int round = 0; round < 2; ++round) {
    for (std::size_t i = 0; i < years.size(); ++i) years[i] = 1960 + static_cast<int>(i);
    std::shuffle(years.begin(), years.end(), random);
    for (const int year : years) ASSERT_TRUE(tree.insert("004930", record(std::to_string(year) + "0601000000", "Y" + std::to_string(year)), true));
    ASSERT_TRUE(tree.insert("0049301", record("20000101000000", "SHORT"), true));
    std::string expected;
    for (int year = 2019; year >= 1960; --year) expected += "004930  " + std::to_string(year) + "0601000000  Y" + std::to_string(year) + "\n";
    EXPECT_EQ(dump(tree), expected + "0049301  20000101000000  SHORT\n");
    EXPECT_EQ(find(tree, "0049309", "19990101000000", Tree::BEST_MATCH) + find(tree, "0049301", "19990101000000", Tree::BEST_MATCH),
              "Y1998Y1998");
    tree.clearAndDestroy();
  }
}

// Numbers from a few short blocks, so that keys share paths, end above and below stored
// numbers and fall back through stored prefixes, and short ones get histories longer than the
// arena pools. Batched inserts and searches must answer as single ones, and the dump, long
// enough to be cut into many pieces, list the numbers in the order of a sorted map, each
// history newest first, with long operator texts intact.
TEST(NumberPortabilityTree, BatchedWalksAnswerAsSingleOnesAndTheDumpIsInKeyOrder) {
  std::mt19937_64 random(7);
  const auto randomNumber = [&random](std::uint64_t blocks) {
    std::string number = std::to_string(random() % blocks);
    for (std::uint64_t digits = random() % 10; digits != 0; --digits) number += static_cast<char>('0' + random() % 10);
    return number;
  };
  // Years 1 and 9999 too: the ends of what a stored record's date must hold.
  const auto randomDate = [&random] {
    const std::uint64_t pick = random() % 100;
    return pick == 0 ? std::string("00010101000000") : pick == 1 ? std::string("99991231235959")
                                                                 : std::to_string(1950 + random() % 70) + "0101000000";
  };
  std::vector<std::string> numbers;
  std::vector<NumberPortabilityData> records;
  std::map<std::string, std::map<std::string, std::string, std::greater<>>> expected;  // number, date, operator
  const auto add = [&](const std::string& number, const std::string& date, const std::string& networkOperator) {
    numbers.push_back(number);
    records.push_back(record(date, networkOperator));
    if (number != "+-") expected[number].emplace(date, networkOperator);  // the first of a date stays
  };
  add("123", "20200101000000", "A");  // repeats inside one batch, and a number without digits
  add("123", "20210101000000", "B");
  add("+-", "20200101000000", "X");
  add("123", "20200101000000", "C");
  // Over a thousand distinct operators, some too long to sit inline, so that an operator index
  // cut to a byte or a text copied badly shows in the dump.
  for (int i = 0; i < 60000; ++i) add(randomNumber(5), randomDate(), std::string(i % 3 == 0 ? 30 : 1, 'L') + std::to_string(i % 997));
  const std::vector<std::string_view> views(numbers.begin(), numbers.end());
  Tree single, many;
  std::string singleAccepted;
  for (std::size_t i = 0; i < numbers.size(); ++i) singleAccepted += single.insert(BAS::String(numbers[i]), records[i], true) ? '1' : '0';
  auto accepted = std::make_unique<bool[]>(numbers.size());
  many.insertMany(views.data(), records.data(), views.size(), true, accepted.get());
  std::string manyAccepted;
  for (std::size_t i = 0; i < numbers.size(); ++i) manyAccepted += accepted[i] ? '1' : '0';
  EXPECT_EQ(manyAccepted, singleAccepted);
  EXPECT_EQ(singleAccepted.substr(0, 4), "1100");
  std::istringstream printed(dump(many));
  std::string line;
  for (const auto& [number, history] : expected) {
    for (const auto& [date, networkOperator] : history) {
      ASSERT_TRUE(std::getline(printed, line)) << number;  // line by line: a diff this long is too big
      ASSERT_EQ(line, number + "  " + date + "  " + networkOperator);
    }
  }
  EXPECT_FALSE(std::getline(printed, line)) << line;

  std::vector<std::string> queryTexts(numbers.begin(), numbers.begin() + 4);  // half of them below no stored block
  while (queryTexts.size() < 1000) queryTexts.push_back(randomNumber(10));
  const std::vector<std::string_view> queries(queryTexts.begin(), queryTexts.end());
  std::vector<BAS::DateTime> dates;
  for (std::size_t i = 0; i < queries.size(); ++i) dates.push_back(BAS::DateTime(std::string_view(randomDate())));
  for (const std::uint32_t method : {0U, 1U, 2U, 7U}) {
    std::vector<NumberPortabilityData> results(queries.size(), record("19000101000000", "UNTOUCHED"));
    auto found = std::make_unique<bool[]>(queries.size());
    many.searchMany(queries.data(), dates.data(), queries.size(), method, results.data(), found.get());
    std::size_t hits = 0;
    for (std::size_t i = 0; i < queries.size(); ++i) {
      NumberPortabilityData one = record("19000101000000", "UNTOUCHED");
      ASSERT_EQ(found[i], many.search(BAS::String(queries[i]), dates[i], one, method)) << queries[i] << " method " << method;
      EXPECT_EQ(results[i].networkOperatorM.view(), one.networkOperatorM.view()) << queries[i] << " method " << method;
      hits += found[i] ? 1 : 0;
    }
    EXPECT_GT(hits, 100U) << method;  // hits and misses both occur
    EXPECT_LT(hits, 900U) << method;
  }
}

}  // namespace
}  // namespace DAT::NumberPortability
