// Reload, delta load and print at run time, through both roads: a registry update carries the
// operation out inside the call, a probe write hands it to the background worker. What each
// reports and sends, which data answers afterwards, and how each road reads its values.
#include "plugin/tests/TestEnvironment.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <optional>

namespace {

using NpTest::Keys;
using NpTest::Report;
using NpTest::Strings;
using NpTest::TestEnvironment;

const char* const oldData = "030111111 20200101000000 OLD\n";
const std::string oldDump = "004930111111  20200101000000  OLD\n";
const char* const newData = "030222222 20200101000000 NEW\n";
const std::string newDump = "004930222222  20200101000000  NEW\n";
// A good record followed by a rejected last line: the reload only succeeds with reuse.
const std::string newWithBadLastLine = std::string(newData) + "030999999 20200101000000\n";
const std::string twoNewDump = "004930333333  20200101000000  D1\n004930444444  20200101000000  D2\n";

TEST(RunTimeChanges, EachRoadReportsSendsAndPublishesItsOutcome) {
  struct Row {
    const char* label;
    Keys request;                     // an update's keys, or (lower-case key) the probe and its value
    std::optional<std::string> data;  // the main data file before the request; nothing: removed
    const char* delta;                // the delta file; null: absent
    bool result;                      // of the update; a probe write always succeeds
    std::vector<Report> statuses;
    Strings events;
    std::string answers;
    std::optional<std::string> printed;  // into the file NULL or (when "-") to standard output; nothing: not printed
    bool usable = true;
    std::optional<std::string> dataAfter = std::nullopt;  // the main data file afterwards, if rewritten
    bool eventHandler = true;
  };
  const Report reloadAnnounced{"INF_RELOAD_DATA", 1, {"NumberPortability"}}, addAnnounced{"INF_ADD_DATA", 1, {"NumberPortability"}};
  const Report dataOpened{"INF_FILE_OPENED", 1, {"np.txt"}}, deltaOpened{"INF_FILE_OPENED", 1, {"delta.txt"}};
  const Report dataMissing{"ERR_FILE_NOT_FOUND", 4, {"np.txt"}}, deltaMissing{"ERR_FILE_NOT_FOUND", 4, {"delta.txt"}};
  const Report deltaClosed{"INF_FILE_CLOSED", 1, {"delta.txt"}}, oldDeleted{"INF_DELETE_OLD_DATA", 1, {"NumberPortability"}};
  const Report badLine = NpTest::rejected("ERR_NUMBER_OF_FIELDS_IN_RECORD", "np.txt", 2, {"2", "3", "030999999 20200101000000"});
  const auto duplicate = [](int line) {
    return NpTest::rejected("ERR_DUPLICATE_NUMPORTDATA", "delta.txt", line, {"004930111111", "20200101000000"});
  };
  const auto printed = [](const char* destination) { return Report{"INF_NUM_PORT_PRINT_DATA", 1, {"1", destination}}; };
  const std::string reloaded = "EVT::RELOAD_SUCCESSFUL -> EventHandler", reloadFailed = "EVT::RELOAD_FAILED -> EventHandler";
  const std::string added = "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL -> EventHandler", old = NpTest::dumpBanner + oldDump;
  const char* const twoNew = "030333333 20200101000000 D1\n030444444 20200101000000 D2\n";
  const char* const duplicateOnly = "030111111 20200101000000 DUP\n";
  const Row rows[] = {
      {"update: no command key", {{"ReuseOnFailure", "FALSE"}, {"FileName", "x"}}, newData, nullptr, true, {}, {}, "OLD - -", {}},
      // The update's road takes NULL for a file name.
      {"update: reload, then print", {{"Reload", "now"}, {"PrintData", "NULL"}}, newData, nullptr, true,
       {reloadAnnounced, dataOpened, dataOpened, oldDeleted, {"INF_NUM_NPORT_RELOADED", 1, {"1"}}},
       {reloaded}, "- NEW -", NpTest::dumpBanner + newDump},
      {"update: failed reload without reuse skips the print", {{"Reload", ""}, {"ReuseOnFailure", "FaLsE"}, {"PrintData", "NULL"}},
       newWithBadLastLine, nullptr, false, {reloadAnnounced, dataOpened, dataOpened, badLine}, {reloadFailed}, "OLD - -",
       std::nullopt, false},
      // With reuse the update goes on to the print step, which prints the data still in service.
      {"update: reload of a missing file with reuse", {{"Reload", ""}, {"ReuseOnFailure", "TRUE"}, {"PrintData", "NULL"}},
       std::nullopt, nullptr, true, {reloadAnnounced, dataMissing}, {reloadFailed}, "OLD - -", old},
      {"update: ReuseOnFailure other than TRUE or FALSE is refused", {{"Reload", ""}, {"ReuseOnFailure", " true"}}, newData,
       nullptr, false, {{"ERR_INVALID_REG_VALUE", 5, {" TRUE", "ReuseOnFailure"}}}, {}, "OLD - -", std::nullopt},
      {"update: delta load, then print", {{"AdditionalNumPortData", "delta.txt"}, {"PrintData", "NULL"}}, oldData, twoNew, true,
       {addAnnounced, deltaOpened, deltaOpened, deltaClosed, {"INF_NUM_NPORT_ADDED", 1, {"2"}}},
       {added}, "OLD - D1", old + twoNewDump, true, oldDump + twoNewDump},
      {"update: delta load that adds nothing", {{"AdditionalNumPortData", "delta.txt"}}, oldData, duplicateOnly, true,
       {addAnnounced, deltaOpened, deltaOpened, duplicate(1), duplicate(1), deltaClosed, {"INF_NUM_NPORT_ADDED", 1, {"0"}}},
       {added}, "OLD - -", std::nullopt, true, oldDump},
      {"update: missing delta file skips the print", {{"AdditionalNumPortData", "delta.txt"}, {"PrintData", "NULL"}}, oldData,
       nullptr, false, {addAnnounced, deltaMissing}, {"EVT::ADD_NUM_PORT_DATA_FAILED -> EventHandler"}, "OLD - -", std::nullopt},
      {"update: reload with delta load is refused", {{"Reload", ""}, {"AdditionalNumPortData", "delta.txt"}}, newData, twoNew, false,
       {{"ERR_INVALID_REG_ENTRIES", 5, {"Both 'Reload' and 'AdditionalNumPortData' can not be specified in update registry."}}},
       {}, "OLD - -", std::nullopt},
      {"update: empty print destination is standard output", {{"PrintData", ""}}, oldData, nullptr, true, {}, {}, "OLD - -", "-"},
      // The worker announces nothing of its own, checks no file before the cache does, leaves a
      // delta file open and the usable flag as the reload's file check set it.
      {"probe: reload value false in any case turns reuse off", {{"reload", "FaLsE"}}, newWithBadLastLine, nullptr, true,
       {dataOpened, badLine, {"ERR_NUM_PORT_RELOAD", 4, {"np.txt"}}}, {reloadFailed}, "OLD - -", std::nullopt},
      {"probe: reload with any other value reuses", {{"reload", "no"}}, newWithBadLastLine, nullptr, true,
       {dataOpened, badLine, badLine, oldDeleted, {"INF_NUM_NPORT_RELOADED", 1, {"1"}}}, {reloaded}, "- NEW -", std::nullopt},
      {"probe: reload of a missing file, no event handler", {{"reload", "TRUE"}}, std::nullopt, nullptr, true,
       {dataMissing, {"ERR_NUM_PORT_RELOAD", 4, {"np.txt"}}}, {"EVT::RELOAD_FAILED lost"}, "OLD - -",
       std::nullopt, false, std::nullopt, false},
      {"probe: delta load names the file with the count", {{"deltaLoad", "delta.txt"}}, oldData,
       "030333333 20200101000000 D1\n030444444 20200101000000 D2\n030111111 20200101000000 DUP\n", true,
       {deltaOpened, duplicate(3), duplicate(3), {"INF_NUM_NPORT_ADDED", 1, {"2 : delta.txt"}}}, {added}, "OLD - D1",
       std::nullopt, true, oldDump + twoNewDump},
      {"probe: delta load that adds nothing reports no count", {{"deltaLoad", "delta.txt"}}, oldData, duplicateOnly, true,
       {deltaOpened, duplicate(1), duplicate(1)}, {added}, "OLD - -", std::nullopt, true, oldDump},
      {"probe: missing delta file, no event handler", {{"deltaLoad", "delta.txt"}}, oldData, nullptr, true,
       {deltaMissing, {"ERR_NUM_PORT_DELTALOAD", 4, {"delta.txt"}}}, {"EVT::ADD_NUM_PORT_DATA_FAILED lost"},
       "OLD - -", std::nullopt, true, std::nullopt, false},
      {"probe: print to ./NULL", {{"printData", "./NULL"}}, oldData, nullptr, true, {printed("File : ./NULL")}, {}, "OLD - -", old},
      {"probe: NuLl is standard output", {{"printData", "NuLl"}}, oldData, nullptr, true, {printed("Console")}, {}, "OLD - -", "-"},
      // An empty value is no keyword: it is passed on as the null string, which is standard output.
      {"probe: empty destination", {{"printData", ""}}, oldData, nullptr, true, {printed("File : ")}, {}, "OLD - -", "-"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    TestEnvironment env;
    if (row.eventHandler) env.framework.setEventHandlerName(BAS::String("EventHandler"));
    env.configure(oldData);
    env.start();
    env.sink->clear();
    // Written only when it changes: a data file touched since the load is one that somebody
    // else replaced, which a delta load's rewrite must leave alone (see below).
    if (!row.data) std::filesystem::remove("np.txt");
    else if (NpTest::readText("np.txt") != *row.data) NpTest::writeText("np.txt", *row.data);
    if (row.delta) NpTest::writeText("delta.txt", row.delta);
    if (row.printed == "-") testing::internal::CaptureStdout();
    if (std::islower(static_cast<unsigned char>(row.request[0].first[0]))) {
      env.post(row.request[0].first, row.request[0].second);
      // The worker's event, or its last status when it sends none, ends its cycle.
      ASSERT_TRUE(env.waitFor(row.events.empty() ? row.statuses.back().id : row.events[0].substr(0, row.events[0].find(' '))));
    } else {
      BAS::ProtectedBool taken(false);
      EXPECT_EQ(env.update(row.request, taken), row.result);
      EXPECT_EQ(taken.get(), !row.statuses.empty() || row.printed.has_value());
    }
    const auto whatPrinted = row.printed == "-" ? std::optional(testing::internal::GetCapturedStdout())
                             : std::filesystem::exists("NULL") ? std::optional(NpTest::readText("NULL")) : std::nullopt;
    EXPECT_EQ(env.statuses(), row.statuses);
    EXPECT_EQ(env.events(), row.events);
    EXPECT_EQ(env.lookup("004930111111") + " " + env.lookup("004930222222") + " " + env.lookup("004930333333"), row.answers);
    EXPECT_EQ(env.plugIn->isUsable(), row.usable);
    EXPECT_EQ(whatPrinted, row.printed == "-" ? old : row.printed);
    EXPECT_EQ(NpTest::readText("np.txt"), row.dataAfter.value_or(row.data.value_or("")));
  }
}

// A data file that a feed replaced after the load is never lost to a delta load: the plug-in
// reports its own operation as ever, the framework refuses the rewrite and says
// so, and the delta records serve all the same.
TEST(RunTimeChanges, ADeltaLoadLeavesADataFileReplacedSinceTheLoadAsItIs) {
  TestEnvironment env;
  env.framework.setEventHandlerName(BAS::String("EventHandler"));
  env.configure(oldData);
  env.start();
  // Another file under the same name, as a feed drops a new snapshot in.
  const std::string snapshot = "030555555 20200101000000 FEED\n";
  NpTest::writeText("np.new", snapshot);
  std::filesystem::rename("np.new", "np.txt");
  NpTest::writeText("delta.txt", "030333333 20200101000000 D1\n");
  env.sink->clear();
  BAS::ProtectedBool taken(false);
  EXPECT_TRUE(env.update({{"AdditionalNumPortData", "delta.txt"}}, taken));
  const std::vector<Report> notWritten = env.statuses("ERR_FILE_NOT_WRITTEN");
  ASSERT_EQ(notWritten.size(), 1u);
  EXPECT_EQ(notWritten[0].args.front(), "np.txt");
  EXPECT_EQ(env.statuses("INF_NUM_NPORT_ADDED"), (std::vector<Report>{{"INF_NUM_NPORT_ADDED", 1, {"1"}}}));
  EXPECT_EQ(NpTest::readText("np.txt"), snapshot);
  EXPECT_EQ(env.lookup("004930111111") + " " + env.lookup("004930333333"), "OLD D1");
}

// Posts while the worker is busy give one more cycle, with the last request only. The worker
// is held inside a print into a FIFO whose buffer is not read until then.
TEST(RunTimeChanges, PostsWhileTheWorkerIsBusyGiveOneMoreCycleWithTheLastRequest) {
  TestEnvironment env;
  std::string records;
  for (int i = 0; i < 3000; ++i) records += "0301" + std::to_string(100000 + i) + " 20200101000000 OPX\n";
  env.configure(records);
  env.start();
  const std::string fifo = "dump.fifo", deltaB = "deltaB.txt";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const int readEnd = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  env.post("printData", fifo);
  pollfd readable{readEnd, POLLIN, 0};
  ASSERT_EQ(::poll(&readable, 1, 60'000), 1) << "the print did not start";
  env.post("deltaLoad", NpTest::writeText("deltaA.txt", "0308880001 20200101000000 DA\n"));
  env.post("deltaLoad", NpTest::writeText(deltaB, "0308880002 20200101000000 DB\n"));
  // Another reader, which the writer lets open at once, takes the whole dump.
  EXPECT_EQ(NpTest::readText(fifo).size(), NpTest::dumpBanner.size() + 3000 * 35);
  ::close(readEnd);
  ASSERT_TRUE(env.waitFor("EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"));
  // A further request, to be sure that no other cycle was still to come before it.
  env.post("printData", "sync.txt");
  ASSERT_TRUE(env.waitFor("INF_NUM_PORT_PRINT_DATA", 2));
  EXPECT_EQ(env.statuses("INF_NUM_NPORT_ADDED"), (std::vector<Report>{{"INF_NUM_NPORT_ADDED", 1, {"1 : " + deltaB}}}));
  EXPECT_EQ(env.events(), Strings{"EVT::ADD_NUM_PORT_DATA_SUCCESSFUL lost"});
  EXPECT_EQ(env.lookup("0049308880001") + env.lookup("0049308880002"), "-DB");
}

}  // namespace
