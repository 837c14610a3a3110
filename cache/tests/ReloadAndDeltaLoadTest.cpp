// Reload and delta load: which data answers afterwards, what is reported, and what the main
// data file holds after a delta load. The standby tree is checked through a further delta load
// of an empty file, which publishes it.
#include "plugin/tests/TestEnvironment.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using NpTest::StatusLine;
using NpTest::TestEnvironment;
using Args = std::vector<std::vector<std::string>>;

const std::vector<std::string> rejectionIds = {"ERR_NUMBER_OF_FIELDS_IN_RECORD", "ERR_INVALID_DATETIME",
                                               "ERR_DUPLICATE_NUMPORTDATA"};

// The loaded data of most tests: one number with two records, one written with hyphens.
const char* const initialData =
    "+4930123456 20200115120000 OPA\n"
    "030123456 20230301000000 OPB\n"
    "0044-1234-567 20210101000000 OPC\n";

// initialData as the plug-in writes it: stored keys (digits only) in key order, newest first.
const std::string initialDump =
    "00441234567  20210101000000  OPC\n"
    "004930123456  20230301000000  OPB\n"
    "004930123456  20200115120000  OPA\n";

bool initialDataAnswers(TestEnvironment& env) {
  return env.lookup("004930123456", "20220101000000") == "OPA" && env.lookup("004930123456") == "OPB" &&
         env.lookup("00441234567") == "OPC";
}

bool reload(TestEnvironment& env, bool reuseOnFailure) { return env.plugIn->cacheManager()->cacheReload(reuseOnFailure); }

bool deltaLoad(TestEnvironment& env, const std::string& file) {
  return env.plugIn->cacheManager()->cacheDeltaLoad(BAS::String(file));
}

// Publishes the standby tree without changing the data.
void exchangeWithEmptyDelta(TestEnvironment& env) {
  const std::string empty = env.writeFile("empty-delta.txt", "");
  ASSERT_TRUE(deltaLoad(env, empty));
}

struct ReloadRow {
  const char* label;
  const char* newContent;
  bool reuseOnFailure;
  bool expectedResult;
  // What answers afterwards: the new data (NEW1 for 004930700001), nothing, or the old data.
  enum { OLD, NEW, NOTHING } answers;
  // Rejections reported, with the location line number; {} for none.
  std::vector<std::pair<std::string, std::vector<std::string>>> rejections;  // id, args without location
  unsigned rejectedLine;
};

