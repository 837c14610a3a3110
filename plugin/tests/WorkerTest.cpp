// Requests written to the probes and carried out by the background worker: how each value is
// understood, what is reported and sent, and how posts that arrive while the worker is busy
// are merged into one further cycle.
#include "plugin/tests/TestEnvironment.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

namespace {

using DAT::NumberPortability::PlugIn;
using NpTest::StatusLine;
using NpTest::TestEnvironment;
using namespace std::chrono_literals;
using Args = std::vector<std::vector<std::string>>;

const char* const oldData = "030111111 20200101000000 OLD\n";
// A good record followed by a rejected last line: the reload only succeeds with reuse.
const char* const newDataWithBadLastLine = "030222222 20200101000000 NEW\nnot a record\n";

std::size_t eventCount(const TestEnvironment& env) {
  std::size_t n = 0;
  for (const BAS::LogRecord& record : env.sink->records()) n += record.kind == BAS::LogRecord::Kind::EVENT;
  return n;
}

// Checks that exactly the events named were sent, in order, from the plug-in to `receiver`.
void expectEvents(const TestEnvironment& env, const std::vector<std::string>& names, const std::string& receiver) {
  std::vector<std::string> sent;
  for (const BAS::LogRecord& record : env.sink->records()) {
    if (record.kind != BAS::LogRecord::Kind::EVENT) continue;
    sent.push_back(record.id.str());
    EXPECT_EQ(record.sender, BAS::String("NumberPortability")) << record.id;
    EXPECT_EQ(record.receiver, BAS::String(receiver)) << record.id;
    EXPECT_EQ(record.delivered, !receiver.empty()) << record.id;
  }
  EXPECT_EQ(sent, names);
}

TEST(WorkerReload, ValueFalseInAnyCaseTurnsReuseOff) {
  struct Row {
    const char* value;
    bool reuse;
  };
  const Row rows[] = {{"false", false}, {"FALSE", false}, {"FaLsE", false}, {"true", true}, {"TRUE", true},
                      {"yes", true},    {"1", true},      {"", true},       {" FALSE", true}};
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string("reload value \"") + row.value + "\"");
    TestEnvironment env;
    env.framework.setEventHandlerName(BAS::String("EventHandler"));
    const std::string file = env.configureData(oldData);
    PlugIn& plugIn = env.start();
    env.writeFile("np.txt", newDataWithBadLastLine);
    env.sink->clear();

    env.post("reload", row.value);
    ASSERT_TRUE(NpTest::waitUntil([&] { return eventCount(env) >= 1; }));
    // The worker does no announcement of its own; the reload's file check and the
    // rejected line come first.
    if (row.reuse) {
      EXPECT_EQ(NpTest::statusLines(*env.sink, {"INF_NUM_NPORT_RELOADED", "ERR_NUM_PORT_RELOAD"}),
                (std::vector<StatusLine>{{"INF_NUM_NPORT_RELOADED", 1, {"1"}}}));
      expectEvents(env, {"EVT::RELOAD_SUCCESSFUL"}, "EventHandler");
      EXPECT_EQ(env.lookup("004930222222"), "NEW");
      EXPECT_EQ(env.lookup("004930111111"), std::nullopt);
    } else {
      EXPECT_EQ(NpTest::statusLines(*env.sink, {"INF_NUM_NPORT_RELOADED", "ERR_NUM_PORT_RELOAD"}),
                (std::vector<StatusLine>{{"ERR_NUM_PORT_RELOAD", 4, {file}}}));
      expectEvents(env, {"EVT::RELOAD_FAILED"}, "EventHandler");
      EXPECT_EQ(env.lookup("004930111111"), "OLD");
      EXPECT_EQ(env.lookup("004930222222"), std::nullopt);
    }
    // The worker leaves the usable flag as the file check inside the reload set it.
    EXPECT_TRUE(plugIn.isUsable());
    EXPECT_EQ(env.count("INF_RELOAD_DATA"), 0u);
  }
}

