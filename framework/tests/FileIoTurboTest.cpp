// The framework's line reader: the loaders' reading rule.
#include "FileTestSupport.h"
#include "STR/FileIoTurbo.h"

#include <cstdio>

namespace {

using namespace FileTesting;
using Lines = std::vector<std::string>;

struct FileIoTurboTest : FileFixture {};

// What the loaders' reading loop gets: the lines it uses and the numbers of the lines whose
// read failed before the end.
struct Reading {
  Lines lines;
  std::vector<unsigned long> failed;
};

Reading readAll(STR::FileIoTurbo& reader) {
  Reading reading;
  endsWithoutHanging([&] {
    BAS::String line;
    for (unsigned long number = 1; !std::feof(reader.stream()); ++number) {
      line = BAS::NULL_STRING;
      const bool delivered = reader.readLine(line);
      if (delivered && !std::feof(reader.stream())) reading.lines.push_back(line.str());
      if (!delivered && !std::feof(reader.stream())) reading.failed.push_back(number);
    }
  });
  return reading;
}

TEST_F(FileIoTurboTest, TheReadingLoopTakesEveryLineThatEndsInALineEnd) {
  const std::string withNul("a\0b", 3), longLine(3 * 1024 * 1024 + 7, 'x');  // longer than the buffer
  const std::pair<std::string, Lines> rows[] = {
      {"a\nbb\n\nccc\n", {"a", "bb", "", "ccc"}}, {"a\nb", {"a"}}, {"", {}},
      {"x\r\n" + withNul + "\n" + longLine + "\nend\n", {"x\r", withNul, longLine, "end"}}};
  STR::FileIoTurbo reader;
  for (const auto& [content, expected] : rows) {
    ASSERT_TRUE(reader.openFile(write("lines", content), 0));
    const Reading reading = readAll(reader);
    EXPECT_TRUE(reading.lines == expected && reading.failed.empty());
  }
}

// A missing file, and one that exists but cannot be read, which the loaders report apart.
TEST_F(FileIoTurboTest, AMissingFileAndAFolderAreToldApart) {
  STR::FileIoTurbo reader;
  BAS::String line;
  EXPECT_FALSE(reader.openFile(path("missing"), 0) || reader.isOpen() || reader.fileName() != path("missing"));
  EXPECT_TRUE(reader.openFile(folder, 0) && !reader.isOpen() && !reader.readLine(line) && reader.closeFile());
}

}  // namespace