TEST(CacheReload, OutcomeDependsOnTheLastLineAndReuseOnFailure) {
  const std::vector<ReloadRow> rows = {
      {"two-column last line, no reuse: old data stays, line reported once",
       "030700001 20200101000000 NEW1\n030700002 20200101000000\n",
       false,
       false,
       ReloadRow::OLD,
       {{"ERR_NUMBER_OF_FIELDS_IN_RECORD", {"2", "3", "030700002 20200101000000"}}},
       2},
      {"two-column last line, reuse: new data, line reported in both passes",
       "030700001 20200101000000 NEW1\n030700002 20200101000000\n",
       true,
       true,
       ReloadRow::NEW,
       {{"ERR_NUMBER_OF_FIELDS_IN_RECORD", {"2", "3", "030700002 20200101000000"}},
        {"ERR_NUMBER_OF_FIELDS_IN_RECORD", {"2", "3", "030700002 20200101000000"}}},
       2},
      {"duplicate last line counts as a good one",
       "030700001 20200101000000 NEW1\n+4930700001 20200101000000 NEW2\n",
       false,
       true,
       ReloadRow::NEW,
       {{"ERR_DUPLICATE_NUMPORTDATA", {"004930700001", "20200101000000"}},
        {"ERR_DUPLICATE_NUMPORTDATA", {"004930700001", "20200101000000"}}},
       2},
      {"bad date on an earlier line, good last line", "030700009 2020 BAD\n030700001 20200101000000 NEW1\n", false,
       true, ReloadRow::NEW,
       {{"ERR_INVALID_DATETIME", {"2020", "004930700009"}}, {"ERR_INVALID_DATETIME", {"2020", "004930700009"}}},
       1},
      {"empty file, no reuse: old data stays", "", false, false, ReloadRow::OLD, {}, 0},
      {"empty file, reuse: both trees end empty", "", true, true, ReloadRow::NOTHING, {}, 0},
  };

  for (const ReloadRow& row : rows) {
    SCOPED_TRACE(row.label);
    TestEnvironment env;
    const std::string file = env.configureData(initialData);
    env.start();
    env.writeFile("np.txt", row.newContent);
    env.sink->clear();

    EXPECT_EQ(reload(env, row.reuseOnFailure), row.expectedResult);

    // The location text depends on the message: fields use "At Line#", the others "Invalid N-Port Data at Line#".
    std::vector<StatusLine> expected;
    for (const auto& [id, args] : row.rejections) {
      const std::string where = std::to_string(row.rejectedLine) + " in File '" + file + "'. ";
      std::vector<std::string> full;
      if (id == "ERR_NUMBER_OF_FIELDS_IN_RECORD") {
        full = args;
        full.push_back("At Line# " + where);
      } else {
        full.push_back("Invalid N-Port Data at Line# " + where);
        full.insert(full.end(), args.begin(), args.end());
      }
      expected.push_back({id, 2, full});
    }
    EXPECT_EQ(NpTest::statusLines(*env.sink, rejectionIds), expected);
    EXPECT_EQ(env.argsOf("INF_DELETE_OLD_DATA"), row.expectedResult ? Args{{"NumberPortability"}} : Args{});
    EXPECT_EQ(env.count("ERR_CLOSE_NP_FILE"), 0u);

    auto checkAnswers = [&] {
      switch (row.answers) {
        case ReloadRow::OLD:
          EXPECT_TRUE(initialDataAnswers(env));
          EXPECT_EQ(env.lookup("004930700001"), std::nullopt);
          break;
        case ReloadRow::NEW:
          EXPECT_EQ(env.lookup("004930700001"), "NEW1");
          EXPECT_EQ(env.lookup("004930123456"), std::nullopt);
          EXPECT_EQ(env.lookup("00441234567"), std::nullopt);
          break;
        case ReloadRow::NOTHING:
          EXPECT_EQ(env.lookup("004930123456"), std::nullopt);
          EXPECT_EQ(env.lookup("00441234567"), std::nullopt);
          EXPECT_EQ(env.lookup("0049"), std::nullopt);
          break;
      }
    };
    {
      SCOPED_TRACE("active tree after the reload");
      checkAnswers();
    }
    {
      SCOPED_TRACE("the other tree, published by an empty delta load");
      exchangeWithEmptyDelta(env);
      checkAnswers();
    }
  }
}

TEST(CacheReload, SuccessfulReloadReportsInOrder) {
  TestEnvironment env;
  const std::string file = env.configureData(initialData);
  env.start();
  env.writeFile("np.txt", "030700001 20200101000000 NEW1\nx\n");
  env.sink->clear();
  ASSERT_TRUE(reload(env, true));
  EXPECT_EQ(env.ids(), (std::vector<std::string>{"INF_FILE_OPENED", "ERR_NUMBER_OF_FIELDS_IN_RECORD",
                                                 "ERR_NUMBER_OF_FIELDS_IN_RECORD", "INF_DELETE_OLD_DATA"}));
  EXPECT_EQ(NpTest::statusLines(*env.sink, {"INF_FILE_OPENED", "INF_DELETE_OLD_DATA"}),
            (std::vector<StatusLine>{{"INF_FILE_OPENED", 1, {file}}, {"INF_DELETE_OLD_DATA", 1, {"NumberPortability"}}}));
}

TEST(CacheReload, MissingDataFileFailsAndKeepsTheData) {
  for (bool reuse : {false, true}) {
    SCOPED_TRACE(reuse ? "reuse on failure" : "no reuse");
    TestEnvironment env;
    const std::string file = env.configureData(initialData);
    env.start();
    std::filesystem::remove(file);
    env.sink->clear();
    EXPECT_FALSE(reload(env, reuse));
    EXPECT_EQ(NpTest::statusLines(*env.sink, {"ERR_FILE_NOT_FOUND"}),
              (std::vector<StatusLine>{{"ERR_FILE_NOT_FOUND", 4, {file}}}));
    EXPECT_EQ(env.count("INF_DELETE_OLD_DATA"), 0u);
    EXPECT_TRUE(initialDataAnswers(env));
  }
}

