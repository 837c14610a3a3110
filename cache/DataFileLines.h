// DAT::NumberPortability::DataFileLines reads the lines of a data file by the one reading rule
// that every reader of a data file follows: the initial load, the reload and the delta load, the
// plug-in's check of a data file and the benchmark. Each caller keeps its own reaction to a line
// that the reader failed to deliver: the initial load and the check stop, a reload and a delta
// load skip the line and go on.
// Thread contract: one object per reading of one file, used by the thread that reads it.
#pragma once

#include "BAS/String.h"
#include "STR/FileIoTurbo.h"

#include <string_view>

namespace DAT::NumberPortability {

class DataFileLines {
public:
  // What one step of the rule gave.
  enum class Step {
    line,       // a line to process, in the string given to next()
    noLineEnd,  // the last line, which has no line end: it is never processed
    failed,     // the reader failed to deliver the line before the end of the file
    end,        // reading has ended; every later step ends too
  };

  // Reads through `reader`, whose file was opened (a failed opening reads as an ended file).
  explicit DataFileLines(STR::FileIoTurbo& reader) noexcept : readerM(reader) {}
  DataFileLines(const DataFileLines&) = delete;
  DataFileLines& operator=(const DataFileLines&) = delete;

  // The next step. After `line` and `noLineEnd`, `line` views the line without its line end
  // in the reader's buffer, until the next step; otherwise it views nothing useful.
  Step next(std::string_view& line);

  // The number of the line that the last read was for, counted from 1 (every read counts one,
  // the one that met the end of the file included); 0 before the first.
  unsigned long lineNumber() const noexcept { return lineNumberM; }
  // Whether reading ends at the next step: the end of the file was met, or no file is open.
  bool atEnd() const noexcept;
  // Whether the last `failed` step left the file unreadable (the reading then ends), rather than
  // refused one line after which the file reads on. The reader's failure() says why in words.
  bool broken() const noexcept { return brokenM; }
  STR::FileIoTurbo& reader() const noexcept { return readerM; }

private:
  STR::FileIoTurbo& readerM;
  unsigned long lineNumberM = 0;
  // The stream reported an error: nothing more can be read from it, whatever its end-of-file
  // indicator says, so the rule ends rather than fail at the same place again and again.
  bool brokenM = false;
};

}  // namespace DAT::NumberPortability
