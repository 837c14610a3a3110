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

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

struct FileTest : ::testing::Test {
  FileTest() { framework.log().addSink(sink); }
  ~FileTest() override { STR::FileIo::failWritesAfterForTesting(-1), fs::remove_all(dir); }
  std::string path(const std::string& name) const { return (dir / name).string(); }
  std::string write(const std::string& name, const std::string& content) {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }
  std::string contents(const std::string& name) const {
    std::ifstream in(path(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  bool publish(const std::string& name, const std::string& content, std::ios_base::openmode mode = std::ios_base::out) {
    STR::FileIo output(path(name), mode);
    output.stream() << content;
    return output.closeFile();
  }
  long entries() const { return std::distance(fs::directory_iterator(dir), fs::directory_iterator()); }

  fs::path dir = fs::temp_directory_path() / ("FileIoTest." + std::to_string(::getpid()));
  bool made = fs::create_directories(dir);
  BAS::Framework framework;
  std::shared_ptr<BAS::MemoryLogSink> sink = std::make_shared<BAS::MemoryLogSink>();
};

TEST_F(FileTest, ReplacesAFileWholeOnCloseKeepingItsModeAndWritesThroughLinksAndIntoFifos) {
  const fs::perms mode = fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read;
  fs::permissions(write("data", "old\n"), mode);
  fs::create_symlink("data", path("link"));
  fs::create_symlink(path("created"), path("dangling"));
  fs::create_hard_link(write("shared", "old\n"), path("other"));
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
  const int fifo = ::open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK);
  // Past two of the steps at which a replacement asks the kernel to start writing back.
  const std::string big((17 << 20) + 3, 'n');
  {
    STR::FileIo output(path("link"), std::ios_base::out);
    output.stream() << big << std::flush;
    EXPECT_EQ(contents("data"), "old\n") << "nothing is visible before the close";
  }
  EXPECT_TRUE(contents("data") == big && fs::status(path("data")).permissions() == mode);
  EXPECT_TRUE(publish("dangling", "made\n") && publish("shared", "new\n") && publish("fifo", "piped\n"));
  EXPECT_TRUE(contents("created") == "made\n" && contents("other") == "new\n");
  char piped[16] = {};
  EXPECT_TRUE(::read(fifo, piped, sizeof piped) == 6 && std::string(piped) == "piped\n") << piped;
  ::close(fifo);
  EXPECT_TRUE(fs::is_symlink(path("link")) && fs::is_symlink(path("dangling")) && fs::is_fifo(path("fifo")));
  EXPECT_EQ(entries(), 7) << "a temporary file was left behind";
  EXPECT_TRUE(publish("data", "two\n", std::ios_base::out | std::ios_base::app));
  EXPECT_EQ(contents("data"), big + "two\n");
}

TEST_F(FileTest, AFailedWriteLeavesTheOldFileIntactAndIsReported) {
  write("data", "old\n");
  STR::FileIo::failWritesAfterForTesting(100 * 1024);
  STR::FileIo output(path("data"), std::ios_base::out);
  for (int i = 0; i < 50000; ++i) output.stream() << "replacement line " << i << '\n';
  EXPECT_TRUE(output.stream().bad() && !output.closeFile());
  EXPECT_TRUE(contents("data") == "old\n" && entries() == 1);
  STR::FileIo missing(path("missing/data"), std::ios_base::out);
  EXPECT_TRUE(!missing.isOpen() && missing.stream().bad() && missing.closeFile());
  const auto reports = sink->withId("ERR_FILE_NOT_WRITTEN");
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0].args[0], path("data"));
  EXPECT_EQ(reports[1].args, (std::vector<BAS::String>{path("missing/data"), "No such file or directory"}));
}

// The loaders' reading loop: a line is used only when its read did not reach the end of file.
TEST_F(FileTest, TheReadingLoopTakesEveryLineThatEndsInALineEnd) {
  STR::FileIoTurbo reader;
  const std::string withNul("a\0b", 3), longLine(3 * 1024 * 1024 + 7, 'x');  // longer than the buffer
  const std::pair<std::string, Lines> rows[] = {
      {"a\nbb\n\nccc\n", {"a", "bb", "", "ccc"}}, {"a\nb", {"a"}}, {"", {}},
      {"x\r\n" + withNul + "\n" + longLine + "\nend\n", {"x\r", withNul, longLine, "end"}}};
  BAS::String line;
  for (const auto& [content, expected] : rows) {
    ASSERT_TRUE(reader.openFile(write("lines", content), 0));
    Lines lines;
    while (!std::feof(reader.stream())) {
      line = "";
      if (reader.readLine(line) && !std::feof(reader.stream())) lines.push_back(line.str());
    }
    EXPECT_EQ(lines, expected);
  }
  // A missing file, and one that exists but cannot be read, which the loaders report apart.
  EXPECT_FALSE(reader.openFile(path("missing"), 0) || reader.isOpen() || reader.fileName() != path("missing"));
  EXPECT_TRUE(reader.openFile(dir.string(), 0) && !reader.isOpen() && !reader.readLine(line) && reader.closeFile());
}

}  // namespace