TEST(WorkerReload, MissingDataFileFailsWhateverTheValueAndMakesThePlugInUnusable) {
  for (const char* value : {"TRUE", "FALSE"}) {
    SCOPED_TRACE(value);
    TestEnvironment env;
    const std::string file = env.configureData(oldData);
    PlugIn& plugIn = env.start();
    std::filesystem::remove(file);
    env.sink->clear();
    env.post("reload", value);
    ASSERT_TRUE(env.waitFor("EVT::RELOAD_FAILED"));
    EXPECT_EQ(NpTest::statusLines(*env.sink, {"ERR_FILE_NOT_FOUND", "ERR_NUM_PORT_RELOAD", "INF_NUM_NPORT_RELOADED"}),
              (std::vector<StatusLine>{{"ERR_FILE_NOT_FOUND", 4, {file}}, {"ERR_NUM_PORT_RELOAD", 4, {file}}}));
    expectEvents(env, {"EVT::RELOAD_FAILED"}, "");
    EXPECT_FALSE(plugIn.isUsable());
    EXPECT_EQ(env.lookup("004930111111"), "OLD");
  }
}

TEST(WorkerDeltaLoad, ReportsAddedRecordsWithTheFileNameOnlyWhenThereAreAny) {
  struct Row {
    const char* label;
    std::optional<std::string> content;  // nothing: the delta file does not exist
    std::vector<StatusLine> (*expected)(const std::string& delta);
    const char* event;
  };
  const Row rows[] = {
      {"two new records and a duplicate",
       std::string("030333333 20200101000000 D1\n030444444 20200101000000 D2\n030111111 20200101000000 DUP\n"),
       [](const std::string& delta) {
         return std::vector<StatusLine>{{"INF_NUM_NPORT_ADDED", 1, {"2 : " + delta}}};
       },
       "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"},
      {"duplicates only", std::string("030111111 20200101000000 DUP\n"),
       [](const std::string&) { return std::vector<StatusLine>{}; }, "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"},
      {"missing delta file", std::nullopt,
       [](const std::string& delta) {
         return std::vector<StatusLine>{{"ERR_FILE_NOT_FOUND", 4, {delta}}, {"ERR_NUM_PORT_DELTALOAD", 4, {delta}}};
       },
       "EVT::ADD_NUM_PORT_DATA_FAILED"},
  };
  for (const bool withEventHandler : {false, true}) {
    for (const Row& row : rows) {
      SCOPED_TRACE(std::string(row.label) + (withEventHandler ? ", with event handler" : ", no event handler"));
      TestEnvironment env;
      if (withEventHandler) env.framework.setEventHandlerName(BAS::String("EventHandler"));
      env.configureData(oldData);
      env.start();
      const std::string delta = row.content ? env.writeFile("delta.txt", *row.content) : env.path("delta.txt");
      env.sink->clear();
      env.post("deltaLoad", delta);
      ASSERT_TRUE(env.waitFor(row.event));
      EXPECT_EQ(NpTest::statusLines(*env.sink, {"INF_NUM_NPORT_ADDED", "ERR_NUM_PORT_DELTALOAD", "ERR_FILE_NOT_FOUND"}),
                row.expected(delta));
      expectEvents(env, {row.event}, withEventHandler ? "EventHandler" : "");
      EXPECT_EQ(env.count("INF_ADD_DATA"), 0u);
      EXPECT_EQ(env.lookup("004930111111"), "OLD");
      EXPECT_EQ(env.lookup("004930333333"), row.content && row.content->find("D1") != std::string::npos
                                                ? std::optional<std::string>("D1")
                                                : std::nullopt);
    }
  }
}

