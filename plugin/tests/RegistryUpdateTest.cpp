// Run-time registry updates: reload, delta load and print carried out inside the call, with
// their announcements, refusals, results, the `taken` flag and the usable flag.
#include "plugin/tests/TestEnvironment.h"

#include "BAS/ProtectedBool.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

using DAT::NumberPortability::PlugIn;
using NpTest::StatusLine;
using NpTest::TestEnvironment;
using Keys = std::vector<std::pair<std::string, std::string>>;
using Ids = std::vector<std::string>;
using Args = std::vector<std::vector<std::string>>;

const char* const oldData = "030111111 20200101000000 OLD\n";
const std::string oldDump = "004930111111  20200101000000  OLD\n";
const char* const newData = "030222222 20200101000000 NEW\n";
const std::string newDump = "004930222222  20200101000000  NEW\n";

bool applyUpdate(TestEnvironment& env, const Keys& keys, BAS::ProtectedBool& taken) {
  BAS::RegistryEntry update(BAS::String("NumberPortability"));
  for (const auto& [key, value] : keys) update.add(BAS::String(key), BAS::String(value));
  return env.plugIn->registryUpdate(&update, taken);
}

// A started plug-in on the old data, with the log emptied.
class RegistryUpdate : public testing::Test {
protected:
  void SetUp() override {
    env.framework.setEventHandlerName(BAS::String("EventHandler"));
    dataFile = env.configureData(oldData);
    env.start();
    env.sink->clear();
  }
  bool update(const Keys& keys) { return applyUpdate(env, keys, taken); }
  bool oldDataAnswers() { return env.lookup("004930111111") == "OLD" && !env.lookup("004930222222"); }
  bool newDataAnswers() { return env.lookup("004930222222") == "NEW" && !env.lookup("004930111111"); }

  TestEnvironment env;
  std::string dataFile;
  BAS::ProtectedBool taken{false};
};

TEST_F(RegistryUpdate, WithoutCommandKeysDoesNothing) {
  const Keys rows[] = {
      {},
      {{"ReuseOnFailure", "FALSE"}},
      {{"FileName", "/nowhere"}, {"SearchMethod", "abc"}, {"DeltaFileName", "/nowhere"}},
  };
  for (const Keys& keys : rows) {
    for (const bool takenBefore : {false, true}) {
      SCOPED_TRACE(std::to_string(keys.size()) + " keys, taken " + (takenBefore ? "set" : "clear"));
      taken = takenBefore;
      env.writeFile("np.txt", newData);
      EXPECT_TRUE(update(keys));
      EXPECT_EQ(taken.get(), takenBefore);
      EXPECT_EQ(env.ids(), Ids{});
      EXPECT_TRUE(oldDataAnswers());
    }
  }
}

TEST_F(RegistryUpdate, ReloadWithAnyValueReloads) {
  for (const char* value : {"", "now", "FALSE"}) {
    SCOPED_TRACE(std::string("Reload \"") + value + "\"");
    env.writeFile("np.txt", newData);
    env.sink->clear();
    taken = false;
    EXPECT_TRUE(update({{"Reload", value}}));
    EXPECT_TRUE(taken.get());
    EXPECT_EQ(env.ids(), (Ids{"INF_RELOAD_DATA", "INF_FILE_OPENED", "INF_FILE_OPENED", "INF_DELETE_OLD_DATA",
                              "INF_NUM_NPORT_RELOADED", "EVT::RELOAD_SUCCESSFUL"}));
    EXPECT_EQ(NpTest::statusLines(*env.sink, {"INF_RELOAD_DATA", "INF_NUM_NPORT_RELOADED"}),
              (std::vector<StatusLine>{{"INF_RELOAD_DATA", 1, {"NumberPortability"}},
                                       {"INF_NUM_NPORT_RELOADED", 1, {"1"}}}));
    EXPECT_TRUE(newDataAnswers());
    EXPECT_TRUE(env.plugIn->isUsable());
    // Next round reloads the old data again.
    env.writeFile("np.txt", oldData);
    ASSERT_TRUE(update({{"Reload", ""}}));
    ASSERT_TRUE(oldDataAnswers());
  }
}

TEST_F(RegistryUpdate, ReloadTogetherWithDeltaLoadIsRefused) {
  const std::string delta = env.writeFile("delta.txt", "030333333 20200101000000 D\n");
  const std::string out = env.path("print.txt");
  env.writeFile("np.txt", newData);
  EXPECT_FALSE(update({{"Reload", ""}, {"AdditionalNumPortData", delta}, {"PrintData", out}}));
  EXPECT_TRUE(taken.get());
  EXPECT_EQ(NpTest::statusLines(*env.sink, {"ERR_INVALID_REG_ENTRIES"}),
            (std::vector<StatusLine>{
                {"ERR_INVALID_REG_ENTRIES",
                 5,
                 {"Both 'Reload' and 'AdditionalNumPortData' can not be specified in update registry."}}}));
  EXPECT_EQ(env.ids(), (Ids{"ERR_INVALID_REG_ENTRIES"}));
  EXPECT_TRUE(oldDataAnswers());
  EXPECT_EQ(env.lookup("004930333333"), std::nullopt);
  EXPECT_FALSE(NpTest::fileExists(out));
}