TEST(CacheDeltaLoad, AddsNewRecordsReportsRejectionsTwiceAndRewritesTheMainFile) {
  TestEnvironment env;
  const std::string file = env.configureData(initialData);
  env.start();
  const std::string delta = env.writeFile("delta.txt",
                                          "0891234 20220202020202 OPD\n"         // new
                                          "+4930123456 20200115120000 OPX\n"     // duplicate of loaded data
                                          "030999 2022 OPY\n");                  // unreadable date
  env.sink->clear();

  ASSERT_TRUE(deltaLoad(env, delta));

  const std::string line2 = "Invalid N-Port Data at Line# 2 in File '" + delta + "'. ";
  const std::string line3 = "Invalid N-Port Data at Line# 3 in File '" + delta + "'. ";
  const StatusLine duplicate{"ERR_DUPLICATE_NUMPORTDATA", 2, {line2, "004930123456", "20200115120000"}};
  const StatusLine badDate{"ERR_INVALID_DATETIME", 2, {line3, "2022", "004930999"}};
  EXPECT_EQ(NpTest::statusLines(*env.sink, {"INF_FILE_OPENED", "ERR_DUPLICATE_NUMPORTDATA", "ERR_INVALID_DATETIME"}),
            (std::vector<StatusLine>{{"INF_FILE_OPENED", 1, {delta}}, duplicate, badDate, duplicate, badDate}));
  EXPECT_EQ(env.count("ERR_CLOSE_NP_FILE"), 0u);

  EXPECT_EQ(env.lookup("0049891234"), "OPD");
  EXPECT_TRUE(initialDataAnswers(env));  // the duplicate's OPX did not replace OPA
  EXPECT_EQ(env.lookup("004930999"), std::nullopt);

  const std::string merged = initialDump + "0049891234  20220202020202  OPD\n";
  EXPECT_EQ(NpTest::readText(file), merged);

  {
    SCOPED_TRACE("the other tree holds the delta too");
    exchangeWithEmptyDelta(env);
    EXPECT_EQ(env.lookup("0049891234"), "OPD");
    EXPECT_TRUE(initialDataAnswers(env));
    EXPECT_EQ(NpTest::readText(file), merged);
  }

  // A plug-in started on the rewritten file holds the same records: its dump is the same.
  env.configure(file, "49", "0", "NumberPortabilityCopy");
  DAT::NumberPortability::PlugIn copy("NumberPortabilityCopy", "10008");
  ASSERT_TRUE(copy.init());
  const std::string originalDump = env.path("original.dump");
  const std::string copyDump = env.path("copy.dump");
  env.plugIn->cacheManager()->printData(BAS::String(originalDump));
  copy.cacheManager()->printData(BAS::String(copyDump));
  EXPECT_EQ(NpTest::readText(copyDump), NpTest::dumpBanner + merged);
  EXPECT_EQ(NpTest::readText(originalDump), NpTest::readText(copyDump));
  std::size_t copyRejections = 0;
  for (const BAS::LogRecord& record : env.sink->records()) {
    if (record.object == BAS::String("NumberPortabilityCopy") && record.severity == 2) ++copyRejections;
  }
  EXPECT_EQ(copyRejections, 0u);
  copy.shutdown();
}

TEST(CacheDeltaLoad, FileOfRejectedLinesStillExchangesAndRewritesUnchangedData) {
  TestEnvironment env;
  const std::string file = env.configureData(initialData);
  env.start();
  const std::string delta = env.writeFile("delta.txt", "only two\n030123456 20230301000000 OPB\n");
  env.sink->clear();
  ASSERT_TRUE(deltaLoad(env, delta));
  EXPECT_EQ(env.count("ERR_NUMBER_OF_FIELDS_IN_RECORD"), 2u);
  EXPECT_EQ(env.count("ERR_DUPLICATE_NUMPORTDATA"), 2u);
  EXPECT_TRUE(initialDataAnswers(env));
  EXPECT_EQ(NpTest::readText(file), initialDump);
}

