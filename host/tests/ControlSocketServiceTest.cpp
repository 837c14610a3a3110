// The control socket as operators lean on it while records flow: a command that waits (a long
// wait, a delta file that is a FIFO nobody writes) holds only its own connection; parked waits
// are bounded so that an operator always gets in; idle connections are closed; a print never
// lands on the run's own files; and SIGTERM ends the run whatever the connections are doing.
#include "Nphost.h"
#include "ProcessWatch.h"
#include "ProgramFolderTest.h"
#include "SocketClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>

namespace {

using namespace NphostTest;
using namespace testing;
using ControlSocketService = ProgramFolderTest;

using Clients = std::vector<std::unique_ptr<SocketClient>>;

// A run with a control socket on standard input and output, its log in log.txt.
Lines runWithSocket() { return {"run", "reg.toml", "--control", "np.sock", "--log", "log.txt"}; }

TEST_F(ControlSocketService, AWaitHoldsOnlyItsOwnConnectionAndSigtermEndsTheRunAtOnce) {
  Nphost nphost(folderM, runWithSocket());
  SocketClient awaiting(folderM / "np.sock"), after(folderM / "np.sock"), other(folderM / "np.sock");
  ASSERT_TRUE(awaiting.connected() && after.connected() && other.connected()) << nphost.errors();
  awaiting.send("await NEVER_LOGGED 1 60000\n");
  EXPECT_EQ(after.ask("after NEVER_LOGGED 86400000 usable"), "usable true");
  // Everyone else is answered meanwhile, a reload included, and records flow.
  EXPECT_EQ(other.ask("search 004930123456 20210101000000"), "found OPA 20200101000000");
  EXPECT_EQ(other.ask("update Reload"), "update result=true taken=true");
  EXPECT_THAT(ctl(folderM, {"np.sock", "status"}), Pair(0, StartsWith("status records=4 ")));
  nphost.write("004930123456;20240101000000\n");
  EXPECT_EQ(nphost.readLine(), "004930123456;20240101000000;OPB");

  nphost.signal(SIGTERM);
  EXPECT_EQ(nphost.waitForExit(), 0) << "a parked wait held up the end: " << nphost.errors();
  EXPECT_EQ(awaiting.readLine(), "<end>");
  EXPECT_EQ(after.readLine(), "<end>");
  EXPECT_FALSE(fs::exists(folderM / "np.sock"));
}

// Needs the framework's reader to give up waiting for a FIFO's writer once told to stop.
TEST_F(ControlSocketService, ADeltaFileNobodyWritesHoldsOnlyItsOwnConnection) {
  ASSERT_EQ(mkfifo((folderM / "delta.fifo").c_str(), 0600), 0);
  Nphost nphost(folderM, runWithSocket());
  SocketClient stuck(folderM / "np.sock");
  ASSERT_TRUE(stuck.connected()) << nphost.errors();
  stuck.send("update AdditionalNumPortData=delta.fifo\n");
  ASSERT_TRUE(eventually([&] { return fileHas(folderM / "log.txt", "INF_ADD_DATA"); }));
  EXPECT_THAT(ctl(folderM, {"np.sock", "status"}), Pair(0, StartsWith("status records=4 ")));
  EXPECT_THAT(ctl(folderM, {"np.sock", "search", "004930123456", "20210101000000"}), Pair(0, "found OPA 20200101000000\n"));
  nphost.write("004930123456;20240101000000\n");
  EXPECT_EQ(nphost.readLine(), "004930123456;20240101000000;OPB");
  nphost.signal(SIGTERM);
  EXPECT_EQ(nphost.waitForExit(), 0) << "the FIFO kept the run from ending: " << nphost.errors();
}

// Twelve waits park; the thirteenth is refused, so that the connections left always serve an
// operator; the bound of sixteen connections stays; a slot comes free when its client goes.
TEST_F(ControlSocketService, TwelveWaitsParkAtOnceAndAnOperatorStillGetsIn) {
  Nphost nphost(folderM, runWithSocket());
  Clients parked;
  for (int i = 0; i < 12; ++i) {
    parked.push_back(std::make_unique<SocketClient>(folderM / "np.sock"));
    ASSERT_EQ(parked.back()->ask("after NEVER_LOGGED 60000 usable"), "usable true") << i << nphost.errors();
  }
  SocketClient operatorClient(folderM / "np.sock");
  const std::pair<std::string, std::string> refused[] = {
      {"await NEVER_LOGGED 1 100", "error too many waits"},
      {"after NEVER_LOGGED 100 usable", "error too many waits"},
      {"await INF_NUM_NPORT_LOADED", "error too many waits"},
      {"status", "status records=4 "},
      {"usable", "usable true"},
  };
  for (const auto& [command, answer] : refused) EXPECT_THAT(operatorClient.ask(command), StartsWith(answer)) << command;

  Clients more;
  for (int i = 0; i < 3; ++i) {
    more.push_back(std::make_unique<SocketClient>(folderM / "np.sock"));
    EXPECT_EQ(more.back()->ask("usable"), "usable true") << i;
  }
  SocketClient seventeenth(folderM / "np.sock");
  EXPECT_EQ(seventeenth.readLine(), "error too many connections");
  EXPECT_EQ(seventeenth.readLine(), "<end>");

  parked.pop_back();  // its client hangs up: the wait ends and gives its slot back
  EXPECT_TRUE(eventually([&] { return operatorClient.ask("await INF_NUM_NPORT_LOADED 1 10") == "await INF_NUM_NPORT_LOADED ok"; }));
  nphost.signal(SIGTERM);
  EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
  for (auto& client : parked) EXPECT_EQ(client->readLine(), "<end>");
}

// With the idle time shortened for the test: a connection with no command in progress is
// closed, whether it said nothing, sent half a line or had its answer; a wait in progress is
// not idle. Sixteen idle clients cannot lock the operator out.
TEST_F(ControlSocketService, AnIdleConnectionIsClosedAndAWaitInProgressIsNot) {
  setenv("NPHOST_CONTROL_IDLE_MS", "300", 1);
  Nphost nphost(folderM, runWithSocket());
  unsetenv("NPHOST_CONTROL_IDLE_MS");
  Clients idle;
  for (int i = 0; i < 15; ++i) {
    idle.push_back(std::make_unique<SocketClient>(folderM / "np.sock"));
    ASSERT_TRUE(idle.back()->connected()) << nphost.errors();
    if (i % 3 == 1) idle.back()->send("sta");
    if (i % 3 == 2) {
      EXPECT_EQ(idle.back()->ask("usable"), "usable true");
    }
  }
  SocketClient waiting(folderM / "np.sock");
  EXPECT_EQ(waiting.ask("after NEVER_LOGGED 1000 usable"), "usable true");
  for (auto& client : idle) EXPECT_EQ(client->readLine(), "<end>");
  EXPECT_EQ(waiting.readLine(), "await NEVER_LOGGED timeout");
  EXPECT_EQ(SocketClient(folderM / "np.sock").ask("usable"), "usable true");
  EXPECT_EQ(waiting.readLine(), "<end>");
  nphost.signal(SIGTERM);
  EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
}

// A print over the run's input, its output or the data file, by any name or link, is refused;
// those files stay as they were, and a print elsewhere is carried out.
TEST_F(ControlSocketService, APrintOverTheRunsOwnFilesIsRefused) {
  ASSERT_EQ(mkfifo((folderM / "events").c_str(), 0600), 0);
  fs::create_hard_link(folderM / "np.txt", folderM / "np-link.txt");
  fs::create_symlink("out.txt", folderM / "out-link");
  const std::string data = readFile("np.txt");
  Nphost nphost(folderM, {"run", "reg.toml", "--input", "events", "--output", "out.txt", "--control", "np.sock",
                          "--log", "log.txt"});
  const int events = open((folderM / "events").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(events, 0);
  writeAll(events, "004930123456;20240101000000\n");
  ASSERT_TRUE(eventually([&] { return readFile("out.txt") == "004930123456;20240101000000;OPB\n"; })) << nphost.errors();

  const auto refusal = [](const std::string& name, const std::string& what) {
    return "error the print file '" + name + "' is " + what + "; name another file\n";
  };
  const std::pair<Lines, std::string> cases[] = {
      {{"update", "PrintData=out.txt"}, refusal("out.txt", "the run's output")},
      {{"update", "PrintData=out-link"}, refusal("out-link", "the run's output")},
      {{"probe", "printData", "events"}, refusal("events", "the run's input")},
      {{"update", "PrintData=np.txt"}, refusal("np.txt", "the main data file 'np.txt'")},
      {{"probe", "printData", "np-link.txt"}, refusal("np-link.txt", "the main data file 'np.txt'")},
      {{"update", "PrintData=./np.txt", "Reload"}, refusal("./np.txt", "the main data file 'np.txt'")},
      {{"update", "PrintData=dump.txt"}, "update result=true taken=true\n"},
  };
  for (auto [words, answer] : cases) {
    words.insert(words.begin(), "np.sock");
    EXPECT_EQ(ctl(folderM, words), std::make_pair(answer.starts_with("error") ? 1 : 0, answer)) << words[2];
  }
  EXPECT_THAT(readFile("dump.txt"), StartsWith("-----"));
  close(events);
  EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
  EXPECT_EQ(readFile("np.txt"), data);
  EXPECT_EQ(readFile("out.txt"), "004930123456;20240101000000;OPB\n");
  EXPECT_THAT(readFile("log.txt"), Not(HasSubstr("INF_RELOAD_DATA"))) << "a refused update was carried out";
}

}  // namespace
