#include "cache/DataFileLines.h"

#include <cstdio>

namespace DAT::NumberPortability {

bool DataFileLines::atEnd() const noexcept {
  // A reader without a stream (the file vanished after its check) counts as ended.
  return brokenM || readerM.stream() == nullptr || std::feof(readerM.stream()) != 0;
}

DataFileLines::Step DataFileLines::next(BAS::String& line) {
  // The end-of-file indicator is tested before each read, and again after it: a line delivered
  // together with the end of the file is not processed.
  if (atEnd()) return Step::end;
  line = BAS::NULL_STRING;
  const bool delivered = readerM.readLine(line);
  ++lineNumberM;
  if (delivered) return atEnd() ? Step::noLineEnd : Step::line;
  if (std::ferror(readerM.stream()) != 0) {
    brokenM = true;
    return Step::failed;
  }
  return std::feof(readerM.stream()) != 0 ? Step::end : Step::failed;
}

}  // namespace DAT::NumberPortability
