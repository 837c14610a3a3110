// The framework's files: the output file that rewrites the data file and writes dumps, and the
// line reader that the loaders read with.
#include "BAS/Framework.h"
#include "BAS/MemoryLogSink.h"
#include "STR/FileIo.h"
#include "STR/FileIoTurbo.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Names = std::set<std::string>;
using Lines = std::vector<std::string>;

class FileTest : public ::testing::Test {
protected:
  FileTest() {
    std::string pattern = (fs::temp_directory_path() / "FileIoTest.XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) dir = pattern;
    framework.log().addSink(sink);
  }
  ~FileTest() override {
    STR::FileIo::failWritesAfterForTesting(-1);
    fs::remove_all(dir);
  }

  std::string path(const std::string& name) const { return (dir / name).string(); }
  std::string write(const std::string& name, const std::string& content) {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }
  std::string contents(const std::string& name) const {
    std::ifstream in(path(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  Names entries() const {
    Names names;
    for (const auto& entry : fs::directory_iterator(dir)) names.insert(entry.path().filename().string());
    return names;
  }
  bool publish(const std::string& name, const std::string& content, std::ios_base::openmode mode = std::ios_base::out) {
    STR::FileIo output(path(name), mode);
    output.stream() << content;
    return output.closeFile();
  }
  // The callers' reading loop: a line is used only when its read did not reach the end of file.
  Lines readAll(const std::string& content) {
    EXPECT_TRUE(reader.openFile(write("lines", content), 0));
    Lines lines;
    BAS::String line;
    while (!std::feof(reader.stream())) {
      line = "";
      if (reader.readLine(line) && !std::feof(reader.stream())) lines.push_back(line.str());
    }
    return lines;
  }

  fs::path dir;
  BAS::Framework framework;
  std::shared_ptr<BAS::MemoryLogSink> sink = std::make_shared<BAS::MemoryLogSink>();
  STR::FileIoTurbo reader;
};

TEST_F(FileTest, ReplacesAFileWholeOnCloseKeepingItsModeAndWritesThroughLinksAndIntoFifos) {
  write("data", "old\n");
  fs::permissions(path("data"), fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
  fs::create_symlink("data", path("link"));
  fs::create_symlink(path("created"), path("dangling"));
  write("shared", "old\n");
  fs::create_hard_link(path("shared"), path("other"));
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
  const int fifo = ::open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK);

  const std::string big(200 * 1024, 'n');
  STR::FileIo output(path("link"), std::ios_base::out);
  output.stream() << "first\n" << big << '\n' << 42 << '\n';
  output.stream().flush();
  EXPECT_EQ(contents("data"), "old\n") << "nothing is visible before the close";
  EXPECT_TRUE(output.closeFile());
  EXPECT_EQ(contents("data"), "first\n" + big + "\n42\n");
  EXPECT_EQ(fs::status(path("data")).permissions(), fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);

  EXPECT_TRUE(publish("dangling", "made\n"));
  EXPECT_TRUE(publish("shared", "new\n"));
  EXPECT_TRUE(publish("fifo", "piped\n"));
  EXPECT_EQ(contents("created"), "made\n");
  EXPECT_EQ(contents("other"), "new\n");
  char piped[16] = {};
  EXPECT_EQ(::read(fifo, piped, sizeof piped), 6);
  EXPECT_STREQ(piped, "piped\n");
  ::close(fifo);
  EXPECT_TRUE(fs::is_symlink(path("link")) && fs::is_symlink(path("dangling")) && fs::is_fifo(path("fifo")));
  EXPECT_TRUE(fs::equivalent(path("shared"), path("other")));
  EXPECT_EQ(entries(), (Names{"data", "link", "dangling", "created", "shared", "other", "fifo"}));
  EXPECT_EQ(sink->count("ERR_FILE_NOT_WRITTEN"), 0u);
}

TEST_F(FileTest, AFailedWriteLeavesTheOldFileIntactAndIsReported) {
  write("data", "old\n");
  STR::FileIo::failWritesAfterForTesting(100 * 1024);
  STR::FileIo output(path("data"), std::ios_base::out);
  for (int i = 0; i < 50000; ++i) output.stream() << "replacement line " << i << '\n';
  EXPECT_TRUE(output.stream().bad());
  EXPECT_FALSE(output.closeFile());
  EXPECT_EQ(contents("data"), "old\n");
  EXPECT_EQ(entries(), Names{"data"});

  STR::FileIo missing(path("missing/data"), std::ios_base::out);
  EXPECT_FALSE(missing.isOpen());
  missing.stream() << "ignored\n";
  EXPECT_TRUE(missing.stream().bad());
  EXPECT_TRUE(missing.closeFile());
  const auto reports = sink->withId("ERR_FILE_NOT_WRITTEN");
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0].args[0], path("data"));
  EXPECT_EQ(reports[1].args, (std::vector<BAS::String>{path("missing/data"), "No such file or directory"}));

  EXPECT_TRUE(publish("data", "two\n", std::ios_base::out | std::ios_base::app));
  EXPECT_EQ(contents("data"), "old\ntwo\n");
}

TEST_F(FileTest, TheReadingLoopTakesEveryLineThatEndsInALineEnd) {
  const std::string withNul("a\0b", 3), longLine(3 * 1024 * 1024 + 7, 'x');  // longer than the buffer
  const std::pair<std::string, Lines> rows[] = {
      {"a\nbb\n\nccc\n", {"a", "bb", "", "ccc"}},
      {"a\nb", {"a"}},
      {"", {}},
      {"x\r\n" + withNul + "\n" + longLine + "\nend\n", {"x\r", withNul, longLine, "end"}},
  };
  for (const auto& [content, lines] : rows) EXPECT_EQ(readAll(content), lines);

  // Only the read that reaches the end sets the indicator: the last line comes with it set.
  BAS::String line;
  ASSERT_TRUE(reader.openFile(write("data", "a\nb"), 0));
  EXPECT_TRUE(reader.readLine(line) && line == "a" && !std::feof(reader.stream()));
  EXPECT_TRUE(reader.readLine(line) && line == "b" && std::feof(reader.stream()));
  EXPECT_FALSE(reader.readLine(line));
}

TEST_F(FileTest, OpeningTellsAMissingFileFromAnUnreadableOneAndClosesThePreviousFile) {
  EXPECT_FALSE(reader.openFile(path("missing"), 0));
  EXPECT_FALSE(reader.isOpen());
  EXPECT_EQ(reader.fileName(), path("missing"));
  EXPECT_TRUE(reader.openFile(dir.string(), 0));
  EXPECT_FALSE(reader.isOpen());
  BAS::String line;
  EXPECT_FALSE(reader.readLine(line));

  const auto descriptors = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator{}); };
  ASSERT_TRUE(reader.openFile(write("first", "1\n2\n"), 0));
  const auto withOneOpen = descriptors();
  ASSERT_TRUE(reader.openFile(write("second", "3\n"), 0));
  EXPECT_EQ(descriptors(), withOneOpen) << "the first file was closed";
  EXPECT_TRUE(reader.readLine(line) && line == "3");
  EXPECT_TRUE(reader.closeFile());
  EXPECT_EQ(descriptors(), withOneOpen - 1);
  EXPECT_EQ(reader.fileName(), path("second"));
}

}  // namespace
