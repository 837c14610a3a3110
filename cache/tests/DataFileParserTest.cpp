// The data file parser as the initial load drives it: which lines become records, and how a
// rejected line is reported (identifier, severity, arguments in order, once per tree).
#include "plugin/tests/TestEnvironment.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using NpTest::StatusLine;
using NpTest::TestEnvironment;
using NpTest::WorkingDirectory;
using Args = std::vector<std::vector<std::string>>;

const std::vector<std::string> rejectionIds = {"ERR_NUMBER_OF_FIELDS_IN_RECORD", "ERR_INVALID_DATETIME",
                                               "ERR_DUPLICATE_NUMPORTDATA"};

TEST(DataFileParser, ReportsRejectedLinesWithTheirLocationAndArgumentsInOrder) {
  TestEnvironment env;
  // A relative file name, so that the location text holds exactly the name as configured.
  WorkingDirectory inTemp(env.dir.path());
  env.writeFile("np.txt",
                "030111111 20200101000000 OPA\n"                // 1
                "\n"                                            // 2  no field
                "   \n"                                         // 3  blanks only
                "  +4930222222   20200101000000   OPB  \n"      // 4  extra blanks: still three fields
                "030333333 20200101000000\n"                    // 5  two fields
                "030444444 20200101000000 OP X\n"               // 6  blank inside the operator
                "030555555 2020010100000 OPC\n"                 // 7  thirteen digits
                " 30666666  20201301000000  OPD\n"              // 8  month 13
                "004930111111 20200101000000 OPZ\n"             // 9  line 1 again, international form
                "030111111 20210101000000 OPE\n"                // 10 newer record of line 1's number
                "030700011 20200101000000 OPF\n"                // 11
                "030700012 20200101000000 OPG\n"                // 12
                "030700013 20200101000000 OPH\n"                // 13
                "030700014 20200101000000 OPI\n"                // 14
                "030700015 20200101000000 OPJ\n"                // 15
                "030700016 20200101000000 OPK\n"                // 16
                "bad\n"                                         // 17 one field
                "trailing-bad");                                // 18 no line end: never read
  env.configure("np.txt");
  env.make();
  env.sink->clear();
  ASSERT_TRUE(env.init());

  const StatusLine rejections[] = {
      {"ERR_NUMBER_OF_FIELDS_IN_RECORD", 2, {"0", "3", "", "At Line# 2 in File 'np.txt'. "}},
      {"ERR_NUMBER_OF_FIELDS_IN_RECORD", 2, {"0", "3", "   ", "At Line# 3 in File 'np.txt'. "}},
      {"ERR_NUMBER_OF_FIELDS_IN_RECORD", 2, {"2", "3", "030333333 20200101000000", "At Line# 5 in File 'np.txt'. "}},
      {"ERR_NUMBER_OF_FIELDS_IN_RECORD", 2, {"4", "3", "030444444 20200101000000 OP X", "At Line# 6 in File 'np.txt'. "}},
      {"ERR_INVALID_DATETIME", 2, {"Invalid N-Port Data at Line# 7 in File 'np.txt'. ", "2020010100000", "004930555555"}},
      {"ERR_INVALID_DATETIME", 2, {"Invalid N-Port Data at Line# 8 in File 'np.txt'. ", "20201301000000", "004930666666"}},
      {"ERR_DUPLICATE_NUMPORTDATA", 2, {"Invalid N-Port Data at Line# 9 in File 'np.txt'. ", "004930111111", "20200101000000"}},
      {"ERR_NUMBER_OF_FIELDS_IN_RECORD", 2, {"1", "3", "bad", "At Line# 17 in File 'np.txt'. "}},
  };
  // The whole start-up, in order. Every rejected line is offered to both trees, so it is
  // reported twice in a row with the same line number.
  std::vector<StatusLine> expected = {{"INF_LOAD_DATA", 1, {"NumberPortability"}}, {"INF_FILE_OPENED", 1, {"np.txt"}}};
  for (const StatusLine& line : rejections) expected.insert(expected.end(), {line, line});
  expected.insert(expected.end(), {{"INF_FILE_EOF", 1, {"np.txt"}}, {"INF_NUM_NPORT_LOADED", 1, {"9"}}});
  EXPECT_EQ(env.statuses(), expected);
  EXPECT_EQ(env.events(), std::vector<std::string>{});

  // What was accepted, and that a rejected or duplicate line changed nothing.
  EXPECT_EQ(env.lookup("004930111111", "20200601000000"), "OPA");  // the duplicate's OPZ did not win
  EXPECT_EQ(env.lookup("004930111111", "20210601000000"), "OPE");
  EXPECT_EQ(env.lookup("004930222222"), "OPB");
  EXPECT_EQ(env.lookup("004930700016"), "OPK");
  for (const char* rejected : {"004930333333", "004930444444", "004930555555", "004930666666"}) {
    EXPECT_EQ(env.lookup(rejected), std::nullopt) << rejected;
  }
}

// A last line without a line end is never read; an empty file ends at end of file at once.
TEST(DataFileParser, LastLineWithoutLineEndIsNeitherLoadedNorReported) {
  struct Row {
    const char* label;
    const char* content;
    const char* loaded;
  };
  const Row rows[] = {
      {"good last line", "030111111 20200101000000 OPA\n030222222 20200101000000 OPB", "1"},
      {"bad last line", "030111111 20200101000000 OPA\nnot a record", "1"},
      {"only line", "030222222 20200101000000 OPB", "0"},
      {"empty file", "", "0"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    TestEnvironment env;
    env.configureData(row.content);
    env.start();
    EXPECT_EQ(env.argsOf("INF_NUM_NPORT_LOADED"), (Args{{row.loaded}}));
    EXPECT_EQ(NpTest::statusLines(*env.sink, rejectionIds), std::vector<StatusLine>{});
    EXPECT_EQ(env.lookup("004930222222"), std::nullopt);
    EXPECT_EQ(env.count("INF_FILE_EOF"), 1u);
  }
}

// One number written in each form the file may use, its dates in no order: one history.
TEST(DataFileParser, RecordsOfOneNumberInAnyFormAndOrderAnswerByDate) {
  TestEnvironment env;
  env.configureData(
      "+4930123456 20200101000000 OPA\n"
      "004930123456 20230101000000 OPD\n"
      "30123456 20220101000000 OPC\n"
      "030123456 20210101000000 OPB\n");
  env.start();
  EXPECT_EQ(env.argsOf("INF_NUM_NPORT_LOADED"), (Args{{"4"}}));
  const std::pair<const char*, std::optional<std::string>> answers[] = {
      {"20191231235959", std::nullopt}, {"20200101000000", "OPA"}, {"20201231235959", "OPA"},
      {"20210601000000", "OPB"},        {"20220101000000", "OPC"}, {"20221231235959", "OPC"},
      {"20230601000000", "OPD"}};
  for (const auto& [date, op] : answers) EXPECT_EQ(env.lookup("004930123456", date), op) << date;
}

}  // namespace