TEST_F(RegistryUpdate, ReuseOnFailureAcceptsTrueOrFalseInAnyCaseOnly) {
  struct Row {
    const char* value;
    bool accepted;
    const char* shown;  // the value in the refusal
  };
  const Row rows[] = {
      {"true", true, nullptr},     {"TRUE", true, nullptr},      {"FaLsE", true, nullptr},
      {"false", true, nullptr},    {"", false, ""},              {" TRUE", false, " TRUE"},
      {"true ", false, "TRUE "},   {"yes", false, "YES"},        {"1", false, "1"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string("ReuseOnFailure \"") + row.value + "\"");
    env.writeFile("np.txt", newData);
    env.sink->clear();
    taken = false;
    const bool result = update({{"Reload", ""}, {"ReuseOnFailure", row.value}});
    EXPECT_TRUE(taken.get());
    if (row.accepted) {
      EXPECT_TRUE(result);
      EXPECT_EQ(env.count("INF_RELOAD_DATA"), 1u);
      EXPECT_EQ(env.count("EVT::RELOAD_SUCCESSFUL"), 1u);
      EXPECT_TRUE(newDataAnswers());
      env.writeFile("np.txt", oldData);
      ASSERT_TRUE(update({{"Reload", ""}}));
    } else {
      EXPECT_FALSE(result);
      EXPECT_EQ(NpTest::statusLines(*env.sink, {"ERR_INVALID_REG_VALUE"}),
                (std::vector<StatusLine>{{"ERR_INVALID_REG_VALUE", 5, {row.shown, "ReuseOnFailure"}}}));
      EXPECT_EQ(env.ids(), (Ids{"ERR_INVALID_REG_VALUE"}));
      EXPECT_TRUE(oldDataAnswers());
    }
  }
}

TEST_F(RegistryUpdate, FailedReloadWithoutReuseMakesThePlugInUnusableUntilAGoodReload) {
  const std::string out = env.path("print.txt");
  env.writeFile("np.txt", std::string(newData) + "030999999 20200101000000\n");
  EXPECT_FALSE(update({{"Reload", ""}, {"ReuseOnFailure", "FALSE"}, {"PrintData", out}}));
  EXPECT_TRUE(taken.get());
  EXPECT_EQ(env.ids(), (Ids{"INF_RELOAD_DATA", "INF_FILE_OPENED", "INF_FILE_OPENED", "ERR_NUMBER_OF_FIELDS_IN_RECORD",
                            "EVT::RELOAD_FAILED"}));
  EXPECT_FALSE(env.plugIn->isUsable());
  EXPECT_FALSE(NpTest::fileExists(out));  // the print step was skipped
  EXPECT_TRUE(oldDataAnswers());
  for (const BAS::LogRecord& event : env.records("EVT::RELOAD_FAILED")) {
    EXPECT_EQ(event.sender, BAS::String("NumberPortability"));
    EXPECT_EQ(event.receiver, BAS::String("EventHandler"));
    EXPECT_TRUE(event.delivered);
  }

  env.writeFile("np.txt", newData);
  EXPECT_TRUE(update({{"Reload", ""}, {"ReuseOnFailure", "false"}}));
  EXPECT_TRUE(env.plugIn->isUsable());
  EXPECT_TRUE(newDataAnswers());
}

TEST_F(RegistryUpdate, ReloadOfAMissingFileSetsUsableToTheReuseFlag) {
  struct Row {
    const char* reuse;
    bool result;
  };
  for (const Row& row : {Row{"FALSE", false}, Row{"TRUE", true}}) {
    SCOPED_TRACE(std::string("ReuseOnFailure ") + row.reuse);
    std::filesystem::remove(dataFile);
    const std::string out = env.path("print.txt");
    std::filesystem::remove(out);
    env.sink->clear();
    EXPECT_EQ(update({{"Reload", ""}, {"ReuseOnFailure", row.reuse}, {"PrintData", out}}), row.result);
    EXPECT_EQ(env.ids(), (Ids{"INF_RELOAD_DATA", "ERR_FILE_NOT_FOUND", "EVT::RELOAD_FAILED"}));
    EXPECT_EQ(env.argsOf("ERR_FILE_NOT_FOUND"), (Args{{dataFile}}));
    EXPECT_EQ(env.plugIn->isUsable(), row.result);
    EXPECT_TRUE(oldDataAnswers());
    // With reuse the update goes on to the print step, which prints the data still in service.
    if (row.result) {
      EXPECT_EQ(NpTest::readText(out), NpTest::dumpBanner + oldDump);
    } else {
      EXPECT_FALSE(NpTest::fileExists(out));
    }
  }
}

