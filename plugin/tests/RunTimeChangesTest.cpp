// Reload, delta load and print at run time, through both roads: a registry update carries the
// operation out inside the call, a probe write hands it to the background worker. What each
// reports and sends, which data answers afterwards, and how each road reads its values.
#include "plugin/tests/TestEnvironment.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using NpTest::Keys;
using NpTest::StatusLine;
using NpTest::TestEnvironment;
using Ids = std::vector<std::string>;
using Args = std::vector<std::vector<std::string>>;

const char* const oldData = "030111111 20200101000000 OLD\n";
const std::string oldDump = "004930111111  20200101000000  OLD\n";
const char* const newData = "030222222 20200101000000 NEW\n";
const std::string newDump = "004930222222  20200101000000  NEW\n";
// A good record followed by a rejected last line: the reload only succeeds with reuse.
const std::string newDataWithBadLastLine = std::string(newData) + "030999999 20200101000000\n";
const char* const twoNewAndADuplicate =
    "030333333 20200101000000 D1\n030444444 20200101000000 D2\n030111111 20200101000000 DUP\n";
const std::string twoNewDump = "004930333333  20200101000000  D1\n004930444444  20200101000000  D2\n";

// The operators that answer for 004930111111, 004930222222 and 004930333333, "-" for none.
std::string answers(TestEnvironment& env) {
  std::string text;
  for (const char* number : {"004930111111", "004930222222", "004930333333"}) {
    text += (text.empty() ? "" : " ") + env.lookup(number).value_or("-");
  }
  return text;
}

// A started plug-in on the old data, with the log emptied.
struct Started {
  explicit Started(bool withEventHandler = true) {
    if (withEventHandler) env.framework.setEventHandlerName(BAS::String("EventHandler"));
    dataFile = env.configureData(oldData);
    env.start();
    env.sink->clear();
  }
  bool update(const Keys& keys) { return env.update(keys, taken); }
  TestEnvironment env;
  std::string dataFile;
  BAS::ProtectedBool taken{false};
};

