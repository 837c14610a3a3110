// What nphost says when something fails beneath a command: a rewrite of the data file that did
// not complete (a full disk, a read-only folder) turns a plug-in's success into "saved=false";
// an allocation failure ends the command, init or check that met it with its cause in words, and
// the process goes on; a worker that ended shows as stopped and refuses the probes it would drop.
#include "Nphost.h"
#include "ProcessWatch.h"
#include "ProgramFolderTest.h"
#include "SocketClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <string_view>

namespace {

using namespace NphostTest;
using namespace testing;

class FailureReport : public ProgramFolderTest {
protected:
  void TearDown() override {
    if (mountedM) std::system(("umount -l " + (folderM / "data").string()).c_str());
    ProgramFolderTest::TearDown();
  }
  // The data file on a small tmpfs of its own at data/, mounted by the test (it runs as root).
  bool mountDataFolder() {
    fs::create_directory(folderM / "data");
    const std::string command = "mount -t tmpfs -o size=512k tmpfs " + (folderM / "data").string() + " 2>/dev/null";
    mountedM = std::system(command.c_str()) == 0;
    if (!mountedM) return false;
    std::string data = readFile("np.txt");
    for (int i = 0; i < 2000; ++i) data += "004940" + std::to_string(100000 + i) + "  20200101000000  PAD\n";
    writeFile("data/np.txt", data);
    std::string text = readFile("reg.toml");
    text.replace(text.find("\"np.txt\""), 8, "\"data/np.txt\"");
    writeFile("reg.toml", text);
    return true;
  }
  static bool shell(const std::string& command) { return std::system(command.c_str()) == 0; }
  std::string status(const std::string& key) const {
    const std::string line = ctl(folderM, {"np.sock", "status"}).second;
    const auto at = line.find(" " + key + "=");
    return at == std::string::npos ? "<none>" : line.substr(at + key.size() + 2, line.find_first_of(" \n", at + 1 + key.size() + 1) - at - key.size() - 2);
  }

  bool mountedM = false;
};

// The delta is served but not in the file: the answer, ctl's status and `status` say so, the
// file stays whole, a reload shows the delta as lost, and once the fault is gone the delta load
// run again rewrites the file.
TEST_F(FailureReport, ARewriteThatFailsIsToldInTheAnswerAndTheStatus) {
  if (!mountDataFolder()) GTEST_SKIP() << "mounting a tmpfs is not permitted here (the test runs it as root)";
  const std::string data = (folderM / "data").string();
  writeFile("delta.txt", "0033123456  20000101000000  FRA\n");
  struct Fault {
    const char* name;
    std::function<bool()> make, undo;
  };
  const Fault faults[] = {
      {"a full disk", [&] { return !shell("cat /dev/zero > " + data + "/filler 2>/dev/null"); },
       [&] { return fs::remove(data + "/filler"); }},
      {"a read-only folder", [&] { return shell("mount -o remount,ro " + data); },
       [&] { return shell("mount -o remount,rw " + data); }},
  };
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.name);
    Nphost nphost(folderM, {"run", "reg.toml", "--control", "np.sock", "--log", "log.txt"});
    ASSERT_TRUE(SocketClient(folderM / "np.sock").connected()) << nphost.errors();
    const std::string before = readFile("data/np.txt");
    ASSERT_TRUE(fault.make());
    EXPECT_EQ(ctl(folderM, {"np.sock", "update", "AdditionalNumPortData=delta.txt"}),
              std::make_pair(1, std::string("update result=true taken=true saved=false\n")));
    EXPECT_EQ(status("delta_result"), "unsaved");
    EXPECT_EQ(ctl(folderM, {"np.sock", "search", "0033123456", "20240101000000"}).second, "found FRA 20000101000000\n");
    EXPECT_TRUE(readFile("data/np.txt") == before) << "the data file changed";
    EXPECT_THAT(readFile("log.txt"), HasSubstr("ERR_FILE_NOT_WRITTEN [\"data/np.txt\""));

