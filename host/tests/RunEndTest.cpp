// How `nphost run` begins and ends under the faults an operator meets: a signal during the
// start-up load, a FIFO whose other end never comes, the control socket before the data serves,
// and event lines of any length (memory stays bounded, the output keeps every byte and order).
#include "Nphost.h"
#include "ProcessWatch.h"
#include "ProgramFolderTest.h"
#include "SocketClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string_view>

namespace {

using namespace NphostTest;
using namespace testing;

// A data file large enough that its load takes a while, made once for the suite.
class RunEnd : public ProgramFolderTest {
protected:
  static void SetUpTestSuite() {
    bigFolderG = fs::temp_directory_path() / ("nphost-big-" + std::to_string(getpid()));
    fs::create_directories(bigFolderG);
    const std::string command = std::string(NPGEN_PROGRAM) + " --records " + std::to_string(bigRecordsCM) + " --data " +
                                (bigFolderG / "np.txt").string() + " > /dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0);
  }
  static void TearDownTestSuite() { fs::remove_all(bigFolderG); }
  void useBigData() const {
    fs::remove(folderM / "np.txt");
    fs::create_hard_link(bigFolderG / "np.txt", folderM / "np.txt");
  }
  std::set<std::string> folderEntries() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folderM)) names.insert(entry.path().filename().string());
    return names;
  }
  bool logged(const std::string& id, const std::string& log = "log.txt") const { return fileHas(folderM / log, id); }

  // A sanitizer's build loads many times slower: fewer records take as long.
  static constexpr int bigRecordsCM = std::string_view(NP_SANITIZER_BUILD).empty() ? 1'000'000 : 300'000;
  static inline fs::path bigFolderG;
};

TEST_F(RunEnd, ASignalDuringTheStartUpLoadEndsTheRunAndLeavesTheOutputAsItWas) {
  useBigData();
  writeFile("out.txt", "enriched by an earlier run\n");
  Nphost nphost(folderM, {"run", "reg.toml", "--output", "out.txt", "--control", "np.sock", "--log", "log.txt"});
  ASSERT_TRUE(eventually([&] { return logged("INF_LOAD_DATA"); })) << nphost.errors();
  // Held still while the signal arrives, so that it lands in the load whatever the build's speed.
  nphost.signal(SIGSTOP);
  ASSERT_FALSE(logged("INF_NUM_NPORT_LOADED")) << "the load ended before the test could stop it; make the data larger";
  nphost.signal(SIGTERM);
  nphost.signal(SIGCONT);
  EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
  // A sanitizer's runtime may run the handler only once the busy load reaches one of its
  // interceptions, so there the end may follow the load.
  if (std::string_view(NP_SANITIZER_BUILD).empty()) {
    EXPECT_FALSE(logged("INF_NUM_NPORT_LOADED")) << "the run waited for the load to end";
  }
  EXPECT_EQ(readFile("out.txt"), "enriched by an earlier run\n");
  // Neither the socket nor its hidden place is left behind.
  EXPECT_EQ(folderEntries(), (std::set<std::string>{"reg.toml", "np.txt", "out.txt", "log.txt", "stderr.txt"}));
}

TEST_F(RunEnd, TheControlSocketAppearsOnlyOnceTheDataServes) {
  useBigData();
  // What a run killed while it loaded leaves behind: its hidden socket, named for a process gone.
  const pid_t gone = fork();
  if (gone == 0) _exit(0);
  ASSERT_GT(gone, 0);
  waitpid(gone, nullptr, 0);
  const std::string leftOver = ".nphost-" + std::to_string(gone);
  {
    const int socketDescriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    const std::string path = (folderM / leftOver).string();
    std::memcpy(where.sun_path, path.c_str(), path.size() + 1);
    ASSERT_EQ(bind(socketDescriptor, reinterpret_cast<const sockaddr*>(&where), sizeof where), 0);
    close(socketDescriptor);
  }
  Nphost nphost(folderM, {"run", "reg.toml", "--control", "np.sock", "--log", "log.txt"});
  ASSERT_TRUE(eventually([&] { return logged("INF_LOAD_DATA"); })) << nphost.errors();
  nphost.signal(SIGSTOP);  // held in the middle of its load
  ASSERT_FALSE(logged("INF_NUM_NPORT_LOADED")) << "the load ended before the test could stop it; make the data larger";
  EXPECT_FALSE(fs::exists(folderM / "np.sock")) << "the socket was there before the data served";
  nphost.signal(SIGCONT);
  SocketClient client(folderM / "np.sock");
  EXPECT_FALSE(fs::exists(folderM / leftOver)) << "a dead run's hidden socket stays for ever";
  EXPECT_THAT(client.ask("status"), StartsWith("status records=" + std::to_string(bigRecordsCM) + " "));
  EXPECT_EQ(fs::symlink_status(folderM / "np.sock").permissions(), fs::perms::owner_read | fs::perms::owner_write);
  nphost.signal(SIGTERM);
  EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
}

