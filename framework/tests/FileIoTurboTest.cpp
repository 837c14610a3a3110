#include "STR/FileIoTurbo.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class FileIoTurboTest : public ::testing::Test {
protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "FileIoTurboTest.XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directoryM = pattern;
  }
  void TearDown() override { fs::remove_all(directoryM); }

  std::string write(const std::string& name, const std::string& content) {
    const fs::path path = directoryM / name;
    std::ofstream(path, std::ios::binary) << content;
    return path.string();
  }

  // The callers' reading loop: a line is used only when its read did not reach the end of file.
  Lines readAll(const std::string& content) {
    EXPECT_TRUE(readerM.openFile(write("data", content), 0));
    Lines lines;
    BAS::String line;
    while (!std::feof(readerM.stream())) {
      line = "";
      if (readerM.readLine(line) && !std::feof(readerM.stream())) lines.push_back(line.str());
    }
    return lines;
  }

  static long openDescriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator{});
  }

  fs::path directoryM;
  STR::FileIoTurbo readerM;
};

TEST_F(FileIoTurboTest, ReadingLoopTakesEveryLineEndedByALineEnd) {
  EXPECT_EQ(readAll("a\nbb\n\nccc\n"), (Lines{"a", "bb", "", "ccc"}));
  EXPECT_EQ(readAll("a\nb"), (Lines{"a"}));
  EXPECT_EQ(readAll(""), Lines{});

  const std::string withNul("a\0b", 3);
  const std::string longLine(3 * 1024 * 1024 + 7, 'x');  // longer than the read buffer
  EXPECT_EQ(readAll("x\r\n" + withNul + "\n" + longLine + "\nend\n"), (Lines{"x\r", withNul, longLine, "end"}));
}

TEST_F(FileIoTurboTest, OnlyTheReadThatReachesTheEndSetsEndOfFile) {
  ASSERT_TRUE(readerM.openFile(write("data", "a\nb"), 0));
  BAS::String line;
  ASSERT_TRUE(readerM.readLine(line));
  EXPECT_EQ(line, "a");
  EXPECT_FALSE(std::feof(readerM.stream()));
  ASSERT_TRUE(readerM.readLine(line));
  EXPECT_EQ(line, "b");
  EXPECT_TRUE(std::feof(readerM.stream()));
  EXPECT_FALSE(readerM.readLine(line));
}

TEST_F(FileIoTurboTest, OpenOutcomesAndTheNameThatOutlivesThem) {
  const std::string missing = (directoryM / "missing").string();
  EXPECT_FALSE(readerM.openFile(missing, 0));
  EXPECT_FALSE(readerM.isOpen());
  EXPECT_EQ(readerM.fileName(), missing);

  EXPECT_TRUE(readerM.openFile(directoryM.string(), 0));
  EXPECT_FALSE(readerM.isOpen());
  BAS::String line;
  EXPECT_FALSE(readerM.readLine(line));
  EXPECT_TRUE(readerM.closeFile());

  ASSERT_TRUE(readerM.openFile(write("first", "1\n2\n"), 0));
  const long descriptors = openDescriptors();
  ASSERT_TRUE(readerM.readLine(line));
  const std::string second = write("second", "3\n");
  ASSERT_TRUE(readerM.openFile(second, 0));
  EXPECT_EQ(openDescriptors(), descriptors);  // the first file was closed
  ASSERT_TRUE(readerM.readLine(line));
  EXPECT_EQ(line, "3");
  EXPECT_TRUE(readerM.closeFile());
  EXPECT_EQ(openDescriptors(), descriptors - 1);
  EXPECT_EQ(readerM.fileName(), second);
}

TEST_F(FileIoTurboTest, UnreadableFileExistsButIsNotOpen) {
  if (::geteuid() == 0) GTEST_SKIP() << "permissions do not hold for root";
  const std::string locked = write("locked", "secret\n");
  fs::permissions(locked, fs::perms::none);
  EXPECT_TRUE(readerM.openFile(locked, 0));
  EXPECT_FALSE(readerM.isOpen());
}

}  // namespace