// Each row on a plug-in of its own, so that every delta starts from the same data.
TEST(RegistryUpdateDeltaLoad, ReportsTheRecordsAddedEvenWhenNone) {
  struct Row {
    const char* label;
    const char* content;  // null: the delta file does not exist
    Ids ids;
    Args added;
  };
  const Row rows[] = {
      {"duplicates only",
       "030111111 20200101000000 DUP\n",
       {"INF_ADD_DATA", "INF_FILE_OPENED", "INF_FILE_OPENED", "ERR_DUPLICATE_NUMPORTDATA", "ERR_DUPLICATE_NUMPORTDATA",
        "INF_FILE_CLOSED", "INF_NUM_NPORT_ADDED", "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"},
       {{"0"}}},
      {"two new records",
       "030333333 20200101000000 D1\n030444444 20200101000000 D2\n",
       {"INF_ADD_DATA", "INF_FILE_OPENED", "INF_FILE_OPENED", "INF_FILE_CLOSED", "INF_NUM_NPORT_ADDED",
        "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"},
       {{"2"}}},
      {"missing file", nullptr, {"INF_ADD_DATA", "ERR_FILE_NOT_FOUND", "EVT::ADD_NUM_PORT_DATA_FAILED"}, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    TestEnvironment local;
    local.framework.setEventHandlerName(BAS::String("EventHandler"));
    local.configureData(oldData);
    local.start();
    const std::string delta = row.content ? local.writeFile("delta.txt", row.content) : local.path("delta.txt");
    local.sink->clear();
    BAS::ProtectedBool localTaken;
    EXPECT_EQ(applyUpdate(local, {{"AdditionalNumPortData", delta}}, localTaken), row.content != nullptr);
    EXPECT_TRUE(localTaken.get());
    EXPECT_EQ(local.ids(), row.ids);
    EXPECT_EQ(local.argsOf("INF_ADD_DATA"), (Args{{"NumberPortability"}}));
    EXPECT_EQ(local.argsOf("INF_NUM_NPORT_ADDED"), row.added);
    if (row.content) {
      EXPECT_EQ(local.argsOf("INF_FILE_OPENED"), (Args{{delta}, {delta}}));
      EXPECT_EQ(local.argsOf("INF_FILE_CLOSED"), (Args{{delta}}));
    } else {
      EXPECT_EQ(local.argsOf("ERR_FILE_NOT_FOUND"), (Args{{delta}}));
    }
    for (const BAS::LogRecord& record : local.sink->records()) {
      if (record.kind != BAS::LogRecord::Kind::EVENT) continue;
      EXPECT_EQ(record.receiver, BAS::String("EventHandler"));
      EXPECT_TRUE(record.delivered);
    }
    EXPECT_EQ(local.lookup("004930111111"), "OLD");
  }
}

TEST_F(RegistryUpdate, ReloadThenPrintPrintsTheReloadedData) {
  env.writeFile("np.txt", newData);
  const std::string out = env.path("print.txt");
  EXPECT_TRUE(update({{"Reload", ""}, {"PrintData", out}}));
  EXPECT_TRUE(taken.get());
  EXPECT_EQ(NpTest::readText(out), NpTest::dumpBanner + newDump);
  // Printing reports nothing of its own.
  ASSERT_FALSE(env.ids().empty());
  EXPECT_EQ(env.ids().back(), "EVT::RELOAD_SUCCESSFUL");
}

TEST_F(RegistryUpdate, DeltaLoadThenPrintPrintsOnlyAfterASuccessfulDeltaLoad) {
  const std::string out = env.path("print.txt");
  EXPECT_FALSE(update({{"AdditionalNumPortData", env.path("missing.txt")}, {"PrintData", out}}));
  EXPECT_FALSE(NpTest::fileExists(out));

  const std::string delta = env.writeFile("delta.txt", "030333333 20200101000000 D1\n");
  EXPECT_TRUE(update({{"AdditionalNumPortData", delta}, {"PrintData", out}}));
  EXPECT_EQ(NpTest::readText(out), NpTest::dumpBanner + oldDump + "004930333333  20200101000000  D1\n");
  EXPECT_EQ(NpTest::readText(dataFile), oldDump + "004930333333  20200101000000  D1\n");
}

TEST_F(RegistryUpdate, PrintDataUsesTheValueUnchangedAsDestination) {
  {
    SCOPED_TRACE("a file name");
    const std::string out = env.path("Print.Out");
    EXPECT_TRUE(update({{"PrintData", out}}));
    EXPECT_TRUE(taken.get());
    EXPECT_EQ(NpTest::readText(out), NpTest::dumpBanner + oldDump);
  }
  {
    SCOPED_TRACE("NULL is a file name here");
    NpTest::WorkingDirectory inTemp(env.dir.path());
    EXPECT_TRUE(update({{"PrintData", "NULL"}}));
    EXPECT_EQ(NpTest::readText(env.path("NULL")), NpTest::dumpBanner + oldDump);
  }
  {
    SCOPED_TRACE("empty: the null string, standard output");
    testing::internal::CaptureStdout();
    const bool result = update({{"PrintData", ""}});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), NpTest::dumpBanner + oldDump);
    EXPECT_TRUE(result);
  }
  EXPECT_EQ(env.ids(), Ids{});
}

}  // namespace
