#include "STR/FileIo.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

class FileIoTest : public ::testing::Test {
protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "FileIoTest.XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directoryM = pattern;
    targetM = (directoryM / "data").string();
  }
  void TearDown() override {
    STR::FileIo::failWritesAfterForTesting(-1);
    fs::remove_all(directoryM);
  }

  void write(const std::string& content) { std::ofstream(targetM, std::ios::binary) << content; }
  std::string contents() const {
    std::ifstream in(targetM, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  std::vector<std::string> directoryEntries() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directoryM)) names.push_back(entry.path().filename().string());
    return names;
  }

  fs::path directoryM;
  std::string targetM;
};

using Names = std::vector<std::string>;

TEST_F(FileIoTest, ReplacementPublishesOnCloseAndKeepsPermissions) {
  write("old content\n");
  fs::permissions(targetM, fs::perms::owner_read | fs::perms::owner_write);
  const std::string big(200 * 1024, 'n');
  STR::FileIo output(targetM, std::ios_base::out);
  ASSERT_TRUE(output.isOpen());
  output.stream() << "first\n" << big << '\n' << 42 << '\n';
  output.stream().flush();
  EXPECT_EQ(contents(), "old content\n");  // nothing visible before the close
  EXPECT_TRUE(output.closeFile());
  EXPECT_EQ(contents(), "first\n" + big + "\n42\n");
  EXPECT_EQ(directoryEntries(), (Names{"data"}));
  EXPECT_EQ(fs::status(targetM).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_TRUE(output.closeFile());  // nothing open any more
}

TEST_F(FileIoTest, FailedWriteLeavesTheOldFileIntact) {
  std::string old;
  for (int i = 0; i < 1000; ++i) old += "line " + std::to_string(i) + "\n";
  write(old);
  STR::FileIo::failWritesAfterForTesting(100 * 1024);
  STR::FileIo output(targetM, std::ios_base::out);
  ASSERT_TRUE(output.isOpen());
  for (int i = 0; i < 50000; ++i) output.stream() << "replacement line " << i << '\n';
  EXPECT_TRUE(output.stream().bad());
  EXPECT_FALSE(output.closeFile());
  EXPECT_EQ(contents(), old);
  EXPECT_EQ(directoryEntries(), (Names{"data"}));
}

TEST_F(FileIoTest, FileInAMissingDirectoryIsNotOpen) {
  STR::FileIo output((directoryM / "missing" / "data").string(), std::ios_base::out);
  EXPECT_FALSE(output.isOpen());
  output.stream() << "ignored\n";
  EXPECT_TRUE(output.stream().bad());
  EXPECT_TRUE(output.closeFile());
  EXPECT_EQ(directoryEntries(), Names{});
}

TEST_F(FileIoTest, DestructorPublishesANewFileAndAppendModeWritesInPlace) {
  { STR::FileIo(targetM, std::ios_base::out).stream() << "one\n"; }
  STR::FileIo output(targetM, std::ios_base::out | std::ios_base::app);
  ASSERT_TRUE(output.isOpen());
  output.stream() << "two\n";
  EXPECT_TRUE(output.closeFile());
  EXPECT_EQ(contents(), "one\ntwo\n");
  EXPECT_EQ(directoryEntries(), (Names{"data"}));
}

}  // namespace
