#include "cache/DataFileLines.h"

#include <cstdio>

namespace DAT::NumberPortability {

bool DataFileLines::atEnd() const noexcept {
  // A reader without a stream (the file vanished after its check) counts as ended. Asked twice
  // per line, tens of millions of times a load: without the stream's lock, which only guards
  // against other threads, and the reader belongs to the operation's thread alone.
  return brokenM || readerM.stream() == nullptr || feof_unlocked(readerM.stream()) != 0;
}

DataFileLines::Step DataFileLines::next(std::string_view& line) {
  // The end-of-file indicator is tested before each read, and again after it: a line delivered
  // together with the end of the file is not processed.
  if (atEnd()) return Step::end;
  line = {};
  const bool delivered = readerM.readLine(line);
  ++lineNumberM;
  if (delivered) return atEnd() ? Step::noLineEnd : Step::line;
  if (ferror_unlocked(readerM.stream()) != 0) {
    brokenM = true;
    return Step::failed;
  }
  return feof_unlocked(readerM.stream()) != 0 ? Step::end : Step::failed;
}

}  // namespace DAT::NumberPortability
