// The log tells the story of a run and of a script as messages of the object "nphost": the start
// with what runs on which data, the moment of readiness, every control command with its answer,
// the run's summary and the stop with its cause, in that order, in text and in JSON alike.
#include "Nphost.h"
#include "ProcessWatch.h"
#include "ProgramFolderTest.h"
#include "SocketClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <sstream>
#include <thread>

namespace {

using namespace NphostTest;
using namespace testing;
using RunStoryLog = ProgramFolderTest;

struct Entry {
  std::string id;
  Lines args;
};
void PrintTo(const Entry& entry, std::ostream* out) { *out << entry.id << " " << testing::PrintToString(entry.args); }

// The entries of the object "nphost" in a log file, in order. A text line's arguments are a JSON
// array, which ends at the first ']' after which it parses.
std::vector<Entry> storyOf(const fs::path& log, bool json) {
  std::vector<Entry> story;
  for (const std::string& line : linesOf(log)) {
    nlohmann::json args;
    std::string id;
    if (json) {
      const auto entry = nlohmann::json::parse(line, nullptr, false);
      if (entry.is_discarded() || entry.value("object", "") != "nphost") continue;
      id = entry["id"];
      args = entry["args"];
    } else {
      // TIME SEVERITY(n) OBJECT ID [ARGS] TEXT
      std::istringstream words(line);
      std::string time, severity, object;
      if (!(words >> time >> severity >> object >> id) || object != "nphost") continue;
      const auto open = line.find(" [", line.find(id)) + 1;
      for (auto close = line.find(']', open); close != std::string::npos; close = line.find(']', close + 1)) {
        args = nlohmann::json::parse(line.substr(open, close + 1 - open), nullptr, false);
        if (!args.is_discarded()) break;
      }
    }
    // The publications have a test of their own; this story is the run's.
    if (id == "INF_NPHOST_GENERATION") continue;
    Entry entry{id, {}};
    for (const auto& arg : args) entry.args.push_back(arg.get<std::string>());
    story.push_back(entry);
  }
  return story;
}

Matcher<const Entry&> is(const std::string& id, const std::vector<Matcher<const std::string&>>& args) {
  return AllOf(Field(&Entry::id, id), Field(&Entry::args, ElementsAreArray(args)));
}
const auto seconds = MatchesRegex("[0-9]+[.][0-9]{3}");
const auto whole = MatchesRegex("[0-9]+");

TEST_F(RunStoryLog, TheLogTellsStartReadinessCommandsSummaryAndStopInOrder) {
  const auto start = [](const std::string& threads) {
    return is("INF_NPHOST_START", {Eq(NP_VERSION), Eq("reg.toml"), Eq("NumberPortability"), Eq("np.txt"), Eq(threads)});
  };
  const auto ready = is("INF_NPHOST_READY", {Eq("4"), seconds});
  struct Road {
    std::string name;
    Lines words;
    std::function<void(Nphost&)> drive;
    int status;
    std::vector<Matcher<const Entry&>> story;
  };
  const Road roads[] = {
      {"a run to the end of its input, commands on the control socket",
       {"run", "reg.toml", "--threads", "2", "--control", "np.sock", "--log", "log.txt"},
       [this](Nphost& nphost) {
         ASSERT_TRUE(SocketClient(folderM / "np.sock").connected()) << nphost.errors();
         // Ready is logged by the time the socket appears.
         EXPECT_TRUE(fileHas(folderM / "log.txt", "INF_NPHOST_READY"));
         EXPECT_EQ(ctl(folderM, {"np.sock", "search", "004930123456", "20240101000000"}).first, 0);
         EXPECT_EQ(ctl(folderM, {"np.sock", "frob"}).first, 1);
         EXPECT_EQ(ctl(folderM, {"np.sock", "await", "INF_NPHOST_READY", "1", "100"}),
                   std::make_pair(0, std::string("await INF_NPHOST_READY ok\n")));
         nphost.write("004930123456;20240101000000\n");
         EXPECT_EQ(nphost.finish(), 0);
       },
       0,
       {start("2"), ready,
        is("INF_NPHOST_COMMAND", {Eq("search 004930123456 20240101000000"), Eq("found OPB 20230301000000")}),
        is("INF_NPHOST_COMMAND", {Eq("frob"), Eq("error unknown command frob")}),
        is("INF_NPHOST_COMMAND", {Eq("await INF_NPHOST_READY 1 100"), Eq("await INF_NPHOST_READY ok")}),
        is("INF_NPHOST_SUMMARY", {Eq("1"), Eq("1"), Eq("0"), Eq("0"), seconds, whole, Eq("4"), Eq("1")}),
        is("INF_NPHOST_STOP", {Eq("end of input")})}},
      {"a run in JSON ended by SIGTERM",
       {"run", "reg.toml", "--threads", "3", "--control", "np.sock", "--log", "log.txt", "--log-format", "json"},
       [this](Nphost& nphost) {
         ASSERT_TRUE(SocketClient(folderM / "np.sock").connected()) << nphost.errors();
         EXPECT_EQ(ctl(folderM, {"--wait", "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL", "np.sock", "probe", "deltaLoad", "np.txt"}).first, 0);
         nphost.signal(SIGTERM);
         EXPECT_EQ(nphost.waitForExit(), 0);
       },
       0,
       {start("3"), ready,
        is("INF_NPHOST_COMMAND", {Eq("after EVT::ADD_NUM_PORT_DATA_SUCCESSFUL 60000 probe deltaLoad np.txt"),
                                  Eq("probe deltaLoad result=true; await EVT::ADD_NUM_PORT_DATA_SUCCESSFUL ok")}),
        is("INF_NPHOST_SUMMARY", {Eq("0"), Eq("0"), Eq("0"), Eq("0"), seconds, Eq("0"), Eq("4"), Eq("1")}),
        is("INF_NPHOST_STOP", {Eq("SIGTERM")})}},
      {"a script to the end of its input", {"script", "reg.toml", "--log", "log.txt"},
       [](Nphost& nphost) {
         nphost.write("search 004930123456 20240101000000\n");
         EXPECT_EQ(nphost.finish(), 0);
       },
       0, {start("1"), ready, is("INF_NPHOST_STOP", {Eq("end of input")})}},
      {"a run that cannot make its control socket",
       {"run", "reg.toml", "--control", "plain.txt", "--log", "log.txt", "--log-format", "json"},
       [](Nphost& nphost) { EXPECT_EQ(nphost.finish(), 1); }, 1,
       {start(std::to_string(std::max(1u, std::thread::hardware_concurrency()))),
        is("INF_NPHOST_STOP",
           {Eq("failure: 'plain.txt' exists and is not a socket; the control socket is not created there")})}},
  };
  writeFile("plain.txt", "not a socket");
  for (const Road& road : roads) {
    SCOPED_TRACE(road.name);
    fs::remove(folderM / "log.txt");
    Nphost nphost(folderM, road.words);
    road.drive(nphost);
    const bool json = std::find(road.words.begin(), road.words.end(), "json") != road.words.end();
    EXPECT_THAT(storyOf(folderM / "log.txt", json), ElementsAreArray(road.story)) << readFile("log.txt");
    // Last of all, after the plug-in's own last words (a worker's delta load leaves a file that
    // its end closes).
    const Lines log = linesOf(folderM / "log.txt");
    EXPECT_THAT(log.empty() ? "" : log.back(), HasSubstr("INF_NPHOST_STOP"));
  }
}

}  // namespace
