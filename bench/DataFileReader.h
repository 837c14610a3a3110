// Bench::DataFileReader reads a data file the way the cache's loader does: the same line
// reader, the same reading rule (DataFileLines) and the cache's own DataLineParser. It stores nothing itself, so the benchmark can
// time the parsing alone or feed the records into a structure of its own.
// One object per thread; it keeps its buffers across lines, as the loader does.
#pragma once

#include "BAS/String.h"
#include "STR/FileIoTurbo.h"
#include "cache/DataFileLines.h"
#include "cache/DataLineParser.h"
#include "store/NumberPortabilityData.h"

#include <cstddef>
#include <string_view>

namespace Bench {

class DataFileReader {
public:
  explicit DataFileReader(const DAT::NumberPortability::DataLineParser& parser) : parserM(parser) {}

  // Calls visit(number, record) for every line the parser accepts, the number normalised. The
  // lines are taken as the initial load takes them: a last line without a line end is not
  // used, and a line that the reader fails to deliver ends the reading. False when the file
  // cannot be read to its end.
  template <class Visitor>
  bool readFile(const BAS::String& fileName, Visitor&& visit) {
    using Step = DAT::NumberPortability::DataFileLines::Step;
    linesM = 0;
    rejectedM = 0;
    if (!readerM.openFile(fileName, openModeCM) || !readerM.isOpen()) return false;
    DAT::NumberPortability::DataFileLines lines(readerM);
    Step step;
    std::string_view view;
    // Copied into a string, as this reader always handed lines to the parser, so that the
    // parsing and reference figures stay comparable with earlier runs.
    while ((step = lines.next(view)) != Step::end && step != Step::failed) {
      if (step != Step::line) continue;
      lineM.assign(view.data(), view.size());
      ++linesM;
      if (!parserM.parse(lineM, lines.lineNumber(), fileName, numberM, recordM, nullptr)) {
        ++rejectedM;
        continue;
      }
      visit(static_cast<const BAS::String&>(numberM), static_cast<const DAT::NumberPortability::NumberPortabilityData&>(recordM));
    }
    readerM.closeFile();
    return step == Step::end;
  }

  // Lines read and lines refused by the last readFile.
  std::size_t lines() const { return linesM; }
  std::size_t rejected() const { return rejectedM; }

private:
  static constexpr long openModeCM = 8;

  const DAT::NumberPortability::DataLineParser& parserM;
  STR::FileIoTurbo readerM;
  BAS::String lineM;
  BAS::String numberM;
  DAT::NumberPortability::NumberPortabilityData recordM;
  std::size_t linesM = 0;
  std::size_t rejectedM = 0;
};

}  // namespace Bench
