// BAS::LogSink is a destination of the framework log. The log calls write() once per entry,
// from whichever thread reports, never twice at once for one log (the log serialises).
#pragma once

#include "BAS/Export.h"
#include "BAS/LogRecord.h"

#include <string>

namespace BAS {

class BAS_EXPORT LogSink {
public:
  virtual ~LogSink();
  // `line` is the entry formatted in the log's format, without a line end.
  virtual void write(const LogRecord& record, const std::string& line) = 0;
};

}  // namespace BAS