TEST(RunTimeChanges, EachRoadReportsSendsAndPublishesItsOutcome) {
  struct Row {
    const char* label;
    bool byProbe;
    Keys request;  // the update's keys, or the probe and its value; "<delta>", "<out>" stand for the paths
    std::optional<std::string> data;   // the main data file before the request; nothing: removed
    const char* delta;                 // the delta file; null: absent
    bool result;                       // of the update; a probe write always succeeds
    std::vector<StatusLine> statuses;  // everything reported; "<data>", "<delta>", "<out>" as above
    Ids events;
    std::string answers;
    std::optional<std::string> printed;  // "<out>" afterwards; nothing: not written
    bool usable = true;
    std::optional<std::string> dataAfter = std::nullopt;  // the main data file afterwards, if rewritten
    bool eventHandler = true;
  };
  const StatusLine reloadAnnounced{"INF_RELOAD_DATA", 1, {"NumberPortability"}};
  const StatusLine addAnnounced{"INF_ADD_DATA", 1, {"NumberPortability"}};
  const StatusLine dataOpened{"INF_FILE_OPENED", 1, {"<data>"}}, deltaOpened{"INF_FILE_OPENED", 1, {"<delta>"}};
  const StatusLine dataMissing{"ERR_FILE_NOT_FOUND", 4, {"<data>"}}, deltaMissing{"ERR_FILE_NOT_FOUND", 4, {"<delta>"}};
  const StatusLine deltaClosed{"INF_FILE_CLOSED", 1, {"<delta>"}}, oldDeleted{"INF_DELETE_OLD_DATA", 1, {"NumberPortability"}};
  const StatusLine badLine = {"ERR_NUMBER_OF_FIELDS_IN_RECORD", 2,
                              {"2", "3", "030999999 20200101000000", "At Line# 2 in File '<data>'. "}};
  const auto duplicate = [](int line) {
    return StatusLine{"ERR_DUPLICATE_NUMPORTDATA", 2,
                      {"Invalid N-Port Data at Line# " + std::to_string(line) + " in File '<delta>'. ", "004930111111",
                       "20200101000000"}};
  };
  const std::string reloaded = "EVT::RELOAD_SUCCESSFUL -> EventHandler", reloadFailed = "EVT::RELOAD_FAILED -> EventHandler";
  const std::string added = "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL -> EventHandler";
  const Row rows[] = {
      {"update: reload, then print", false, {{"Reload", "now"}, {"PrintData", "<out>"}}, newData, nullptr, true,
       {reloadAnnounced, dataOpened, dataOpened, oldDeleted, {"INF_NUM_NPORT_RELOADED", 1, {"1"}}},
       {reloaded}, "- NEW -", NpTest::dumpBanner + newDump},
      {"update: failed reload without reuse skips the print", false,
       {{"Reload", ""}, {"ReuseOnFailure", "FALSE"}, {"PrintData", "<out>"}}, newDataWithBadLastLine, nullptr, false,
       {reloadAnnounced, dataOpened, dataOpened, badLine}, {reloadFailed}, "OLD - -", std::nullopt, false},
      {"update: reload of a missing file without reuse", false,
       {{"Reload", ""}, {"ReuseOnFailure", "FALSE"}, {"PrintData", "<out>"}}, std::nullopt, nullptr, false,
       {reloadAnnounced, dataMissing}, {reloadFailed}, "OLD - -", std::nullopt, false},
      // With reuse the update goes on to the print step, which prints the data still in service.
      {"update: reload of a missing file with reuse", false,
       {{"Reload", ""}, {"ReuseOnFailure", "TRUE"}, {"PrintData", "<out>"}}, std::nullopt, nullptr, true,
       {reloadAnnounced, dataMissing}, {reloadFailed}, "OLD - -", NpTest::dumpBanner + oldDump},
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
       {{"Reload", ""}, {"AdditionalNumPortData", "<delta>"}, {"PrintData", "<out>"}}, newData, "030333333 20200101000000 D\n",
       false,
       {{"ERR_INVALID_REG_ENTRIES", 5, {"Both 'Reload' and 'AdditionalNumPortData' can not be specified in update registry."}}},
       {}, "OLD - -", std::nullopt},
      // The worker announces nothing of its own, checks no file before the cache does, leaves a
      // delta file open and the usable flag as the reload's file check set it.
      {"probe: failed reload without reuse", true, {{"reload", "false"}}, newDataWithBadLastLine, nullptr, true,
       {dataOpened, badLine, {"ERR_NUM_PORT_RELOAD", 4, {"<data>"}}}, {reloadFailed}, "OLD - -", std::nullopt},
      {"probe: reload with reuse", true, {{"reload", "TRUE"}}, newDataWithBadLastLine, nullptr, true,
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
      {"probe: print sends no event", true, {{"printData", "<out>"}}, oldData, nullptr, true,
       {{"INF_NUM_PORT_PRINT_DATA", 1, {"1", "File : <out>"}}}, {}, "OLD - -", NpTest::dumpBanner + oldDump},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    Started s(row.eventHandler);
    const std::string delta = s.env.path("delta.txt");
    const std::string out = s.env.path("out.txt");
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
    std::vector<StatusLine> expected = row.statuses;
    for (StatusLine& line : expected) {
      for (std::string& arg : line.args) arg = expand(arg);
    }

    if (row.byProbe) {
      s.env.post(request[0].first, request[0].second);
      // The worker sends the event, if any, after its last status.
      ASSERT_TRUE(row.events.empty() ? s.env.waitFor(expected.back().id)
                                     : NpTest::waitUntil([&] { return s.env.events().size() >= row.events.size(); }));
    } else {
      EXPECT_EQ(s.update(request), row.result);
      EXPECT_TRUE(s.taken.get());
    }
    EXPECT_EQ(s.env.statuses(), expected);
    EXPECT_EQ(s.env.events(), row.events);
    EXPECT_EQ(answers(s.env), row.answers);
    EXPECT_EQ(s.env.plugIn->isUsable(), row.usable);
    EXPECT_EQ(NpTest::fileExists(out) ? std::optional(NpTest::readText(out)) : std::nullopt, row.printed);
    EXPECT_EQ(NpTest::readText(s.dataFile), row.dataAfter.value_or(row.data.value_or("")));
  }
}

TEST(RunTimeChanges, UpdateWithoutCommandKeysDoesNothing) {
  Started s;
  for (const Keys& keys : {Keys{}, Keys{{"ReuseOnFailure", "FALSE"}},
                           Keys{{"FileName", "/nowhere"}, {"SearchMethod", "abc"}, {"DeltaFileName", "/nowhere"}}}) {
    for (const bool takenBefore : {false, true}) {
      SCOPED_TRACE(std::to_string(keys.size()) + " keys, taken " + (takenBefore ? "set" : "clear"));
      s.taken = takenBefore;
      s.env.writeFile("np.txt", newData);
      EXPECT_TRUE(s.update(keys));
      EXPECT_EQ(s.taken.get(), takenBefore);
      EXPECT_EQ(s.env.ids(), Ids{});
      EXPECT_EQ(answers(s.env), "OLD - -");
    }
  }
}

