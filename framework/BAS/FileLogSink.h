// BAS::FileLogSink writes each log line to a C stream (standard error, or a file it opens in
// append mode) and flushes it at once, so a crash loses no reported line.
#pragma once

#include "BAS/Export.h"
#include "BAS/LogSink.h"
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

  bool ok() const { return streamM != nullptr; }
  void write(const LogRecord& record, const std::string& line) override;

private:
  // Both set at construction, then only read; the stream locks itself around each line.
  std::FILE* streamM;
  bool ownsStreamM;
};

}  // namespace BAS