    EXPECT_EQ(ctl(folderM, {"np.sock", "update", "Reload"}).second, "update result=true taken=true\n");
    EXPECT_EQ(status("delta_result"), "failed") << "a reload read the file without the delta";
    // Through the worker the answer comes before the work: only `status` can tell.
    EXPECT_EQ(ctl(folderM, {"--wait", "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL", "np.sock", "probe", "deltaLoad", "delta.txt"}),
              std::make_pair(0, std::string("probe deltaLoad result=true\nawait EVT::ADD_NUM_PORT_DATA_SUCCESSFUL ok\n")));
    EXPECT_EQ(status("delta_result"), "unsaved");
    ASSERT_TRUE(fault.undo());
    EXPECT_EQ(ctl(folderM, {"np.sock", "update", "AdditionalNumPortData=delta.txt"}),
              std::make_pair(0, std::string("update result=true taken=true\n")));
    EXPECT_EQ(status("delta_result"), "ok");
    EXPECT_THAT(readFile("data/np.txt"), HasSubstr("0033123456"));
    nphost.signal(SIGTERM);
    EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
  }

  // Script mode answers the same way.
  ASSERT_TRUE(faults[1].make());
  Nphost script(folderM, {"script", "reg.toml", "--log", "log.txt"});
  script.write("update AdditionalNumPortData=delta.txt\n");
  EXPECT_EQ(script.finish(), 0) << script.errors();
  EXPECT_THAT(script.rest(), Contains("update result=true taken=true saved=false"));
  EXPECT_TRUE(faults[1].undo());
}

// `ctl delta` and `ctl print` fail where the folder refuses the write: the delta is served but
// not saved, and the print leaves an earlier dump in place, which begins with the banner too.
TEST_F(FailureReport, OperationsInOneCommandFailWhereTheFolderRefusesTheWrite) {
  if (!mountDataFolder()) GTEST_SKIP() << "mounting a tmpfs is not permitted here (the test runs it as root)";
  writeFile("delta.txt", "0033123456  20000101000000  FRA\n");
  Nphost nphost(folderM, {"run", "reg.toml", "--control", "np.sock", "--log", "log.txt"});
  ASSERT_TRUE(SocketClient(folderM / "np.sock").connected()) << nphost.errors();
  ASSERT_EQ(ctl(folderM, {"np.sock", "print", "data/dump.txt"}).first, 0);
  const std::string earlier = readFile("data/dump.txt");
  ASSERT_TRUE(shell("mount -o remount,ro " + (folderM / "data").string()));

  const auto [deltaStatus, delta] = ctl(folderM, {"np.sock", "delta", "delta.txt"});
  EXPECT_EQ(deltaStatus, 1);
  EXPECT_THAT(delta, StartsWith("delta failed: update result=true taken=true saved=false; the delta serves, but the "
                                "data file does not hold it\nstatus records=2005 "));
  EXPECT_THAT(delta, HasSubstr(" delta_result=unsaved "));
  const auto [printStatus, print] = ctl(folderM, {"np.sock", "print", "data/dump.txt"});
  EXPECT_EQ(printStatus, 1);
  EXPECT_THAT(print, StartsWith("print failed: update result=true taken=true; ERR_FILE_NOT_WRITTEN was logged (the log "
                                "says why)\nstatus records=2005 "));
  EXPECT_TRUE(readFile("data/dump.txt") == earlier) << "the earlier dump changed";

  EXPECT_TRUE(shell("mount -o remount,rw " + (folderM / "data").string()));
  nphost.signal(SIGTERM);
  EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
}

// The worker ends with the plug-in: `status` says so and a probe is refused, not taken.
TEST_F(FailureReport, AStoppedWorkerShowsInTheStatusAndRefusesProbes) {
  Nphost nphost(folderM, {"script", "reg.toml", "--log", "log.txt"});
  nphost.write("status\nshutdown\nstatus\nprobe reload TRUE\nprobe printData dump.txt\n");
  EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
  EXPECT_THAT(nphost.rest(), ElementsAre("construct valid=true", "init result=true", HasSubstr(" worker=running "),
                                         "shutdown result=true", HasSubstr(" worker=stopped "),
                                         "error the background worker has stopped",
                                         "error the background worker has stopped"));
  EXPECT_FALSE(fs::exists(folderM / "dump.txt"));
}