// Any Reload value reloads; ReuseOnFailure is TRUE or FALSE in any case, nothing else.
TEST(RunTimeChanges, UpdateReadsReuseOnFailureStrictly) {
  struct Row {
    const char* reload;
    const char* reuse;
    const char* shown;  // the value in the refusal; null: accepted
  };
  const Row rows[] = {{"", "true", nullptr},   {"now", "TRUE", nullptr},  {"FALSE", "FaLsE", nullptr},
                      {"", "false", nullptr},  {"", "", ""},              {"", " TRUE", " TRUE"},
                      {"", "true ", "TRUE "},  {"", "yes", "YES"},        {"", "1", "1"}};
  Started s;
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string("Reload \"") + row.reload + "\" ReuseOnFailure \"" + row.reuse + "\"");
    s.env.writeFile("np.txt", newData);
    s.env.sink->clear();
    EXPECT_EQ(s.update({{"Reload", row.reload}, {"ReuseOnFailure", row.reuse}}), row.shown == nullptr);
    if (row.shown == nullptr) {
      EXPECT_EQ(s.env.events(), Ids{"EVT::RELOAD_SUCCESSFUL -> EventHandler"});
      EXPECT_EQ(answers(s.env), "- NEW -");
      s.env.writeFile("np.txt", oldData);
      ASSERT_TRUE(s.update({{"Reload", ""}}));
    } else {
      EXPECT_EQ(s.env.statuses(), (std::vector<StatusLine>{{"ERR_INVALID_REG_VALUE", 5, {row.shown, "ReuseOnFailure"}}}));
      EXPECT_EQ(s.env.ids().size(), 1u);
      EXPECT_EQ(answers(s.env), "OLD - -");
    }
  }
}

TEST(RunTimeChanges, FailedReloadWithoutReuseLeavesThePlugInUnusableUntilAGoodOne) {
  Started s;
  s.env.writeFile("np.txt", newDataWithBadLastLine);
  EXPECT_FALSE(s.update({{"Reload", ""}, {"ReuseOnFailure", "FALSE"}}));
  EXPECT_FALSE(s.env.plugIn->isUsable());
  s.env.writeFile("np.txt", newData);
  EXPECT_TRUE(s.update({{"Reload", ""}, {"ReuseOnFailure", "false"}}));
  EXPECT_TRUE(s.env.plugIn->isUsable());
  EXPECT_EQ(answers(s.env), "- NEW -");
}

// The worker's reload: the word false in any case turns reuse off, anything else leaves it on.
TEST(RunTimeChanges, ProbeReloadValueFalseInAnyCaseTurnsReuseOff) {
  for (const char* value : {"false", "FALSE", "FaLsE", "true", "TRUE", "yes", "1", "", " FALSE"}) {
    SCOPED_TRACE(std::string("reload value \"") + value + "\"");
    const bool reuse = std::string(value) != "false" && std::string(value) != "FALSE" && std::string(value) != "FaLsE";
    Started s;
    s.env.writeFile("np.txt", newDataWithBadLastLine);
    s.env.post("reload", value);
    ASSERT_TRUE(NpTest::waitUntil([&] { return !s.env.events().empty(); }));
    EXPECT_EQ(s.env.events(), Ids{reuse ? "EVT::RELOAD_SUCCESSFUL -> EventHandler" : "EVT::RELOAD_FAILED -> EventHandler"});
    EXPECT_EQ(answers(s.env), reuse ? "- NEW -" : "OLD - -");
  }
}

