// STR::FileIo is the framework's output file; the cache manager rewrites the main data file and
// writes dumps with it. Opened with std::ios_base::out alone it writes through the name it is
// given: symbolic links are followed and stay links; a regular target is replaced crash-safely
// (a temporary file in the target's folder, flushed to disk and renamed over it on closeFile()),
// keeping its mode and, where the process may, its owner; a target with further hard links is
// rewritten in place once the new content is complete, so that every link sees it; a FIFO or a
// device (a terminal, /dev/stdout) is written directly. A failed write leaves a regular target
// as it was. Other modes (app, in) write in place. A file that cannot be opened or written is
// reported to the framework log as "ERR_FILE_NOT_WRITTEN" (file name, reason).
// One object is used by one thread at a time.
#pragma once

#include "BAS/Export.h"
#include "BAS/String.h"

#include <ios>
#include <memory>
#include <ostream>

namespace STR {

class BAS_EXPORT FileIo {
public:
  FileIo(const BAS::String& name, std::ios_base::openmode mode);
  ~FileIo();  // closes the file if still open
  FileIo(const FileIo&) = delete;
  FileIo& operator=(const FileIo&) = delete;

  // The stream to write to; writes go nowhere (and mark the stream bad) when not open.
  std::ostream& stream();
  bool isOpen() const;
  const BAS::String& fileName() const { return nameM; }
  // Ends the file: a replacement or rewrite is published only when every write succeeded. True when
  // the file now holds exactly what was written, or when nothing was open (a file that could
  // not be opened counts as nothing open: the old file, if any, is as it was).
  bool closeFile();

  // Test seam: every FileIo opened after this call fails its writes once `bytes` bytes have
  // been written (negative: off). Process-wide.
  static void failWritesAfterForTesting(long long bytes);

private:
  class Impl;
  BAS::String nameM;
  std::unique_ptr<Impl> implM;
};

}  // namespace STR
