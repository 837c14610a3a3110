// nphost as an operator deploys it: the Debian package made from this build and unpacked into a
// folder of its own, started as its systemd unit starts it, its log rotated by its logrotate
// file. The packaged files are used with their system paths moved into a test folder; everything
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
#include <set>
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
  // One package for the suite, unpacked into root/: every test runs the packaged program.
  static void SetUpTestSuite() {
    std::string pattern = "/tmp/np-deploy.XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    packingG = pattern;
    installStatusG = runToEnd({CPACK_COMMAND, "--config", NP_BUILD_DIRECTORY "/CPackConfig.cmake", "-G", "DEB", "-B",
                               (packingG / "deb").string()},
                              "/", packingG / "install.txt");
    for (const auto& entry : fs::directory_iterator(packingG / "deb"))
      if (entry.path().extension() == ".deb") packageG = entry.path();
    if (installStatusG == 0)
      installStatusG = runToEnd({"dpkg-deb", "-x", packageG.string(), (packingG / "root").string()}, "/",
                                packingG / "install.txt");
    prefixG = packingG / "root" / "usr";
  }
  static void TearDownTestSuite() { fs::remove_all(packingG); }

  void SetUp() override {
    std::signal(SIGPIPE, SIG_IGN);
    ASSERT_EQ(installStatusG, 0) << readText(packingG / "install.txt");
    std::string pattern = "/tmp/np-service.XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folderM = pattern;
    for (const char* sub : {"etc", "lib", "log", "run", "other"}) fs::create_directory(folderM / sub);
    // The packaged registry as it comes, with a data file where it looks for one.
    std::ofstream(folderM / "lib" / "np_data.txt") << "+4930123456  20200101000000  OPA\n030123456  20230301000000  OPB\n";
    fs::copy_file(packingG / "root" / "etc" / "nphost" / "registry.toml", folderM / "etc" / "registry.toml");
  }
  void TearDown() override { fs::remove_all(folderM); }

  // A packaged file with its system paths moved into the test folder and the unpacked package.
  std::string packaged(const fs::path& name) const {
    std::string text = readText(packingG / "root" / name);
    for (const auto& [from, to] : {std::pair<std::string, fs::path>{"/usr/bin/nphost", prefixG / "bin" / "nphost"},
                                   {"/etc/nphost/", folderM / "etc" / ""},
                                   {"/var/lib/nphost", folderM / "lib"},
                                   {"/var/log/nphost/", folderM / "log" / ""},
                                   {"/run/nphost/", folderM / "run" / ""}}) {
      for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.string().size()))
        text.replace(at, from.size(), to.string());
    }
    return text;
  }

  static inline fs::path packingG;  // the package and root/, where it is unpacked
  static inline fs::path packageG;
  static inline fs::path prefixG;   // root/usr
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
// control socket is for the service's group, the packaged logrotate file rotates the log
// through the unit's reload without losing a line, and the unit's stop signal ends the run with
// status 0. SIGHUP ending the run, or a log that is not reopened, fails here.
TEST_F(Deployment, ThePackagedServiceRunsAndItsLogRotatesWithoutLosingALine) {
  const std::string unit = packaged("usr/lib/systemd/system/nphost.service");
  std::ofstream(folderM / "etc" / "nphost.service") << unit;

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
  // The operators of the service's group reach the control socket, nobody else.
  struct stat socket {};
  ASSERT_TRUE(eventually([&] { return lstat((folderM / "run" / "control.sock").c_str(), &socket) == 0; }));
  EXPECT_EQ(socket.st_mode & 07777, 0660u);
  EXPECT_EQ(socket.st_gid, getgid());

  const fs::path log = folderM / "log" / "nphost.log";
  const std::string reload = std::regex_replace(unitSetting(unit, "ExecReload"), std::regex("\\$MAINPID"),
                                                std::to_string(service));
  std::string rotation = packaged("etc/logrotate.d/nphost");
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


// What `command` prints (standard output and error), its exit status in `status`.
std::string outputOf(const Lines& command, int& status) {
  std::string pattern = "/tmp/np-output.XXXXXX";
  const int descriptor = mkstemp(pattern.data());
  close(descriptor);
  status = runToEnd(command, "/", pattern);
  const std::string text = readText(pattern);
  fs::remove(pattern);
  return text;
}

// The package an operator installs: named for the version, holding the program, its libraries
// and every file of the service, its /etc files kept over upgrades, its run-time libraries
// named as dependencies, and a manual page that documents every subcommand nphost has.
TEST_F(Deployment, ThePackageHoldsTheServiceItsConfigurationAndItsManual) {
  int status = 0;
  const std::string architecture = outputOf({"dpkg", "--print-architecture"}, status);
  EXPECT_EQ(packageG.filename().string(),
            std::string("nphost_") + NP_VERSION + "_" + architecture.substr(0, architecture.find('\n')) + ".deb");
  const std::string contents = outputOf({"dpkg-deb", "-c", packageG.string()}, status);
  for (const char* file : {"./usr/bin/nphost", "./usr/lib/libnpframework.so", "./usr/lib/libDAT_NumberPortability.so",
                           "./usr/lib/DAT_NumberPortability.probe", "./usr/lib/systemd/system/nphost.service",
                           "./etc/logrotate.d/nphost", "./etc/nphost/registry.toml", "./usr/share/man/man1/nphost.1.gz",
                           "./usr/share/man/man5/nphost-registry.5.gz", "./usr/share/man/man5/nphost-data.5.gz"})
    EXPECT_TRUE(std::regex_search(contents, std::regex(std::string(" ") + file + "\n"))) << file << " missing:\n" << contents;
  EXPECT_EQ(outputOf({"dpkg-deb", "-f", packageG.string(), "Version"}, status), std::string(NP_VERSION) + "\n");
  const std::string depends = outputOf({"dpkg-deb", "-f", packageG.string(), "Depends"}, status);
  std::set<std::string> named;  // the packages, without their versions
  for (std::istringstream list(depends); list >> std::ws;) {
    std::string entry;
    std::getline(list, entry, ',');
    named.insert(entry.substr(0, entry.find_first_of(" \n")));
  }
  for (const char* dependency : {"adduser", "libfmt9", "libtomlplusplus3", "libsystemd0", "libstdc++6"})
    EXPECT_TRUE(named.contains(dependency)) << dependency << " not in: " << depends;
  // Every library the packaged programs name as needed comes from a package it depends on.
  for (const char* binary : {"bin/nphost", "lib/libnpframework.so", "lib/libDAT_NumberPortability.so"}) {
    const std::string loaded =
        outputOf({"sh", "-c",
                  "f='" + (prefixG / binary).string() +
                      "'; for n in $(readelf -d \"$f\" | sed -n 's/.*Shared library: \\[\\(.*\\)\\]/\\1/p'); do "
                      "ldd \"$f\" | sed -n \"s/^.$n => \\(\\/[^ ]*\\) .*/\\1/p\"; done"},
                 status);
    std::istringstream paths(loaded);
    for (std::string path; std::getline(paths, path);) {
      if (path.starts_with(prefixG.string()) || path.find("clang") != std::string::npos) continue;  // its own; a sanitizer's
      // A merged /usr knows a library by either name; dpkg by the one its package ships.
      const std::string real = fs::canonical(path).string();
      const std::string owner = outputOf({"sh", "-c", "dpkg-query -S '" + real + "' 2>/dev/null || dpkg-query -S '" +
                                                          real.substr(real.starts_with("/usr/") ? 4 : 0) + "'"}, status);
      EXPECT_EQ(status, 0) << path << " belongs to no package";
      EXPECT_TRUE(named.contains(owner.substr(0, owner.find(':')))) << binary << " loads " << path << " of " << owner
                                                                     << ", not in: " << depends;
    }
  }
  EXPECT_EQ(outputOf({"dpkg-deb", "-I", packageG.string(), "conffiles"}, status),
            "/etc/nphost/registry.toml\n/etc/logrotate.d/nphost\n");

  const std::string manual = outputOf({"gzip", "-dc", (prefixG / "share/man/man1/nphost.1.gz").string()}, status);
  const std::string help = outputOf({(prefixG / "bin" / "nphost").string(), "--help"}, status);
  const std::string listed = help.substr(help.find("Subcommands:"));
  int subcommands = 0;
  const std::regex subcommand("\n  ([a-z]+) ");
  for (std::sregex_iterator it(listed.begin(), listed.end(), subcommand), end; it != end; ++it, ++subcommands)
    EXPECT_NE(manual.find(".SS " + (*it)[1].str() + "\n"), std::string::npos) << "nphost(1) lacks " << (*it)[1];
  EXPECT_GE(subcommands, 4) << help;
}

// The packaged unit, its paths moved, passes systemd's own check (its commands exist, its
// manual pages are found), and its hardening rates 3.0 or better, as systemd rates it.
TEST_F(Deployment, ThePackagedUnitIsValidAndHardened) {
  if (access("/usr/bin/systemd-analyze", X_OK) != 0) GTEST_SKIP() << "systemd-analyze is not installed (package systemd)";
  fs::create_directories(folderM / "unit");
  std::ofstream(folderM / "unit" / "nphost.service") << packaged("usr/lib/systemd/system/nphost.service");
  setenv("MANPATH", (prefixG / "share" / "man").c_str(), 1);
  int status = 0;
  const std::string verified = outputOf({"systemd-analyze", "verify", (folderM / "unit" / "nphost.service").string()}, status);
  unsetenv("MANPATH");
  EXPECT_EQ(status, 0) << verified;
  EXPECT_EQ(verified, "");

  const std::string rating = outputOf({"systemd-analyze", "security", "--offline=true", "--no-pager",
                                       (packingG / "root/usr/lib/systemd/system/nphost.service").string()},
                                      status);
  std::smatch score;
  ASSERT_TRUE(std::regex_search(rating, score, std::regex("Overall exposure level for nphost.service: ([0-9]+[.][0-9])")))
      << rating;
  EXPECT_LE(std::stod(score[1]), 3.0) << rating;
}

}  // namespace
}  // namespace NphostTest
