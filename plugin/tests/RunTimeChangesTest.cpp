// Reload, delta load and print at run time, through both roads: a registry update carries the
// operation out inside the call, a probe write hands it to the background worker. What each
// reports and sends, which data answers afterwards, and how each road reads its values.
#include "plugin/tests/TestEnvironment.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
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

// A started plug-in on the old data, with the log emptied.
struct Started {
  explicit Started(bool withEventHandler = true) {
    if (withEventHandler) env.framework.setEventHandlerName(BAS::String("EventHandler"));
    env.start();
    env.sink->clear();
  }
  // The operators that answer for 004930111111, 004930222222 and 004930333333.
  std::string answers() {
    return env.lookup("004930111111") + " " + env.lookup("004930222222") + " " + env.lookup("004930333333");
  }
  TestEnvironment env;
  const std::string dataFile = env.configureData(oldData);
  BAS::ProtectedBool taken{false};
};

TEST(RunTimeChanges, EachRoadReportsSendsAndPublishesItsOutcome) {
  struct Row {
    const char* label;
    bool byProbe;
    Keys request;                     // the update's keys, or the probe and its value
    std::optional<std::string> data;  // the main data file before the request; nothing: removed
    const char* delta;                // the delta file; null: absent
    bool result;                      // of the update; a probe write always succeeds
    std::vector<Report> statuses;     // "<data>", "<delta>", "<out>" stand for the paths
    Strings events;
    std::string answers;
    std::optional<std::string> printed;  // "<out>" afterwards; nothing: not written
    bool usable = true;
    std::optional<std::string> dataAfter = std::nullopt;  // the main data file afterwards, if rewritten
    bool eventHandler = true;
  };
  const Report reloadAnnounced{"INF_RELOAD_DATA", 1, {"NumberPortability"}}, addAnnounced{"INF_ADD_DATA", 1, {"NumberPortability"}};
  const Report dataOpened{"INF_FILE_OPENED", 1, {"<data>"}}, deltaOpened{"INF_FILE_OPENED", 1, {"<delta>"}};
  const Report dataMissing{"ERR_FILE_NOT_FOUND", 4, {"<data>"}}, deltaMissing{"ERR_FILE_NOT_FOUND", 4, {"<delta>"}};
  const Report deltaClosed{"INF_FILE_CLOSED", 1, {"<delta>"}}, oldDeleted{"INF_DELETE_OLD_DATA", 1, {"NumberPortability"}};
  const Report badLine = NpTest::rejected("ERR_NUMBER_OF_FIELDS_IN_RECORD", "<data>", 2, {"2", "3", "030999999 20200101000000"});
  const auto duplicate = [](int line) {
    return NpTest::rejected("ERR_DUPLICATE_NUMPORTDATA", "<delta>", line, {"004930111111", "20200101000000"});
  };
  const std::string reloaded = "EVT::RELOAD_SUCCESSFUL -> EventHandler", reloadFailed = "EVT::RELOAD_FAILED -> EventHandler";
  const std::string added = "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL -> EventHandler";
  const char* const twoNewAndADuplicate = "030333333 20200101000000 D1\n030444444 20200101000000 D2\n030111111 20200101000000 DUP\n";
  const Row rows[] = {
      {"update: no command key does nothing", false, {{"ReuseOnFailure", "FALSE"}, {"FileName", "/nowhere"}}, newData, nullptr,
       true, {}, {}, "OLD - -", std::nullopt},
      {"update: reload, then print", false, {{"Reload", "now"}, {"PrintData", "<out>"}}, newData, nullptr, true,
       {reloadAnnounced, dataOpened, dataOpened, oldDeleted, {"INF_NUM_NPORT_RELOADED", 1, {"1"}}},
       {reloaded}, "- NEW -", NpTest::dumpBanner + newDump},
      {"update: failed reload without reuse skips the print", false,
       {{"Reload", ""}, {"ReuseOnFailure", "FaLsE"}, {"PrintData", "<out>"}}, newWithBadLastLine, nullptr, false,
       {reloadAnnounced, dataOpened, dataOpened, badLine}, {reloadFailed}, "OLD - -", std::nullopt, false},
      // With reuse the update goes on to the print step, which prints the data still in service.
      {"update: reload of a missing file with reuse", false,
       {{"Reload", ""}, {"ReuseOnFailure", "TRUE"}, {"PrintData", "<out>"}}, std::nullopt, nullptr, true,
       {reloadAnnounced, dataMissing}, {reloadFailed}, "OLD - -", NpTest::dumpBanner + oldDump},
      {"update: ReuseOnFailure other than TRUE or FALSE is refused", false, {{"Reload", ""}, {"ReuseOnFailure", " true"}},
       newData, nullptr, false, {{"ERR_INVALID_REG_VALUE", 5, {" TRUE", "ReuseOnFailure"}}}, {}, "OLD - -", std::nullopt},
      {"update: delta load, then print", false, {{"AdditionalNumPortData", "<delta>"}, {"PrintData", "<out>"}},
       oldData, "030333333 20200101000000 D1\n030444444 20200101000000 D2\n", true,
       {addAnnounced, deltaOpened, deltaOpened, deltaClosed, {"INF_NUM_NPORT_ADDED", 1, {"2"}}},
       {added}, "OLD - D1", NpTest::dumpBanner + oldDump + twoNewDump, true, oldDump + twoNewDump},
      {"update: delta load that adds nothing", false, {{"AdditionalNumPortData", "<delta>"}}, oldData,
       "030111111 20200101000000 DUP\n", true,
       {addAnnounced, deltaOpened, deltaOpened, duplicate(1), duplicate(1), deltaClosed, {"INF_NUM_NPORT_ADDED", 1, {"0"}}},
       {added}, "OLD - -", std::nullopt, true, oldDump},
      {"update: missing delta file skips the print", false,
       {{"AdditionalNumPortData", "<delta>"}, {"PrintData", "<out>"}}, oldData, nullptr, false,
       {addAnnounced, deltaMissing}, {"EVT::ADD_NUM_PORT_DATA_FAILED -> EventHandler"}, "OLD - -", std::nullopt},
      {"update: reload together with delta load is refused", false,
       {{"Reload", ""}, {"AdditionalNumPortData", "<delta>"}}, newData, "030333333 20200101000000 D\n", false,
       {{"ERR_INVALID_REG_ENTRIES", 5, {"Both 'Reload' and 'AdditionalNumPortData' can not be specified in update registry."}}},
       {}, "OLD - -", std::nullopt},
      // The worker announces nothing of its own, checks no file before the cache does, leaves a
      // delta file open and the usable flag as the reload's file check set it.
      {"probe: reload value false in any case turns reuse off", true, {{"reload", "FaLsE"}}, newWithBadLastLine, nullptr, true,
       {dataOpened, badLine, {"ERR_NUM_PORT_RELOAD", 4, {"<data>"}}}, {reloadFailed}, "OLD - -", std::nullopt},
      {"probe: reload with any other value reuses", true, {{"reload", "no"}}, newWithBadLastLine, nullptr, true,
       {dataOpened, badLine, badLine, oldDeleted, {"INF_NUM_NPORT_RELOADED", 1, {"1"}}}, {reloaded}, "- NEW -", std::nullopt},
      {"probe: reload of a missing file, no event handler", true, {{"reload", "TRUE"}}, std::nullopt, nullptr, true,
       {dataMissing, {"ERR_NUM_PORT_RELOAD", 4, {"<data>"}}}, {"EVT::RELOAD_FAILED -> nobody (lost)"}, "OLD - -",
       std::nullopt, false, std::nullopt, false},
      {"probe: delta load names the file with the count", true, {{"deltaLoad", "<delta>"}}, oldData,
       twoNewAndADuplicate, true, {deltaOpened, duplicate(3), duplicate(3), {"INF_NUM_NPORT_ADDED", 1, {"2 : <delta>"}}},
       {added}, "OLD - D1", std::nullopt, true, oldDump + twoNewDump},
      {"probe: delta load that adds nothing reports no count", true, {{"deltaLoad", "<delta>"}}, oldData,
       "030111111 20200101000000 DUP\n", true, {deltaOpened, duplicate(1), duplicate(1)}, {added}, "OLD - -",
       std::nullopt, true, oldDump},
      {"probe: missing delta file, no event handler", true, {{"deltaLoad", "<delta>"}}, oldData, nullptr, true,
       {deltaMissing, {"ERR_NUM_PORT_DELTALOAD", 4, {"<delta>"}}}, {"EVT::ADD_NUM_PORT_DATA_FAILED -> nobody (lost)"},
       "OLD - -", std::nullopt, true, std::nullopt, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    Started s(row.eventHandler);
    const std::string delta = s.env.dir.path("delta.txt"), out = s.env.dir.path("out.txt");
    auto expand = [&](std::string text) {
      for (const auto& [name, path] : {std::pair{"<data>", s.dataFile}, {"<delta>", delta}, {"<out>", out}}) {
        for (std::size_t at; (at = text.find(name)) != std::string::npos;) text.replace(at, std::strlen(name), path);
      }
      return text;
    };
    if (row.data) NpTest::writeText(s.dataFile, *row.data);
    else std::filesystem::remove(s.dataFile);
    if (row.delta) NpTest::writeText(delta, row.delta);
    Keys request;
    for (const auto& [key, value] : row.request) request.push_back({key, expand(value)});
    std::vector<Report> expected = row.statuses;
    for (Report& line : expected) {
      for (std::string& arg : line.args) arg = expand(arg);
    }
    if (row.byProbe) {
      s.env.post(request[0].first, request[0].second);
      // The worker's event, or its last status when it sends none, ends its cycle.
      ASSERT_TRUE(s.env.waitFor(row.events.empty() ? expected.back().id : row.events[0].substr(0, row.events[0].find(' '))));
    } else {
      EXPECT_EQ(s.env.update(request, s.taken), row.result);
      EXPECT_EQ(s.taken.get(), !expected.empty());
    }
    EXPECT_EQ(s.env.statuses(), expected);
    EXPECT_EQ(s.env.events(), row.events);
    EXPECT_EQ(s.answers(), row.answers);
    EXPECT_EQ(s.env.plugIn->isUsable(), row.usable);
    EXPECT_EQ(std::filesystem::exists(out) ? std::optional(NpTest::readText(out)) : std::nullopt, row.printed);
    EXPECT_EQ(NpTest::readText(s.dataFile), row.dataAfter.value_or(row.data.value_or("")));
  }
}

// The worker's road reads NULL in any case as standard output and reports the destination;
// the update's road takes NULL as a file name, an empty value as standard output, and reports
// nothing. A probe's empty value is no keyword: it is passed on as the null string.
TEST(RunTimeChanges, PrintDestinationsOfBothRoads) {
  struct Row {
    bool byProbe;
    std::string value;        // "<dir>" stands for the test's folder
    bool toStandardOutput;
    std::string destination;  // the worker's report, "<dir>" as above
  };
  const Row rows[] = {{true, "NULL", true, "Console"},        {true, "NuLl", true, "Console"},
                      {true, "<dir>/Dump.TXT", false, "File : <dir>/Dump.TXT"}, {true, "", true, "File : "},
                      {false, "<dir>/Print.Out", false, ""}, {false, "NULL", false, ""}, {false, "", true, ""}};
  for (const Row& row : rows) {
    SCOPED_TRACE((row.byProbe ? "probe \"" : "update \"") + row.value + "\"");
    Started s;
    const std::filesystem::path previous = std::filesystem::current_path();
    std::filesystem::current_path(s.env.dir.path());
    auto expand = [&](std::string text) {
      return text.find("<dir>") == std::string::npos ? text : text.replace(text.find("<dir>"), 5, s.env.dir.path().string());
    };
    const std::string value = expand(row.value);
    if (row.toStandardOutput) testing::internal::CaptureStdout();
    if (row.byProbe) {
      s.env.post("printData", value);
      EXPECT_TRUE(s.env.waitFor("INF_NUM_PORT_PRINT_DATA"));
    } else {
      EXPECT_TRUE(s.env.update({{"PrintData", value}}, s.taken));
      EXPECT_TRUE(s.taken.get());
    }
    const std::string captured = row.toStandardOutput ? testing::internal::GetCapturedStdout() : NpTest::readText(value);
    std::filesystem::current_path(previous);
    EXPECT_EQ(captured, NpTest::dumpBanner + oldDump);
    const std::vector<Report> reported = {{"INF_NUM_PORT_PRINT_DATA", 1, {"1", expand(row.destination)}}};
    EXPECT_EQ(s.env.statuses(), row.byProbe ? reported : std::vector<Report>{});
  }
}

// Posts while the worker is busy give one more cycle, with the last request only. The worker
// is held inside a print into a FIFO whose small buffer is not read until then.
TEST(RunTimeChanges, PostsWhileTheWorkerIsBusyGiveOneMoreCycleWithTheLastRequest) {
  TestEnvironment env;
  std::string records;
  for (int i = 0; i < 3000; ++i) records += "0301" + std::to_string(100000 + i) + " 20200101000000 OPX\n";
  env.configureData(records);
  env.start();
  const std::string fifo = env.dir.path("dump.fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const int readEnd = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(readEnd, 0);
  env.post("printData", fifo);
  pollfd readable{readEnd, POLLIN, 0};
  ASSERT_EQ(::poll(&readable, 1, static_cast<int>(NpTest::waitLimit.count() * 1000)), 1) << "the print did not start";
  env.post("deltaLoad", env.writeFile("deltaA.txt", "0308880001 20200101000000 DA\n"));
  env.post("deltaLoad", env.writeFile("deltaB.txt", "0308880002 20200101000000 DB\n"));
  ::fcntl(readEnd, F_SETFL, 0);
  char buffer[65536];
  std::size_t drained = 0;
  for (ssize_t n; (n = ::read(readEnd, buffer, sizeof buffer)) > 0;) drained += static_cast<std::size_t>(n);
  ::close(readEnd);
  EXPECT_EQ(drained, NpTest::dumpBanner.size() + 3000 * 35);
  ASSERT_TRUE(env.waitFor("EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"));
  // A further request, to be sure that no other cycle was still to come before it.
  env.post("printData", env.dir.path("sync.txt"));
  ASSERT_TRUE(env.waitFor("INF_NUM_PORT_PRINT_DATA", 2));
  EXPECT_EQ(env.argsOf("INF_NUM_NPORT_ADDED"), (std::vector<Strings>{{"1 : " + env.dir.path("deltaB.txt")}}));
  EXPECT_EQ(env.count("EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"), 1u);
  EXPECT_EQ(env.lookup("0049308880001") + env.lookup("0049308880002"), "-DB");
}

}  // namespace