// A FIFO whose other end never comes keeps no open from ending the run on a signal; one whose
// reader comes late gets every record.
TEST_F(RunEnd, ASignalEndsARunThatWaitsForTheOtherEndOfAFifo) {
  ASSERT_EQ(mkfifo((folderM / "in.fifo").c_str(), 0600) | mkfifo((folderM / "out.fifo").c_str(), 0600), 0);
  writeFile("events.txt", "004930123456;20240101000000\n");
  const Lines cases[] = {{"--input", "in.fifo"}, {"--input", "events.txt", "--output", "out.fifo"}};
  for (const Lines& files : cases) {
    Lines words = {"run", "reg.toml", "--log", "log.txt"};
    words.insert(words.end(), files.begin(), files.end());
    fs::remove(folderM / "log.txt");
    Nphost nphost(folderM, words);
    EXPECT_TRUE(eventually([&] { return logged("INF_NUM_NPORT_LOADED"); })) << files[1] << nphost.errors();
    nphost.signal(SIGTERM);
    EXPECT_EQ(nphost.waitForExit(), 0) << files[1] << " " << nphost.errors();
  }
  Nphost late(folderM, {"run", "reg.toml", "--input", "events.txt", "--output", "out.fifo", "--log", "log.txt"});
  EXPECT_EQ(readText(folderM / "out.fifo"), "004930123456;20240101000000;OPB\n");
  EXPECT_EQ(late.waitForExit(), 0) << late.errors();
}

// A line over the limit leaves unchanged with the delimiter and an empty operator, in its place,
// counted as rejected and reported with its line number; a line at the limit is looked up.
TEST_F(RunEnd, ALineOverTheLimitIsPassedOnUnchangedAndReportedInItsPlace) {
  const std::string megaX(3 << 20, 'x'), megaY(2 << 20, 'y');
  const std::string at = "004930123456;20240101000000;", over = at + "z";  // 28 and 29 bytes
  struct Case {
    Lines options;
    std::string input, output;
    std::vector<int> reported;  // line numbers
    std::string counts;
  };
  const Case cases[] = {
      {{}, "004930123456;20240101000000\n" + megaX + "\n004930123456;20210101000000;k\n",
       "004930123456;20240101000000;OPB\n" + megaX + ";\n004930123456;20210101000000;k;OPA\n", {2},
       "3 records: 2 found, 0 not found, 1 rejected"},
      {{}, megaY + "\r\n004930123456;20240101000000\n" + megaX,
       megaY + ";\r\n004930123456;20240101000000;OPB\n" + megaX + ";\n", {1, 3},
       "3 records: 1 found, 0 not found, 2 rejected"},
      {{"--max-line", "28"}, at + "\n" + over + "\n" + over + "\r\n" + at,
       at + ";OPB\n" + over + ";\n" + over + ";\r\n" + at + ";OPB\n", {2, 3},
       "4 records: 2 found, 0 not found, 2 rejected"},
  };
  for (const Case& c : cases) {
    Lines words = {"run", "reg.toml", "--log", "log.txt"};
    words.insert(words.end(), c.options.begin(), c.options.end());
    fs::remove(folderM / "log.txt");
    Nphost nphost(folderM, words);
    std::thread feeder([&] {
      nphost.write(c.input);
      nphost.endInput();
    });
    std::string output;
    for (std::string line; (line = nphost.readLine()) != "<end>" && line != "<no answer>";) output += line + "\n";
    feeder.join();
    EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
    EXPECT_TRUE(output == c.output) << "the case with " << c.reported.size() << " long lines wrote " << output.size()
                                    << " bytes, not " << c.output.size();
    EXPECT_THAT(nphost.errors(), HasSubstr(c.counts));
    const std::string limit = c.options.empty() ? "1048576" : c.options.back();
    const Lines log = linesOf(folderM / "log.txt");
    EXPECT_THAT(log, Contains(HasSubstr("ERR_EVENT_RECORD_")).Times(static_cast<int>(c.reported.size())));
    for (const int line : c.reported)
      EXPECT_THAT(log, Contains(HasSubstr("MINOR(2) nphost ERR_EVENT_RECORD_TOO_LONG [\"" + std::to_string(line) +
                                          "\", \"-\", \"" + limit + "\"]")));
  }
}

// An input without any line end (/dev/zero) streams through in pieces: memory stays small
// whatever has been read, and a signal still ends the run with the line counted as rejected.
TEST_F(RunEnd, AnEndlessLineKeepsMemoryBounded) {
  Nphost nphost(folderM, {"run", "reg.toml", "--input", "/dev/zero", "--output", "/dev/null", "--log", "log.txt"});
  constexpr long long readAtLeast = 1LL << 30;
  ASSERT_TRUE(eventually([&] { return procFigure(nphost.pid(), "io", "rchar:") >= readAtLeast; })) << nphost.errors();
  EXPECT_LT(procFigure(nphost.pid(), "status", "VmHWM:"), 256 * 1024) << "kB, after reading 1 GiB";
  nphost.signal(SIGTERM);
  EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
  EXPECT_THAT(nphost.errors(), HasSubstr("1 record: 0 found, 0 not found, 1 rejected"));
}

}  // namespace
