// The reading rule that every reader of a data file shares: which lines are processed, how they
// are numbered, and that a file whose reads fail ends the reading instead of failing for ever.
#include "cache/DataFileLines.h"
#include "testing/TempDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace {

using DAT::NumberPortability::DataFileLines;
using Step = DataFileLines::Step;

// Every step up to the end, as "NUMBER:KIND[:LINE]".
std::vector<std::string> steps(const std::string& fileName, std::string* failure = nullptr) {
  STR::FileIoTurbo reader;
  reader.openFile(BAS::String(fileName), 8);
  DataFileLines lines(reader);
  std::vector<std::string> taken;
  std::string_view line;
  for (int guard = 0; guard < 100; ++guard) {
    const Step step = lines.next(line);
    const std::string number = std::to_string(lines.lineNumber()) + ":";
    switch (step) {
      case Step::line: taken.push_back(number + "line:" + std::string(line)); break;
      case Step::noLineEnd: taken.push_back(number + "noLineEnd:" + std::string(line)); break;
      case Step::failed:
        // A broken file ends the reading; a refused line is skipped and the file reads on.
        taken.push_back(number + (lines.broken() ? "broken" : "failed"));
        if (failure != nullptr) *failure = reader.failure().str();
        break;
      case Step::end:
        EXPECT_TRUE(lines.atEnd());
        EXPECT_EQ(lines.next(line), Step::end) << "an ended reading stays ended";
        return taken;
    }
  }
  ADD_FAILURE() << fileName << ": the reading did not end";
  return taken;
}

TEST(DataFileLines, ProcessesEveryEndedLineNumbersEveryLineAndEndsOnAFileThatFailsToRead) {
  NpTest::TempDirectory dir;
  using Steps = std::vector<std::string>;
  const struct {
    const char* label;
    const char* content;  // null: no file
    Steps expected;
  } rows[] = {
      {"blank lines are lines", "a\n\n b \n", {"1:line:a", "2:line:", "3:line: b "}},
      {"a last line without line end is never processed", "a\nb", {"1:line:a", "2:noLineEnd:b"}},
      {"an empty file", "", {}},
      {"a file that vanished after its check", nullptr, {}},
      {"a line over the reader's limit is refused and the file reads on",
       "ab\n0123456789\ncd\n", {"1:line:ab", "2:failed", "3:line:cd"}},
  };
  const std::size_t limit = STR::FileIoTurbo::lineLimit();
  STR::FileIoTurbo::setLineLimit(8);
  for (const auto& row : rows) {
    const std::string file = dir.path("data.txt");
    if (row.content != nullptr) NpTest::writeText(file, row.content);
    EXPECT_EQ(steps(row.content != nullptr ? file : dir.path("absent.txt")), row.expected) << row.label;
  }
  STR::FileIoTurbo::setLineLimit(limit);
  // The kernel refuses every read of this file (nothing is mapped at its offset 0): one failed
  // line, then the end, not a failure at the same place again and again.
  std::string failure;
  EXPECT_EQ(steps("/proc/self/mem", &failure), Steps{"1:broken"});
  EXPECT_NE(failure.find(std::strerror(EIO)), std::string::npos) << failure;
}

}  // namespace
