#include "store/NumberPortabilityData.h"
#include "store/NumberPortabilityList.h"
#include "store/tests/FlushRecorder.h"

#include <gtest/gtest.h>

#include <ostream>
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

std::vector<std::string> operatorsOf(const NumberPortabilityList& list) {
  std::vector<std::string> names;
  for (const NumberPortabilityData& r : list.records()) names.emplace_back(r.networkOperatorM.view());
  return names;
}

TEST(NumberPortabilityData, ComparesByDateOnlyAndPrintsBothFields) {
  const NumberPortabilityData a = record("20200115120000", "OPA");
  const NumberPortabilityData b = record("20200115120000", "OPB");
  const NumberPortabilityData later = record("20230301000000", "OPA");
  EXPECT_TRUE(a == b);
  EXPECT_TRUE(a < later);
  EXPECT_FALSE(later <= a);

  NumberPortabilityData copy;
  copy = later;
  const NumberPortabilityData& alias = copy;
  copy = alias;
  EXPECT_EQ(copy.networkOperatorM.view(), "OPA");
  EXPECT_EQ(copy.validFromM, later.validFromM);

  std::ostringstream out;
  out << a;
  EXPECT_EQ(out.str(), "(2020-01-15 12:00:00 UTC OPA)");
}

TEST(NumberPortabilityList, KeepsHistoryNewestFirstWhateverTheInsertionOrder) {
  const std::vector<std::vector<std::string_view>> orders = {
      {"20100101000000", "20150101000000", "20200101000000"},
      {"20200101000000", "20150101000000", "20100101000000"},
      {"20150101000000", "20200101000000", "20100101000000"},
      {"20150101000000", "20100101000000", "20200101000000"}};
  for (const auto& order : orders) {
    NumberPortabilityList list;
    for (std::string_view date : order) EXPECT_TRUE(list.insertAt(record(date, date.substr(0, 4))));
    EXPECT_EQ(operatorsOf(list), (std::vector<std::string>{"2020", "2015", "2010"}));
  }
}

TEST(NumberPortabilityList, SearchAnswersTheNewestRecordNotLaterThanTheDate) {
  NumberPortabilityList list;
  NumberPortabilityData result = record("19990101000000", "UNTOUCHED");
  EXPECT_FALSE(list.search(at("20240101000000"), result));

  ASSERT_TRUE(list.insertAt(record("20200115120000", "OPA")));
  ASSERT_TRUE(list.insertAt(record("20230301000000", "OPB")));

  EXPECT_FALSE(list.search(at("20200115115959"), result));
  EXPECT_EQ(result.networkOperatorM.view(), "UNTOUCHED");

  const std::vector<std::pair<std::string_view, std::string_view>> cases = {
      {"20200115120000", "OPA"},  // exactly at the older record
      {"20210601000000", "OPA"},  // between the two
      {"20230301000000", "OPB"},  // exactly at the newer record
      {"20991231235959", "OPB"}}; // after both
  for (const auto& [date, expected] : cases) {
    ASSERT_TRUE(list.search(at(date), result)) << date;
    EXPECT_EQ(result.networkOperatorM.view(), expected) << date;
  }
}

TEST(NumberPortabilityList, RefusesASecondRecordOfTheSameDateAndKeepsTheFirst) {
  NumberPortabilityList list;
  ASSERT_TRUE(list.insertAt(record("20200101000000", "FIRST")));
  ASSERT_TRUE(list.insertAt(record("20100101000000", "OLDER")));
  EXPECT_FALSE(list.insertAt(record("20200101000000", "SECOND")));
  EXPECT_FALSE(list.insertAt(record("20100101000000", "SECOND")));
  EXPECT_EQ(operatorsOf(list), (std::vector<std::string>{"FIRST", "OLDER"}));

  NumberPortabilityData result;
  ASSERT_TRUE(list.search(at("20200101000000"), result));
  EXPECT_EQ(result.networkOperatorM.view(), "FIRST");
}

TEST(NumberPortabilityList, AppendKeepsStoredOrderAndSearchTakesTheFirstThatQualifies) {
  NumberPortabilityList list;
  list.insert(record("20100101000000", "OLD"));
  list.insert(record("20200101000000", "NEW"));
  list.insert(record("20100101000000", "AGAIN"));
  EXPECT_EQ(operatorsOf(list), (std::vector<std::string>{"OLD", "NEW", "AGAIN"}));

  NumberPortabilityData result;
  ASSERT_TRUE(list.search(at("20250101000000"), result));
  EXPECT_EQ(result.networkOperatorM.view(), "OLD");
}

TEST(NumberPortabilityList, PrintsOneTrimmedDataLinePerRecordEachFlushedOnItsOwn) {
  NumberPortabilityList list;
  FlushRecorder empty;
  std::ostream emptyOut(&empty);
  list.printTree(emptyOut, "4930123456");
  EXPECT_EQ(empty.str(), "");
  EXPECT_TRUE(empty.flushed.empty());

  ASSERT_TRUE(list.insertAt(record("20200115120000", "OPA")));
  ASSERT_TRUE(list.insertAt(record("20230301000000", " OPB ")));
  const std::string newer = "4930123456  20230301000000  OPB\n";
  const std::string older = "4930123456  20200115120000  OPA\n";
  FlushRecorder printed;
  std::ostream out(&printed);
  list.printTree(out, "  4930123456 ");
  EXPECT_EQ(printed.flushed, (std::vector<std::string>{newer, newer + older}));
  // The dump's form of the same lines, added to what its text already holds.
  std::string appended = "kept\n";
  list.appendLines(appended, "  4930123456 ");
  EXPECT_EQ(appended, "kept\n" + newer + older);
}

}  // namespace
}  // namespace DAT::NumberPortability