TEST(RunTimeChanges, PrintDestinationsOfBothRoads) {
  struct Row {
    const char* label;
    bool byProbe;
    std::string value;        // "<dir>" stands for the test's folder
    bool toStandardOutput;
    std::string destination;  // the worker's report, "<dir>" as above
  };
  const Row rows[] = {
      {"probe NULL", true, "NULL", true, "Console"},
      {"probe null", true, "null", true, "Console"},
      {"probe NuLl", true, "NuLl", true, "Console"},
      {"probe file name keeps its case", true, "<dir>/Dump.TXT", false, "File : <dir>/Dump.TXT"},
      // Empty is no keyword: it is passed on as the destination, which is the null string.
      {"probe empty value", true, "", true, "File : "},
      {"update file name", false, "<dir>/Print.Out", false, ""},
      {"update NULL is a file name", false, "NULL", false, ""},
      {"update empty value", false, "", true, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    Started s;
    NpTest::WorkingDirectory inTemp(s.env.dir.path());
    auto expand = [&](std::string text) {
      const std::size_t at = text.find("<dir>");
      if (at != std::string::npos) text.replace(at, 5, s.env.dir.path().string());
      return text;
    };
    const std::string value = expand(row.value);
    if (row.toStandardOutput) testing::internal::CaptureStdout();
    if (row.byProbe) {
      s.env.post("printData", value);
      EXPECT_TRUE(s.env.waitFor("INF_NUM_PORT_PRINT_DATA"));
    } else {
      EXPECT_TRUE(s.update({{"PrintData", value}}));
      EXPECT_TRUE(s.taken.get());
    }
    const std::string captured = row.toStandardOutput ? testing::internal::GetCapturedStdout() : std::string();
    EXPECT_EQ(row.toStandardOutput ? captured : NpTest::readText(value), NpTest::dumpBanner + oldDump);
    const std::vector<StatusLine> reported = {{"INF_NUM_PORT_PRINT_DATA", 1, {"1", expand(row.destination)}}};
    EXPECT_EQ(s.env.statuses(), row.byProbe ? reported : std::vector<StatusLine>{});
    EXPECT_EQ(s.env.events(), Ids{});
  }
}

// Keeps the worker inside a print to standard output while `whileBusy` runs: standard output
// becomes a small pipe that is not read until then, and the dump is larger than the pipe.
// Data in the pipe shows that the worker has taken up the print request.
void whileWorkerIsBusyPrinting(TestEnvironment& env, const std::function<void()>& whileBusy) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ::fcntl(ends[1], F_SETPIPE_SZ, 4096);
  std::cout.flush();
  std::fflush(stdout);
  const int savedOut = ::dup(STDOUT_FILENO);
  ::dup2(ends[1], STDOUT_FILENO);
  ::close(ends[1]);

  const std::size_t printsBefore = env.count("INF_NUM_PORT_PRINT_DATA");
  env.post("printData", "NULL");
  pollfd readable{ends[0], POLLIN, 0};
  const bool busy = ::poll(&readable, 1, static_cast<int>(NpTest::waitLimit.count())) == 1;
  if (busy) whileBusy();

  ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
  std::size_t drained = 0;
  char buffer[65536];
  const auto deadline = std::chrono::steady_clock::now() + NpTest::waitLimit;
  while (std::chrono::steady_clock::now() < deadline) {
    const ssize_t n = ::read(ends[0], buffer, sizeof buffer);
    if (n > 0) {
      drained += static_cast<std::size_t>(n);
      continue;
    }
    if (env.count("INF_NUM_PORT_PRINT_DATA") > printsBefore) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::fflush(stdout);
  ::dup2(savedOut, STDOUT_FILENO);
  ::close(savedOut);
  for (ssize_t n; (n = ::read(ends[0], buffer, sizeof buffer)) > 0;) drained += static_cast<std::size_t>(n);
  ::close(ends[0]);
  ASSERT_TRUE(busy) << "the worker did not start the print";
  EXPECT_GT(drained, std::size_t{4096});
  EXPECT_EQ(env.count("INF_NUM_PORT_PRINT_DATA"), printsBefore + 1);
}

TEST(RunTimeChanges, PostsWhileTheWorkerIsBusyGiveOneMoreCycleWithTheLastRequest) {
  TestEnvironment env;
  // Enough records that their dump fills the pipe, whatever size the system lets it have.
  std::string records;
  for (int i = 0; i < 3000; ++i) records += "0301" + std::to_string(100000 + i) + " 20200101000000 OPX\n";
  env.configureData(records);
  env.start();
  const std::string deltaA = env.writeFile("deltaA.txt", "0308880001 20200101000000 DA\n");
  const std::string deltaB = env.writeFile("deltaB.txt", "0308880002 20200101000000 DB\n");
  const std::string replaced = env.path("replaced.txt");

  whileWorkerIsBusyPrinting(env, [&] {
    env.post("deltaLoad", deltaA);
    env.post("deltaLoad", deltaB);
  });
  ASSERT_TRUE(env.waitFor("EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"));
  whileWorkerIsBusyPrinting(env, [&] {
    env.post("printData", replaced);
    env.post("reload", "TRUE");
  });
  ASSERT_TRUE(env.waitFor("EVT::RELOAD_SUCCESSFUL"));
  // A further request, to be sure that no other cycle was still to come before it.
  const std::string sync = env.path("sync.txt");
  env.post("printData", sync);
  ASSERT_TRUE(env.waitFor("INF_NUM_PORT_PRINT_DATA", 3));

  EXPECT_EQ(env.argsOf("INF_NUM_NPORT_ADDED"), (Args{{"1 : " + deltaB}}));
  EXPECT_EQ(env.count("EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"), 1u);
  EXPECT_EQ(env.lookup("0049308880002"), "DB");
  EXPECT_EQ(env.lookup("0049308880001"), std::nullopt);
  EXPECT_FALSE(NpTest::fileExists(replaced));
  EXPECT_EQ(env.argsOf("INF_NUM_PORT_PRINT_DATA"),
            (Args{{"3000", "Console"}, {"3001", "Console"}, {"3001", "File : " + sync}}));
  EXPECT_EQ(env.argsOf("INF_NUM_NPORT_RELOADED"), (Args{{"3001"}}));
}

}  // namespace
