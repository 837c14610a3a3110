// The operations an operator runs in one command, `nphost ctl SOCKET reload [--reuse]`, `delta
// FILE` and `print FILE`: the verdict line, the status line after it and the exit status, for
// the ok and failed outcome of each; and a wait for an operation's success that its failure
// ends at once, by every road (`ctl --wait`, `after` on the socket and in a script).
#include "Nphost.h"
#include "ProcessWatch.h"
#include "ProgramFolderTest.h"
#include "SocketClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <optional>

namespace {

using namespace NphostTest;
using namespace testing;
using OneCommandOperation = ProgramFolderTest;

const std::string goodData = "+4930123456  20200101000000  OPA\n030123456  20230301000000  OPB\n"
                             "0049151  20000101000000  BLK\n01511234567  20220101000000  OPC\n";
const std::string dumpBanner = std::string(59, '-') + "\n                 Number Portability Data\n" + std::string(59, '-') + "\n";

TEST_F(OneCommandOperation, EachOperationSaysOkOnlyWhenTheDataServingIsWhatWasAsked) {
  // Records may come through the FIFO; none do, and the run serves until SIGTERM.
  ASSERT_EQ(mkfifo((folderM / "events").c_str(), 0600), 0);
  Nphost nphost(folderM, {"run", "reg.toml", "--input", "events", "--control", "np.sock", "--log", "log.txt"});
  ASSERT_TRUE(SocketClient(folderM / "np.sock").connected()) << nphost.errors();
  fs::create_directory(folderM / "sub");
  writeFile("delta.txt", "0033123456  20000101000000  FRA\n");
  struct Case {
    std::optional<std::string> data;  // np.txt before the command; nullopt: as it is
    fs::path from;     // where ctl runs
    Lines words;
    int status;
    std::string verdict;
    std::string statusLine;  // the beginning of the status line that follows
  };
  const std::optional<std::string> unchanged;
  const Case cases[] = {
      {goodData, "", {"np.sock", "reload"}, 0, "reload ok", "status records=4 usable=true "},
      // A cut-off last line makes the reload fail: the old data stays, the plug-in is unusable.
      {goodData + "0049301\n", "", {"np.sock", "reload"}, 1, "reload failed: update result=false taken=true",
       "status records=4 usable=false "},
      // With --reuse the emptied file is in service all the same, yet the reload failed.
      {"", "", {"np.sock", "reload", "--reuse"}, 1,
       "reload failed: update result=false taken=true; with --reuse reloaded all the same: update result=true taken=true",
       "status records=0 usable=true "},
      {goodData, "", {"np.sock", "reload", "--reuse"}, 0, "reload ok", "status records=4 usable=true "},
      {unchanged, "", {"np.sock", "delta", "delta.txt"}, 0, "delta ok", "status records=5 usable=true "},
      {unchanged, "", {"np.sock", "delta", "absent.txt"}, 1, "delta failed: update result=false taken=true",
       "status records=5 usable=true "},
      // A relative print file is nphost's, whatever ctl's working folder.
      {unchanged, "sub", {"../np.sock", "print", "dump.txt"}, 0, "print ok", "status records=5 "},
      {unchanged, "", {"np.sock", "print", "none/dump.txt"}, 1,
       "print failed: update result=true taken=true; ERR_FILE_NOT_WRITTEN was logged (the log says why)",
       "status records=5 "},
      {unchanged, "", {"np.sock", "print", "np.txt"}, 1,
       "print failed: error the print file 'np.txt' is the main data file 'np.txt'; name another file", "status records=5 "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.words[1] + " " + c.words.back());
    if (c.data) writeFile("np.txt", *c.data);
    const auto [status, text] = ctl(folderM / c.from, c.words);
    EXPECT_EQ(status, c.status) << text;
    EXPECT_THAT(text, StartsWith(c.verdict + "\n" + c.statusLine)) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
  }
  EXPECT_THAT(readFile("dump.txt"), StartsWith(dumpBanner + "0033123456  20000101000000  FRA\n"));
  EXPECT_FALSE(fs::exists(folderM / "sub" / "dump.txt"));

  // Refused before anything is sent: the command is wrong, or its file could not be read back.
  ASSERT_EQ(mkfifo((folderM / "dump.fifo").c_str(), 0600), 0);
  const std::pair<Lines, std::string> refused[] = {
      {{"np.sock", "reload", "now"}, "nphost: usage: nphost ctl SOCKET reload [--reuse].\n"},
      {{"np.sock", "delta"}, "nphost: usage: nphost ctl SOCKET delta FILE.\n"},
      {{"--wait", "EVT::RELOAD_SUCCESSFUL", "np.sock", "reload"},
       "nphost: --wait is not for reload, which waits for its own end; leave it out.\n"},
      {{"np.sock", "print", "dump.fifo"}, "nphost: the print file 'dump.fifo' is not a regular file, so the dump could "
                                          "not be read back from it; name a regular file.\n"},
  };
  for (const auto& [words, said] : refused) EXPECT_EQ(ctl(folderM, words), std::make_pair(1, said));
  EXPECT_THAT(ctl(folderM, {"np.sock", "status"}).second, StartsWith("status records=5 ")) << "a refused command did nothing";

  nphost.signal(SIGTERM);
  EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
}

// The failure of the work a wait is for ends the wait at once, whichever road the command took;
// a failure logged before the command began does not.
TEST_F(OneCommandOperation, AWaitForSuccessEndsAtOnceWhenTheFailureIsLogged) {
  // The data file's last line is rejected: a reload of it without reuse fails.
  ASSERT_EQ(mkfifo((folderM / "events").c_str(), 0600), 0);
  Nphost nphost(folderM, {"run", "reg.toml", "--input", "events", "--control", "np.sock", "--log", "log.txt"});
  SocketClient raw(folderM / "np.sock");
  ASSERT_TRUE(raw.connected()) << nphost.errors();
  // Long enough that a wait that is not ended by the failure shows as a timeout, not a hang.
  const std::string longWait = "20000";
  EXPECT_EQ(ctl(folderM, {"--wait", "EVT::RELOAD_SUCCESSFUL", "--timeout", longWait, "np.sock", "update", "Reload",
                          "ReuseOnFailure=FALSE"}),
            std::make_pair(1, std::string("update result=false taken=true\nawait EVT::RELOAD_SUCCESSFUL failed\n")));
  // Through the worker the failure comes after the answer.
  EXPECT_EQ(ctl(folderM, {"--wait", "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL", "--timeout", longWait, "np.sock", "probe",
                          "deltaLoad", "absent.txt"}),
            std::make_pair(1, std::string("probe deltaLoad result=true\nawait EVT::ADD_NUM_PORT_DATA_SUCCESSFUL failed\n")));
  EXPECT_EQ(raw.ask("after EVT::RELOAD_SUCCESSFUL " + longWait + " probe reload FALSE"), "probe reload result=true");
  EXPECT_EQ(raw.readLine(), "await EVT::RELOAD_SUCCESSFUL failed");
  // Earlier failures are not this command's.
  EXPECT_EQ(ctl(folderM, {"--wait", "EVT::RELOAD_SUCCESSFUL", "--timeout", "100", "np.sock", "search", "0033",
                          "20240101000000"}),
            std::make_pair(1, std::string("not-found\nawait EVT::RELOAD_SUCCESSFUL timeout\n")));
  // A wait for another identifier is not ended by a failure event.
  EXPECT_EQ(ctl(folderM, {"--wait", "INF_NUM_NPORT_RELOADED", "--timeout", "100", "np.sock", "update", "Reload",
                          "ReuseOnFailure=FALSE"}),
            std::make_pair(1, std::string("update result=false taken=true\nawait INF_NUM_NPORT_RELOADED timeout\n")));
  nphost.signal(SIGTERM);
  EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();

  Nphost script(folderM, {"script", "reg.toml", "--log", "script-log.txt"});
  script.write("after EVT::RELOAD_SUCCESSFUL " + longWait + " update Reload ReuseOnFailure=FALSE\n");
  EXPECT_EQ(script.finish(), 0) << script.errors();
  EXPECT_THAT(script.rest(), ElementsAre("construct valid=true", "init result=true", "update result=false taken=true",
                                         "await EVT::RELOAD_SUCCESSFUL failed"));
}

}  // namespace