// Under an address-space limit (prlimit; the sanitizers' own address space rules it out).
class MemoryLimit : public FailureReport {
protected:
  void SetUp() override {
    FailureReport::SetUp();
    if (std::string_view(NP_SANITIZER_BUILD) != "") GTEST_SKIP() << "a sanitizer's address space rules prlimit out";
    if (!shell("prlimit --version > /dev/null 2>&1")) GTEST_SKIP() << "prlimit is not installed";
    ASSERT_TRUE(shell(std::string(NPGEN_PROGRAM) + " --records 3000000 --data " + (folderM / "big.txt").string() +
                      " > /dev/null 2>&1"));
    setenv("MALLOC_ARENA_MAX", "1", 1);  // the limit then counts memory, not reserved arenas
  }
  void TearDown() override {
    unsetenv("MALLOC_ARENA_MAX");
    FailureReport::TearDown();
  }
  static Lines limited(int mebibytes) { return {"prlimit", "--as=" + std::to_string(mebibytes << 20)}; }
  // Room for the program with a few records (about 85 MiB of address space), not for a second
  // tree of the three million records beside it (the standby tree of a reload runs out before
  // it is published) nor for both trees of them (init: about 250 MiB).
  static constexpr int runMebibytesCM = 160;
  static constexpr const char* exhaustedCM = "memory ran out (std::bad_alloc)";
};

TEST_F(MemoryLimit, AnAllocationFailureEndsOnlyTheCommandThatMetIt) {
  Nphost nphost(folderM, {"run", "reg.toml", "--control", "np.sock", "--log", "log.txt"}, "stderr.txt", limited(runMebibytesCM));
  ASSERT_TRUE(SocketClient(folderM / "np.sock").connected()) << nphost.errors();
  fs::copy_file(folderM / "big.txt", folderM / "np.txt", fs::copy_options::overwrite_existing);
  EXPECT_EQ(ctl(folderM, {"np.sock", "update", "Reload"}),
            std::make_pair(1, "error the command was ended by an unexpected failure: " + std::string(exhaustedCM) + "\n"));
  EXPECT_THAT(readFile("log.txt"), HasSubstr("CRITICAL(5) nphost ERR_NPHOST_COMMAND_FAILED [\"update Reload\", \"" +
                                             std::string(exhaustedCM) + "\"]"));
  EXPECT_THAT(ctl(folderM, {"np.sock", "status"}), Pair(0, StartsWith("status records=")));
  nphost.write("004930123456;20240101000000\n");
  EXPECT_EQ(nphost.readLine(), "004930123456;20240101000000;OPB");
  nphost.signal(SIGTERM);
  EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
}

TEST_F(MemoryLimit, AnAllocationFailureInInitOrCheckIsSaidInOneSentence) {
  fs::copy_file(folderM / "big.txt", folderM / "np.txt", fs::copy_options::overwrite_existing);
  writeFile("out.txt", "earlier\n");
  Nphost run(folderM, {"run", "reg.toml", "--output", "out.txt", "--log", "log.txt"}, "stderr.txt", limited(runMebibytesCM));
  EXPECT_EQ(run.finish(), 3);
  EXPECT_THAT(readFile("log.txt"), HasSubstr("ERR_NPHOST_COMMAND_FAILED [\"init\", \"" + std::string(exhaustedCM) + "\"]"));
  EXPECT_EQ(readFile("out.txt"), "earlier\n");

  // Well below what checking the three million records takes, so that a leaner store still meets the limit.
  Nphost check(folderM, {"check", "reg.toml"}, "check-stderr.txt", limited(48));
  EXPECT_EQ(check.finish(), 3);
  EXPECT_EQ(check.errors(), "nphost: the check of 'np.txt' was ended by an unexpected failure: " + std::string(exhaustedCM) + ".\n");
}

// Needs the framework's worker thread to end on an exception instead of ending the process.
TEST_F(MemoryLimit, AWorkerEndedByAFailureShowsStoppedAndRefusesProbes) {
  Nphost nphost(folderM, {"run", "reg.toml", "--control", "np.sock", "--log", "log.txt"}, "stderr.txt", limited(runMebibytesCM));
  ASSERT_TRUE(SocketClient(folderM / "np.sock").connected()) << nphost.errors();
  fs::copy_file(folderM / "big.txt", folderM / "np.txt", fs::copy_options::overwrite_existing);
  EXPECT_EQ(ctl(folderM, {"np.sock", "probe", "reload", "TRUE"}).second, "probe reload result=true\n");
  EXPECT_TRUE(eventually([&] { return status("worker") == "stopped"; }));
  EXPECT_EQ(ctl(folderM, {"np.sock", "probe", "deltaLoad", "np.txt"}),
            std::make_pair(1, std::string("error the background worker has stopped\n")));
  nphost.signal(SIGTERM);
  EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
}

}  // namespace
