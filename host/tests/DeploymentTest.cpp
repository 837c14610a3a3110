// nphost as an operator deploys it: installed with `cmake --install` into a prefix of its own,
// started as the example systemd unit starts it, its log rotated by the example logrotate
// configuration. The examples are run with their paths moved into a test folder; everything
// else in them (commands, options, signals, rotation settings) is used as written.
#include "ProcessText.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <thread>

extern char** environ;

namespace NphostTest {
namespace {

using namespace std::chrono_literals;

// Starts `words` in `folder` with standard output and error into `output`; the process id.
pid_t start(const Lines& words, const fs::path& folder, const fs::path& output) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
  std::vector<std::string> copies(words);
  std::vector<char*> argv;
  for (auto& word : copies) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int failed = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_EQ(failed, 0) << "cannot start " << words.front();
  return failed == 0 ? pid : -1;
}

// The exit status of `pid`, or -1 when it has not ended within `limit` (it is killed then).
int waitFor(pid_t pid, std::chrono::milliseconds limit) {
  int status = 0;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(10ms);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int runToEnd(const Lines& words, const fs::path& folder, const fs::path& output) {
  const pid_t pid = start(words, folder, output);
  return pid < 0 ? -1 : waitFor(pid, 120s);
}

Lines wordsOf(const std::string& line) {
  std::istringstream in(line);
  Lines words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

// The value of the first `key=` line of a unit file.
std::string unitSetting(const std::string& unit, const std::string& key) {
  std::smatch match;
  const std::regex pattern("(^|\n)" + key + "=([^\n]*)");
  return std::regex_search(unit, match, pattern) ? match[2].str() : std::string();
}

// Waits until `condition` holds, a minute at most.
template <class Condition>
bool eventually(Condition condition) {
  for (int i = 0; i < 6'000; ++i, std::this_thread::sleep_for(10ms))
    if (condition()) return true;
  return false;
}

class Deployment : public testing::Test {
protected:
  // One installation for the suite: every test runs the installed program.
  static void SetUpTestSuite() {
    std::string pattern = "/tmp/np-deploy.XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    prefixG = pattern;
    installStatusG = runToEnd({CMAKE_COMMAND, "--install", NP_BUILD_DIRECTORY, "--prefix", prefixG.string()}, "/",
                              prefixG / "install.txt");
  }
  static void TearDownTestSuite() { fs::remove_all(prefixG); }

  void SetUp() override {
    std::signal(SIGPIPE, SIG_IGN);
    ASSERT_EQ(installStatusG, 0) << readText(prefixG / "install.txt");
    std::string pattern = "/tmp/np-service.XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folderM = pattern;
    for (const char* sub : {"etc", "lib", "log", "run", "other"}) fs::create_directory(folderM / sub);
    std::ofstream(folderM / "lib" / "np.txt") << "+4930123456  20200101000000  OPA\n030123456  20230301000000  OPB\n";
    std::ofstream(folderM / "etc" / "registry.toml")
        << "[NumberPortability]\nLibrary = \"DAT_NumberPortability\"\nFileName = \"np.txt\"\n"
           "CountryCode = \"49\"\nNationalAccessCode = \"0\"\n";
  }
  void TearDown() override { fs::remove_all(folderM); }

  // An example file with its system paths moved into the test folder and the installation.
  std::string example(const std::string& name) const {
    std::string text = readText(fs::path(NP_EXAMPLES_DIRECTORY) / name);
    for (const auto& [from, to] : {std::pair<std::string, fs::path>{"/usr/local/", prefixG / ""},
                                   {"/etc/nphost/", folderM / "etc" / ""},
                                   {"/var/lib/nphost", folderM / "lib"},
                                   {"/var/log/nphost/", folderM / "log" / ""},
                                   {"/run/nphost/", folderM / "run" / ""}}) {
      for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.string().size()))
        text.replace(at, from.size(), to.string());
    }
    return text;
  }

  static inline fs::path prefixG;
  static inline int installStatusG = -1;
  fs::path folderM;
};

// The installed program finds its framework library and the plug-in by its bare name from any
// working folder: a run path lost at install or a library left out ends it before main.
TEST_F(Deployment, TheInstalledProgramRunsFromAnyFolderAndFindsThePlugInByName) {
  // The data file's name is relative to the working folder, the registry's is not.
  std::ofstream(folderM / "other" / "script.txt") << "search 004930123456 20240101000000\n";
  const fs::path output = folderM / "other" / "out.txt";
  const int status = runToEnd({"/bin/sh", "-c", prefixG.string() + "/bin/nphost script ../etc/registry.toml < ../other/script.txt"},
                              folderM / "lib", output);
  EXPECT_EQ(status, 0) << readText(output);
  EXPECT_NE(readText(output).find("found OPB 20230301000000"), std::string::npos) << readText(output);
}

// The unit's commands run as systemd would run them: records flow from FIFO to FIFO, the
// example logrotate configuration rotates the log through the unit's reload without losing a
// line, and the unit's stop signal ends the run with status 0. SIGHUP ending the run, or a log
// that is not reopened, fails here.
TEST_F(Deployment, TheExampleServiceRunsAndItsLogRotatesWithoutLosingALine) {
  const std::string unit = example("nphost.service");
  std::ofstream(folderM / "etc" / "nphost.service") << unit;
  const fs::path analysis = folderM / "analysis.txt";
  EXPECT_EQ(runToEnd({"systemd-analyze", "verify", (folderM / "etc" / "nphost.service").string()}, folderM, analysis), 0)
      << readText(analysis);

  const fs::path journal = folderM / "journal.txt";
  ASSERT_EQ(runToEnd(wordsOf(unitSetting(unit, "ExecStartPre")), folderM, journal), 0) << readText(journal);
  const pid_t service = start(wordsOf(unitSetting(unit, "ExecStart")), unitSetting(unit, "WorkingDirectory"), journal);
  ASSERT_GT(service, 0);
  // Opened for reading and writing, so that neither end waits for the other to appear.
  const int events = ::open((folderM / "run" / "events").c_str(), O_RDWR | O_CLOEXEC);
  const int enriched = ::open((folderM / "run" / "enriched").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_TRUE(events >= 0 && enriched >= 0);
  std::string buffer;
  writeAll(events, "004930123456;20240101000000;a\n");
  EXPECT_EQ(nextLine(enriched, buffer), "004930123456;20240101000000;a;OPB");

  const fs::path log = folderM / "log" / "nphost.log";
  const std::string reload = std::regex_replace(unitSetting(unit, "ExecReload"), std::regex("\\$MAINPID"),
                                                std::to_string(service));
  std::string rotation = example("nphost.logrotate");
  rotation.replace(rotation.find("systemctl reload nphost.service"), 31, reload);
  std::ofstream(folderM / "etc" / "nphost.logrotate") << rotation;
  const fs::path rotated = folderM / "rotate.txt";
  ASSERT_EQ(runToEnd({"logrotate", "--state", (folderM / "state").string(), "--force", (folderM / "etc" / "nphost.logrotate").string()},
                     folderM, rotated), 0) << readText(rotated);

  // nphost makes the new file as it reopens the log; the line below must then be logged there.
  ASSERT_TRUE(eventually([&] { return fs::exists(log); })) << "no new log; journal:\n" << readText(journal);
  writeAll(events, "bad\n");
  EXPECT_EQ(nextLine(enriched, buffer), "bad;");
  EXPECT_TRUE(eventually([&] { return readText(log).find("ERR_EVENT_RECORD_FIELDS") != std::string::npos; }))
      << readText(journal);
  const std::string before = readText(folderM / "log" / "nphost.log.1");
  EXPECT_NE(before.find("INF_NUM_NPORT_LOADED"), std::string::npos) << before;
  EXPECT_EQ(before.find("ERR_EVENT_RECORD_FIELDS"), std::string::npos) << before;

  kill(service, SIGTERM);
  EXPECT_EQ(waitFor(service, std::chrono::seconds(std::stoi(unitSetting(unit, "TimeoutStopSec")))), 0) << readText(journal);
  EXPECT_NE(readText(journal).find("2 records: 1 found, 0 not found, 1 rejected"), std::string::npos) << readText(journal);
  close(events);
  close(enriched);
}

}  // namespace
}  // namespace NphostTest