TEST(WorkerPrint, NullInAnyCaseMeansStandardOutputOtherValuesAreFileNames) {
  struct Row {
    const char* label;
    std::string value;  // "<dir>" stands for the test's folder
    bool toStandardOutput;
    std::string destination;  // the label argument, "<dir>" replaced as above
  };
  const Row rows[] = {
      {"NULL", "NULL", true, "Console"},
      {"null", "null", true, "Console"},
      {"NuLl", "NuLl", true, "Console"},
      {"file name keeps its case", "<dir>/Dump.TXT", false, "File : <dir>/Dump.TXT"},
      // Empty is no keyword: it is passed on as the destination, which is the null string.
      {"empty value", "", true, "File : "},
  };
  const std::string dump = "004930111111  20200101000000  OLD\n";
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    TestEnvironment env;
    env.framework.setEventHandlerName(BAS::String("EventHandler"));
    env.configureData(oldData);
    env.start();
    auto expand = [&](std::string text) {
      const std::size_t at = text.find("<dir>");
      if (at != std::string::npos) text.replace(at, 5, env.dir.path().string());
      return text;
    };
    const std::string value = expand(row.value);
    env.sink->clear();

    if (row.toStandardOutput) testing::internal::CaptureStdout();
    env.post("printData", value);
    const bool reported = env.waitFor("INF_NUM_PORT_PRINT_DATA");
    const std::string captured = row.toStandardOutput ? testing::internal::GetCapturedStdout() : std::string();
    ASSERT_TRUE(reported);

    EXPECT_EQ(NpTest::statusLines(*env.sink, {"INF_NUM_PORT_PRINT_DATA", "ERR_NUM_PORT_PRINT_DATA"}),
              (std::vector<StatusLine>{{"INF_NUM_PORT_PRINT_DATA", 1, {"1", expand(row.destination)}}}));
    if (row.toStandardOutput) {
      EXPECT_EQ(captured, NpTest::dumpBanner + dump);
    } else {
      EXPECT_EQ(NpTest::readText(value), NpTest::dumpBanner + dump);
    }
    EXPECT_EQ(eventCount(env), 0u);
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
    std::this_thread::sleep_for(1ms);
  }
  std::fflush(stdout);
  ::dup2(savedOut, STDOUT_FILENO);
  ::close(savedOut);
  while (true) {
    const ssize_t n = ::read(ends[0], buffer, sizeof buffer);
    if (n <= 0) break;
    drained += static_cast<std::size_t>(n);
  }
  ::close(ends[0]);
  ASSERT_TRUE(busy) << "the worker did not start the print";
  EXPECT_GT(drained, std::size_t{4096});
  EXPECT_EQ(env.count("INF_NUM_PORT_PRINT_DATA"), printsBefore + 1);
}

// Enough records that their dump fills the pipe, whatever size the system lets it have.
std::string manyRecords() {
  std::string text;
  for (int i = 0; i < 3000; ++i) text += "0301" + std::to_string(100000 + i) + " 20200101000000 OPX\n";
  return text;
}

TEST(WorkerRequests, PostsWhileTheWorkerIsBusyGiveOneMoreCycleWithTheLastRequest) {
  TestEnvironment env;
  env.configureData(manyRecords());
  env.start();
  const std::string deltaA = env.writeFile("deltaA.txt", "0308880001 20200101000000 DA\n");
  const std::string deltaB = env.writeFile("deltaB.txt", "0308880002 20200101000000 DB\n");

  whileWorkerIsBusyPrinting(env, [&] {
    env.post("deltaLoad", deltaA);
    env.post("deltaLoad", deltaB);
  });
  ASSERT_TRUE(env.waitFor("EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"));
  // A further request, to be sure that no other cycle was still to come before it.
  const std::string sync = env.path("sync.txt");
  env.post("printData", sync);
  ASSERT_TRUE(env.waitFor("INF_NUM_PORT_PRINT_DATA", 2));

  EXPECT_EQ(env.argsOf("INF_NUM_NPORT_ADDED"), (Args{{"1 : " + deltaB}}));
  EXPECT_EQ(env.count("EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"), 1u);
  EXPECT_EQ(env.lookup("0049308880002"), "DB");
  EXPECT_EQ(env.lookup("0049308880001"), std::nullopt);
}

TEST(WorkerRequests, ReloadPostedAfterAPrintReplacesItBeforeTheWorkerTakesItUp) {
  TestEnvironment env;
  env.configureData(manyRecords());
  env.start();
  const std::string replaced = env.path("replaced.txt");

  whileWorkerIsBusyPrinting(env, [&] {
    env.post("printData", replaced);
    env.post("reload", "TRUE");
  });
  ASSERT_TRUE(env.waitFor("EVT::RELOAD_SUCCESSFUL"));
  const std::string sync = env.path("sync.txt");
  env.post("printData", sync);
  ASSERT_TRUE(env.waitFor("INF_NUM_PORT_PRINT_DATA", 2));

  EXPECT_FALSE(NpTest::fileExists(replaced));
  EXPECT_EQ(env.argsOf("INF_NUM_PORT_PRINT_DATA"), (Args{{"3000", "Console"}, {"3000", "File : " + sync}}));
  EXPECT_EQ(env.argsOf("INF_NUM_NPORT_RELOADED"), (Args{{"3000"}}));
}

}  // namespace
