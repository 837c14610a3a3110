// BAS::FileLogSink writes each log line to a C stream (standard error, or a file it opens in
// append mode) and flushes it at once, so a crash loses no reported line. A host reopens the
// file by its name when an operator's log rotation has moved it away.
// Thread-safe: the log writes from any thread while another thread reopens.
#pragma once

#include "BAS/Export.h"
#include "BAS/LogSink.h"
#include "BAS/Mutex.h"
#include "BAS/String.h"

#include <cstdio>

namespace BAS {

class BAS_EXPORT FileLogSink : public LogSink {
public:
  // Writes to standard error.
  FileLogSink();
  // Opens `path` for appending; ok() tells whether that worked.
  explicit FileLogSink(const String& path);
  ~FileLogSink() override;

  bool ok() const EXCLUDES(streamLockM);
  void write(const LogRecord& record, const std::string& line) override EXCLUDES(streamLockM);

  // Opens the path given at construction anew, creating the file if it was moved away, and
  // writes there from the next line on. False (errno set) when it cannot be opened: the lines
  // then go on to the file held before. True without doing anything for standard error.
  bool reopen() EXCLUDES(streamLockM);

private:
  const String pathM;  // empty for standard error; set at construction, then only read
  const bool ownsStreamM;
  mutable Mutex streamLockM;
  // Replaced by reopen while the log may be writing; the lock keeps a line from going to a
  // stream that is being closed.
  std::FILE* streamM GUARDED_BY(streamLockM);
};

}  // namespace BAS