TEST(CacheDeltaLoad, MissingDeltaFileFailsWithoutTouchingTheData) {
  TestEnvironment env;
  const std::string file = env.configureData(initialData);
  env.start();
  env.sink->clear();
  const std::string missing = env.path("no-such-delta.txt");
  EXPECT_FALSE(deltaLoad(env, missing));
  EXPECT_EQ(NpTest::statusLines(*env.sink, {"ERR_FILE_NOT_FOUND"}),
            (std::vector<StatusLine>{{"ERR_FILE_NOT_FOUND", 4, {missing}}}));
  EXPECT_TRUE(initialDataAnswers(env));
  EXPECT_EQ(NpTest::readText(file), initialData);  // not rewritten
}

// A reload that fails without reuse empties the standby tree; the next delta load must still
// publish the old records together with the delta, and write both to the main file.
TEST(CacheDeltaLoad, AfterAFailedReloadWithoutReusePublishesOldRecordsAndDelta) {
  TestEnvironment env;
  const std::string file = env.configureData(initialData);
  env.start();
  env.writeFile("np.txt", "030700001 20200101000000 NEW1\nbroken\n");
  ASSERT_FALSE(reload(env, false));
  const std::string delta = env.writeFile("delta.txt", "0891234 20220202020202 OPD\n");

  ASSERT_TRUE(deltaLoad(env, delta));

  auto expectOldPlusDelta = [&] {
    EXPECT_TRUE(initialDataAnswers(env));
    EXPECT_EQ(env.lookup("0049891234"), "OPD");
    EXPECT_EQ(env.lookup("004930700001"), std::nullopt);
  };
  expectOldPlusDelta();
  EXPECT_EQ(NpTest::readText(file), initialDump + "0049891234  20220202020202  OPD\n");
  {
    SCOPED_TRACE("the other tree");
    exchangeWithEmptyDelta(env);
    expectOldPlusDelta();
  }
}

TEST(CachePrintData, WritesBannerAndRecordsToAFileReplacingItsContent) {
  TestEnvironment env;
  env.configureData(initialData);
  env.start();
  const std::string out = env.writeFile("dump.txt", "old content that must go away\nand more\nand more\n");
  EXPECT_TRUE(env.plugIn->cacheManager()->printData(BAS::String(out)));
  EXPECT_EQ(NpTest::readText(out), NpTest::dumpBanner + initialDump);
}

TEST(CachePrintData, NullStringWritesToStandardOutput) {
  TestEnvironment env;
  env.configureData(initialData);
  env.start();
  testing::internal::CaptureStdout();
  const bool printed = env.plugIn->cacheManager()->printData(BAS::NULL_STRING);
  const std::string captured = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(printed);
  EXPECT_EQ(captured, NpTest::dumpBanner + initialDump);
}

TEST(CachePrintData, EmptyDataPrintsTheBannerOnly) {
  TestEnvironment env;
  env.configureData("");
  env.start();
  const std::string out = env.path("dump.txt");
  EXPECT_TRUE(env.plugIn->cacheManager()->printData(BAS::String(out)));
  EXPECT_EQ(NpTest::readText(out), NpTest::dumpBanner);
}

TEST(CacheSearch, NumbersAreSearchedOnlyInTheStoredForm) {
  TestEnvironment env;
  env.configureData(initialData);
  env.start();
  EXPECT_EQ(env.lookup("004930123456"), "OPB");
  // Characters other than digits are skipped, so separators do not matter ...
  EXPECT_EQ(env.lookup("0049-30-123456"), "OPB");
  EXPECT_EQ(env.lookup("0044 1234 567"), "OPC");
  // ... but no other form of the number is normalised at lookup.
  for (const char* otherForm : {"+4930123456", "030123456", "4930123456", "30123456", "+441234567"}) {
    EXPECT_EQ(env.lookup(otherForm), std::nullopt) << otherForm;
  }
}

}  // namespace
