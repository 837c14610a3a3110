// STR::FileIoTurbo is the framework's buffered line reader of text files. One object is used
// by one thread at a time; distinct objects are independent.
//
// Reading rule that callers rely on: the end-of-file indicator of stream() is set only by a
// read that reaches the end of the file. A last line that has a line end is delivered with
// the indicator clear; the next readLine then fails and sets it. A last line without a line
// end is delivered together with the indicator set.
#pragma once

#include "BAS/Export.h"
#include "BAS/String.h"

#include <cstddef>
#include <cstdio>
#include <vector>

namespace STR {

class BAS_EXPORT FileIoTurbo {
public:
  FileIoTurbo();
  ~FileIoTurbo();
  FileIoTurbo(const FileIoTurbo&) = delete;
  FileIoTurbo& operator=(const FileIoTurbo&) = delete;

  // Opens `name` for reading, closing a file that is open first. Three outcomes: false when
  // the file does not exist; true but isOpen() false when it exists but cannot be read (a
  // directory, no permission, an interrupted rewrite that cannot be finished); true and open
  // otherwise. A regular file's opening first finishes an interrupted rewrite of it and removes
  // stale temporaries (StagedFiles), and the identity it opened is remembered (FileIdentity).
  // `mode` is accepted for compatibility and not interpreted. fileName() is `name` afterwards
  // in every case.
  bool openFile(const BAS::String& name, long mode);
  // The next line without its line end ("\n"; a carriage return before it stays, and the
  // string split drops it). False at the end of the file or on a read error (ferror(stream())).
  bool readLine(BAS::String& line);
  // Closes the open file; true when that worked or nothing was open.
  bool closeFile();

  bool isOpen() const { return streamM != nullptr; }
  // The name given to the last openFile, kept after closing and after a failed open.
  const BAS::String& fileName() const { return fileNameM; }
  // The C stream of the open file, or null.
  std::FILE* stream() const { return streamM; }

  // Process-wide: from now on no reader waits any more for a writer of a FIFO or for its next
  // bytes; such a wait in progress or to come ends as the end of the file. The host calls it
  // when it is told to stop, so that no file it reads keeps it from ending.
  static void stopWaiting();
  static bool waitingStopped();

private:
  // Reads more of the file behind the undelivered bytes; false at the end of the file or on a
  // read error, with the stream's indicator set.
  bool refill();

  BAS::String fileNameM;
  std::FILE* streamM = nullptr;
  std::vector<char> bufferM;  // bytes read from the file; [beginM, endM) not yet delivered
  std::size_t beginM = 0;
  std::size_t endM = 0;
};

}  // namespace STR
