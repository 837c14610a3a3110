// Data files that production will one day deliver: enormous lines and keys, control and
// non-ASCII bytes, Windows line ends, a directory, a file that comes and goes, and a disk that
// fills up during the rewrite after a delta load. Each must end in the system's own messages,
// keep the data that was there, and leave the process running.
#include "plugin/tests/TestEnvironment.h"

#include "BAS/Log.h"
#include "BAS/ProtectedBool.h"
#include "STR/FileIo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

using NpTest::TestEnvironment;
using namespace std::string_literals;
using Args = std::vector<std::vector<std::string>>;

bool update(TestEnvironment& env, const std::string& key, const std::string& value) {
  BAS::RegistryEntry entry{BAS::String(TestEnvironment::pluginName)};
  entry.add(BAS::String(key), BAS::String(value));
  if (key == "Reload") entry.add(BAS::String("ReuseOnFailure"), BAS::String("FALSE"));
  BAS::ProtectedBool taken;
  return env.plugIn->registryUpdate(&entry, taken);
}

std::vector<std::string> folderContents(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

struct HostileFile {
  const char* label;
  std::string content;
  // Records loaded into each tree, and what is logged for the rejected lines.
  unsigned loaded;
  std::vector<std::string> rejections;
  // A lookup that must answer afterwards (number, operator), or none when number is empty.
  std::string number;
  std::string expectedOperator;
  // A reload succeeds when the last line of the file loads.
  bool reloads = true;
};

TEST(HostileDataFile, LoadsWhatIsReadableAndReportsTheRest) {
  const std::string millionDigits = "0049" + std::string(1000000, '7');
  const std::string good = "004930111 20200101000000 GOOD\n";
  const std::vector<HostileFile> files = {
      {"a key of a million digits", millionDigits + " 20200101000000 DEEP\n" + good, 2, {}, millionDigits, "DEEP"},
      {"NUL bytes inside fields", "0049301\0"s "22 20200101000000 N\0UL\n" + "00493033\0 2020\0"s "0101000000 X\n" + good,
       2, {"ERR_INVALID_DATETIME"}, "004930122", "N\0UL"s},
      {"only separators", " \t \n\t\t\n   \n", 0,
       {"ERR_NUMBER_OF_FIELDS_IN_RECORD", "ERR_NUMBER_OF_FIELDS_IN_RECORD", "ERR_NUMBER_OF_FIELDS_IN_RECORD"}, "", "",
       false},
      {"CRLF line ends", "004930222 20200101000000 CRLF\r\n004930333 20200101000000 OTHER\r\n", 2, {}, "004930222",
       "CRLF"},
      {"non-ASCII and invalid UTF-8 bytes", "004930444 20200101000000 Ünïcødé\n004930555 20200101000000 \xff\xfe\x80\n", 2,
       {}, "004930555", "\xff\xfe\x80"},
  };
  for (const HostileFile& file : files) {
    SCOPED_TRACE(file.label);
    TestEnvironment env;
    env.configureData(file.content);
    env.start();
    EXPECT_EQ(env.argsOf("INF_NUM_NPORT_LOADED"), (Args{{std::to_string(file.loaded)}}));
    std::vector<std::string> rejections;
    for (const std::string& id : env.ids()) {
      if (id.rfind("ERR_", 0) == 0) rejections.push_back(id);
    }
    // Every rejected line is reported once for each of the two trees.
    std::vector<std::string> expected;
    for (const std::string& id : file.rejections) expected.insert(expected.end(), {id, id});
    EXPECT_EQ(rejections, expected);
    if (!file.number.empty()) {
      EXPECT_EQ(env.lookup(file.number), file.expectedOperator);
    }
    // The loaded data prints and reloads as it was loaded.
    const std::string print = env.path("print.txt");
    ASSERT_TRUE(env.plugIn->cacheManager()->printData(BAS::String(print)));
    EXPECT_EQ(NpTest::readText(print).rfind(NpTest::dumpBanner, 0), 0u);
    EXPECT_EQ(update(env, "Reload", ""), file.reloads);
    EXPECT_EQ(env.argsOf("INF_NUM_NPORT_RELOADED"), (file.reloads ? Args{{std::to_string(file.loaded)}} : Args{}));
    if (!file.number.empty()) {
      EXPECT_EQ(env.lookup(file.number), file.expectedOperator);
    }
  }
}

TEST(HostileDataFile, LineOfAHundredMegabytesIsRejectedAndLoggedShortened) {
  TestEnvironment env;
  const std::size_t size = 100u << 20;
  env.configureData(std::string(size, 'x') + "\n004930111 20200101000000 GOOD\n");
  env.start();
  const auto rejected = env.argsOf("ERR_NUMBER_OF_FIELDS_IN_RECORD");
  ASSERT_EQ(rejected.size(), 2u);
  EXPECT_EQ(rejected[0][2], std::string(BAS::Log::maxArgumentBytesCM, 'x') + "... (" + std::to_string(size) + " bytes in all)");
  EXPECT_EQ(rejected[0][3], "At Line# 1 in File '" + env.path("np.txt") + "'. ");
  EXPECT_EQ(env.lookup("004930111"), "GOOD");
}

TEST(HostileDataFile, DirectoryAsDataFileIsRefusedAndTheDataKept) {
  TestEnvironment env;
  const std::string file = env.configureData("004930111 20200101000000 GOOD\n");
  env.start();
  const std::string folder = env.path("folder");
  std::filesystem::create_directory(folder);
  EXPECT_FALSE(update(env, "AdditionalNumPortData", folder));
  std::filesystem::rename(file, env.path("aside"));
  std::filesystem::create_directory(file);
  EXPECT_FALSE(update(env, "Reload", ""));
  EXPECT_EQ(env.lookup("004930111"), "GOOD");
  // Both were refused when the file was checked, with the name of the directory.
  EXPECT_EQ(env.argsOf("ERR_OPEN_FILE_FAILED"), (Args{{folder}, {file}}));
}

TEST(HostileDataFile, FileThatComesAndGoesDuringReloadsNeverLosesTheData) {
  TestEnvironment env;
  std::string content;
  for (int i = 0; i < 2000; ++i) content += "0049301" + std::to_string(100000 + i) + " 20200101000000 OP\n";
  const std::string file = env.configureData(content);
  env.start();
  const std::string aside = env.path("aside.txt");

  std::atomic<bool> busy{true};
  std::thread mover([&] {
    std::error_code ignored;
    while (busy.load()) {
      std::filesystem::rename(file, aside, ignored);
      std::this_thread::yield();
      std::filesystem::rename(aside, file, ignored);
      std::this_thread::yield();
    }
  });
  int succeeded = 0;
  for (int round = 0; round < 60; ++round) {
    succeeded += update(env, "Reload", "") ? 1 : 0;
    // Without reuse on failure, a failed reload keeps the published data.
    ASSERT_EQ(env.lookup("0049301101999"), "OP");
  }
  busy = false;
  mover.join();
  if (!NpTest::fileExists(file)) std::filesystem::rename(aside, file);

  EXPECT_EQ(env.count("INF_NUM_NPORT_RELOADED"), static_cast<std::size_t>(succeeded));
  EXPECT_EQ(env.count("EVT::RELOAD_FAILED") + succeeded, 60u);
  EXPECT_TRUE(update(env, "Reload", ""));
  EXPECT_TRUE(env.plugIn->isUsable());
  EXPECT_EQ(env.argsOf("INF_NUM_NPORT_RELOADED").back(), std::vector<std::string>{"2000"});
}

TEST(HostileDataFile, DiskFullDuringTheRewriteKeepsTheOldMainFileAndLeavesNoTemporaryFile) {
  TestEnvironment env;
  std::string content;
  for (int i = 0; i < 3000; ++i) content += "0049301" + std::to_string(100000 + i) + " 20200101000000 OLD\n";
  const std::string file = env.configureData(content);
  env.start();
  const std::string delta = env.writeFile("delta.txt", "004930999 20200101000000 NEW\n");
  const std::string empty = env.writeFile("empty.txt", "");
  const std::vector<std::string> before = folderContents(env.dir.path());

  STR::FileIo::failWritesAfterForTesting(4096);
  const bool result = update(env, "AdditionalNumPortData", delta);
  STR::FileIo::failWritesAfterForTesting(-1);
  // The merged data serves lookups; the file on disk is the old one, whole, and alone.
  EXPECT_TRUE(result);
  EXPECT_EQ(env.argsOf("ERR_FILE_NOT_WRITTEN"), (Args{{file, "No space left on device"}}));
  EXPECT_EQ(env.lookup("004930999"), "NEW");
  EXPECT_EQ(NpTest::readText(file), content);
  EXPECT_EQ(folderContents(env.dir.path()), before);

  // The next rewrite writes the merged data.
  ASSERT_TRUE(update(env, "AdditionalNumPortData", empty));
  EXPECT_NE(NpTest::readText(file).find("004930999  20200101000000  NEW\n"), std::string::npos);
  EXPECT_EQ(folderContents(env.dir.path()), before);
}

}  // namespace
