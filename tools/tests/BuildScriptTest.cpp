// The build scripts as a user without root meets them on a machine that lacks packages: one
// sentence with the apt-get line to run as root, the packages of that build only, and a stop
// before anything is configured. The user is `nobody` (the test runs as root) or the test's own;
// the missing packages are those of an empty dpkg database (DPKG_ADMINDIR), and `sudo` is left
// off the path, as on a fresh Debian machine.
#include "testing/ScriptRun.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace {

namespace fs = std::filesystem;

const std::string mainPackages =
    "apt-get update && apt-get install -y --no-install-recommends cmake ninja-build g++ pkg-config libtomlplusplus-dev "
    "libcli11-dev nlohmann-json3-dev libfmt-dev libxxhash-dev libcpp-httplib-dev libsystemd-dev";
const std::string testPackages = "libgtest-dev libgmock-dev logrotate systemd dpkg-dev file debootstrap prometheus";

class BuildScriptWithoutRoot : public testing::Test {
protected:
  void SetUp() override {
    if (::geteuid() == 0 && !fs::exists("/usr/bin/setpriv")) GTEST_SKIP() << "setpriv is needed to run as nobody";
    std::string pattern = "/tmp/np-build-script.XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folderM = pattern;
    fs::create_directories(folderM / "checkout" / "tools");
    for (const char* script : {"build.sh", "build-and-test.sh", "install-deps.sh"})
      fs::copy_file(fs::path(NP_SOURCE_DIRECTORY) / "tools" / script, folderM / "checkout" / "tools" / script);
    fs::create_directories(folderM / "dpkg");
    std::ofstream(folderM / "dpkg" / "status");
    // Every program of the system's folders but sudo.
    fs::create_directory(folderM / "bin");
    for (const char* system : {"/usr/bin", "/usr/sbin", "/bin", "/sbin"})
      for (const auto& entry : fs::directory_iterator(system))
        if (entry.path().filename() != "sudo" && !fs::exists(fs::symlink_status(folderM / "bin" / entry.path().filename())))
          fs::create_symlink(entry.path(), folderM / "bin" / entry.path().filename());
    if (::geteuid() == 0) {
      for (const auto& entry : fs::recursive_directory_iterator(folderM))
        ASSERT_EQ(::lchown(entry.path().c_str(), 65534, 65534), 0) << entry.path();
      ASSERT_EQ(::chown(folderM.c_str(), 65534, 65534), 0);
    }
  }
  void TearDown() override {
    if (!folderM.empty()) fs::remove_all(folderM);
  }

  NpTest::ScriptResult run(const std::vector<std::string>& command) const {
    std::vector<std::string> words;
    if (::geteuid() == 0)
      words = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"};
    words.push_back("/bin/bash");
    words.push_back("tools/" + command.front());
    words.insert(words.end(), command.begin() + 1, command.end());
    return NpTest::runScript(words, folderM / "checkout",
                             {"PATH=" + (folderM / "bin").string(), "DPKG_ADMINDIR=" + (folderM / "dpkg").string(),
                              "HOME=" + folderM.string()},
                             false);
  }

  fs::path folderM;
};

TEST_F(BuildScriptWithoutRoot, NamesThePackagesOfThatBuildInOneSentenceAndStops) {
  const struct {
    std::vector<std::string> command;
    std::string line;
  } cases[] = {
      {{"build.sh"}, mainPackages},
      {{"build.sh", "gcc"}, mainPackages},
      {{"build.sh", "clang"}, mainPackages + " && apt-get install -y clang"},
      {{"build.sh", "--tests"}, mainPackages + " && apt-get install -y " + testPackages},
      {{"build-and-test.sh"}, mainPackages + " && apt-get install -y " + testPackages},
      {{"build-and-test.sh", "tsan"}, mainPackages + " && apt-get install -y clang libclang-rt-14-dev " + testPackages},
  };
  for (const auto& [command, line] : cases) {
    const NpTest::ScriptResult result = run(command);
    const std::string shown = command.front() + (command.size() > 1 ? " " + command[1] : "");
    EXPECT_EQ(result.status, 1) << shown << "\n" << result.output << result.errors;
    EXPECT_EQ(result.output, "") << shown;
    EXPECT_EQ(result.errors, "Packages are missing and only root can install them: run \"" + line +
                                 "\" as root, then this command again.\n")
        << shown;
    for (const auto& entry : fs::recursive_directory_iterator(folderM / "checkout"))
      EXPECT_NE(entry.path().filename(), "CMakeCache.txt") << shown << ": configured all the same";
  }
}

}  // namespace
