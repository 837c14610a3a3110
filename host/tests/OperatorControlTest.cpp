// What an operator scripts against nphost: the exit status of `nphost ctl` for each kind of
// answer, `--wait` that sees only what the command itself caused and holds up no one else, the
// `status` line and how reloads and delta loads by either road change it, `run --normalize`, and
// the data file's load drawn on a real terminal.
#include "Nphost.h"
#include "ProcessWatch.h"
#include "ProgramFolderTest.h"
#include "SocketClient.h"
#include "TerminalRun.h"
#include "host/script/WordSplitter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

namespace {

using namespace NphostTest;
using namespace testing;
using OperatorControl = ProgramFolderTest;

// The KEY=VALUE words of a status line, split as the script grammar splits them.
std::map<std::string, std::string> statusOf(const std::string& line) {
  std::vector<std::string> words;
  EXPECT_TRUE(Host::WordSplitter::split(line, words)) << line;
  std::map<std::string, std::string> values;
  EXPECT_THAT(words, Not(IsEmpty()));
  if (words.empty() || words.front() != "status") return values;
  for (std::size_t i = 1; i < words.size(); ++i) {
    const auto equals = words[i].find('=');
    EXPECT_NE(equals, std::string::npos) << words[i];
    values[words[i].substr(0, equals)] = words[i].substr(equals + 1);
  }
  return values;
}

TEST_F(OperatorControl, CtlExitsWithOneExactlyWhenTheAnswerSaysTheCommandFailed) {
  Nphost nphost(folderM, {"run", "reg.toml", "--control", "np.sock", "--log", "log.txt"});
  ASSERT_TRUE(SocketClient(folderM / "np.sock").connected()) << nphost.errors();
  const std::tuple<Lines, int, std::string> cases[] = {
      {{"np.sock", "usable"}, 0, "usable true\n"},
      {{"np.sock", "frob"}, 1, "error unknown command frob\n"},
      {{"np.sock", "update", "Reload", "ReuseOnFailure=maybe"}, 1, "update result=false taken=true\n"},
      // The keys are bare: a dotted one is no command of the plug-in and nothing happens.
      {{"np.sock", "update", "NumberPortability.Reload=TRUE"}, 1, "update result=true taken=false\n"},
      {{"np.sock", "await", "NEVER_LOGGED", "1", "10"}, 1, "await NEVER_LOGGED timeout\n"},
      {{"--wait", "NEVER_LOGGED", "--timeout", "10", "np.sock", "usable"}, 1,
       "usable true\nawait NEVER_LOGGED timeout\n"},
      {{"--wait", "EVT::RELOAD_SUCCESSFUL", "np.sock", "probe", "reload", "TRUE"}, 0,
       "probe reload result=true\nawait EVT::RELOAD_SUCCESSFUL ok\n"},
      // A refused command starts nothing to wait for: its error is the whole answer.
      {{"--wait", "EVT::RELOAD_SUCCESSFUL", "np.sock", "sleep", "1"}, 1,
       "error sleep is not available on the control socket\n"},
      {{"--timeout", "10", "np.sock", "usable"}, 1, "nphost: --timeout is the longest wait of --wait; give --wait too.\n"},
      {{"--wait", "X", "--timeout", "86400001", "np.sock", "usable"}, 1, ""},
      {{"gone.sock", "usable"}, 1, "nphost: cannot reach the control socket 'gone.sock': No such file or directory.\n"},
  };
  for (const auto& [words, status, output] : cases) {
    const auto [got, text] = ctl(folderM, words);
    EXPECT_EQ(got, status) << words[1] << " " << words.back() << ": " << text;
    if (!output.empty()) {
      EXPECT_EQ(text, output) << words[1] << " " << words.back();
    }
  }
  nphost.signal(SIGTERM);
  EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
}

// A wait is noted before its command and parks its connection on the control thread: an earlier
// entry of the same identifier does not answer it, other connections are served meanwhile (and
// the parked one's later commands keep their order), and SIGTERM ends the run at once.
TEST_F(OperatorControl, WaitSeesOnlyWhatFollowsItsCommandAndHoldsUpNoOtherConnection) {
  Nphost nphost(folderM, {"run", "reg.toml", "--control", "np.sock", "--log", "log.txt"});
  SocketClient parked(folderM / "np.sock");
  ASSERT_TRUE(parked.connected()) << nphost.errors();
  EXPECT_EQ(ctl(folderM, {"--wait", "EVT::RELOAD_SUCCESSFUL", "np.sock", "update", "Reload"}).first, 0);
  // The reload above logged the event; `usable` causes none, so this wait must run out.
  EXPECT_EQ(ctl(folderM, {"--wait", "EVT::RELOAD_SUCCESSFUL", "--timeout", "200", "np.sock", "usable"}),
            std::make_pair(1, std::string("usable true\nawait EVT::RELOAD_SUCCESSFUL timeout\n")));

  parked.send("after EVT::ADD_NUM_PORT_DATA_SUCCESSFUL 60000 usable\nsearch 004930123456 20210101000000\n");
  EXPECT_EQ(parked.readLine(), "usable true");
  const auto [status, line] = ctl(folderM, {"np.sock", "status"});
  EXPECT_EQ(status, 0);
  EXPECT_THAT(line, StartsWith("status records=4 "));
  writeFile("delta.txt", "0033123456  20000101000000  FRA\n");
  EXPECT_EQ(ctl(folderM, {"np.sock", "probe", "deltaLoad", "delta.txt"}).first, 0);
  EXPECT_EQ(parked.readLine(), "await EVT::ADD_NUM_PORT_DATA_SUCCESSFUL ok");
  EXPECT_EQ(parked.readLine(), "found OPA 20200101000000");

  parked.send("after NEVER_LOGGED 60000 usable\n");
  EXPECT_EQ(parked.readLine(), "usable true");
  nphost.signal(SIGTERM);
  EXPECT_EQ(nphost.finish(), 0) << "a parked wait held up the end: " << nphost.errors();
  EXPECT_EQ(parked.readLine(), "<end>");
}

// The status line in script mode, changed by a delta load through the worker, lookups, and a
// reload through a registry update that fails; the file name holds a blank and is quoted.
TEST_F(OperatorControl, StatusFollowsLoadsReloadsAndLookupsWhicheverRoadTheyTook) {
  fs::rename(folderM / "np.txt", folderM / "my np.txt");
  std::string text = readFile("reg.toml");
  text.replace(text.find("\"np.txt\""), 8, "\"my np.txt\"");
  writeFile("reg.toml", text);
  writeFile("delta.txt", "0033123456  20000101000000  FRA\n0033 x\n0044123  20000101000000  GBR\n");
  Nphost nphost(folderM, {"script", "reg.toml", "--log", "log.txt"});
  EXPECT_EQ(nphost.readLine(), "construct valid=true");
  EXPECT_EQ(nphost.readLine(), "init result=true");
  const auto ask = [&](const std::string& command) {
    nphost.write(command + "\n");
    return nphost.readLine();
  };
  const std::string first = ask("status");
  EXPECT_THAT(first, HasSubstr(" file=\"my np.txt\" "));
  EXPECT_THAT(first, ContainsRegex(" generation=[0-9]{8}T[0-9]{6}[.][0-9]{3}Z-1$"));
  EXPECT_EQ(statusOf(first), (std::map<std::string, std::string>{
                                 {"records", "4"}, {"usable", "true"}, {"file", "my np.txt"}, {"loading", "false"},
                                 {"last_load_lines_loaded", "4"}, {"last_load_lines_rejected", "1"}, {"reload", "never"},
                                 {"reload_result", "none"}, {"delta", "never"}, {"delta_result", "none"},
                                 {"lookups", "0"}, {"worker", "running"}, {"generation", statusOf(first)["generation"]}}));

  EXPECT_EQ(ask("search 004930123456 20210101000000"), "found OPA 20200101000000");
  EXPECT_EQ(ask("after EVT::ADD_NUM_PORT_DATA_SUCCESSFUL 60000 probe deltaLoad delta.txt"), "probe deltaLoad result=true");
  EXPECT_EQ(nphost.readLine(), "await EVT::ADD_NUM_PORT_DATA_SUCCESSFUL ok");
  auto now = statusOf(ask("status"));
  EXPECT_THAT(now["delta"], MatchesRegex("20[0-9][0-9]-[01][0-9]-[0-3][0-9]T[0-9:]{8}[.][0-9]{3}Z"));
  EXPECT_EQ(now["delta_result"], "ok");
  EXPECT_EQ(now["records"], "6");
  EXPECT_EQ(now["last_load_lines_loaded"], "2");  // the delta file's, not doubled by the second tree
  EXPECT_EQ(now["last_load_lines_rejected"], "1");
  EXPECT_EQ(now["lookups"], "1");
  EXPECT_EQ(now["reload"], "never");

  EXPECT_EQ(ask("update Reload"), "update result=true taken=true");
  now = statusOf(ask("status"));
  EXPECT_EQ(now["reload_result"], "ok");
  EXPECT_EQ(now["last_load_lines_loaded"], "6");  // the delta load rewrote the data file without its rejected line
  EXPECT_EQ(now["last_load_lines_rejected"], "0");

  // A last line that is rejected makes a reload without reuse fail.
  writeFile("my np.txt", readFile("my np.txt") + "broken\n");
  EXPECT_EQ(ask("update Reload ReuseOnFailure=FALSE"), "update result=false taken=true");
  now = statusOf(ask("status"));
  EXPECT_EQ(now["reload_result"], "failed");
  EXPECT_EQ(now["usable"], "false");
  EXPECT_EQ(now["records"], "6") << "the old data stays";
  EXPECT_EQ(now["last_load_lines_loaded"], "6");
  EXPECT_EQ(now["last_load_lines_rejected"], "1");
  EXPECT_NE(now["reload"], "never");
  EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
}

// Event numbers in any written form find the stored number's operator with --normalize, and are
// written back as they came; without it only the stored form is found.
TEST_F(OperatorControl, NormalizeFindsEveryWrittenFormAndKeepsTheNumberAsItCame) {
  const std::string input = "+4930123456;20240101000000\n030123456;20240101000000;x\n004930123456;20240101000000\n"
                            "30123456;20240101000000\n+49 30 123456;20240101000000\n0033123456;20240101000000\n";
  writeFile("events.txt", input);
  for (const bool normalize : {true, false}) {
    Lines words = {"run", "reg.toml", "--input", "events.txt", "--log", "log.txt"};
    if (normalize) words.push_back("--normalize");
    Nphost nphost(folderM, words);
    EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
    const std::string found = normalize ? "OPB" : "";
    EXPECT_EQ(nphost.rest(), (Lines{"+4930123456;20240101000000;" + found, "030123456;20240101000000;x;" + found,
                                    "004930123456;20240101000000;OPB", "30123456;20240101000000;" + found,
                                    "+49 30 123456;20240101000000;" + found, "0033123456;20240101000000;"}));
    EXPECT_THAT(nphost.errors(), ContainsRegex("^6 records: .* in [0-9.]+ s \\([0-9]+ records/s\\); "
                                               "start-up load: 4 data lines loaded, 1 rejected\n$"));
  }
}

// On a terminal the load is drawn while it runs, and erased before each log line and before the
// summary, which says how many data lines were loaded and rejected.
TEST_F(OperatorControl, LoadProgressIsDrawnOnATerminalAndErasedBeforeTheLogAndTheSummary) {
  writeFile("events.txt", "004930123456;20240101000000\n");
  const auto [status, screen] =
      runOnTerminal(folderM, {"run", "reg.toml", "--input", "events.txt", "--output", "out.txt"});
  EXPECT_EQ(status, 0) << screen;

  EXPECT_THAT(screen, HasSubstr("\rloading np.txt: ")) << screen;
  // Every log line and the summary start on an erased line; the progress text is never followed
  // by anything but its own erasure.
  EXPECT_THAT(screen, ContainsRegex("\r\x1b\\[K[0-9T:.-]+Z NORMAL\\(1\\) NumberPortability INF_NUM_NPORT_LOADED"));
  for (std::size_t at = screen.find("\rloading"); at != std::string::npos; at = screen.find("\rloading", at + 1)) {
    const std::size_t end = screen.find("\x1b[K", at);
    ASSERT_NE(end, std::string::npos);
    const std::string next = screen.substr(end + 3, 8);
    EXPECT_TRUE(next.starts_with("\r\x1b[K") || next == "\rloading") << screen.substr(at, 200);
  }
  EXPECT_THAT(screen, ContainsRegex("(\n|\x1b\\[K)1 record: 1 found, .*; start-up load: 4 data lines loaded, 1 rejected\r\n$"));
}

}  // namespace
