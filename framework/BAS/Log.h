// BAS::Log is the framework log. Every status and every event becomes one line, in the text
// format for people (the default) or as JSON Lines for tools, handed to each attached sink
// and flushed at once. Thread-safe: lines from different threads never interleave.
//
// Text lines: `TIME SEVERITY(n) OBJECT ID ["arg", ...] TEXT` for statuses and
// `TIME EVENT SENDER -> RECEIVER ID ["arg"] delivered|not-delivered` for events; arguments are
// quoted and escaped as in JSON, names and text have control bytes escaped, an empty name is "".
// JSON members: status lines {"time","kind":"status","object","id","severity","args","text"};
// event lines {"time","kind":"event","sender","receiver","id","args","delivered"}. The time is
// ISO 8601 UTC with milliseconds. Every byte that JSON requires escaped is escaped, and bytes
// that are not valid UTF-8 are written as \u00XX, so a raw data line cannot break a line.
#pragma once

#include "BAS/Export.h"
#include "BAS/LogRecord.h"
#include "BAS/LogSink.h"
#include "BAS/Mutex.h"

#include <memory>
#include <string>
#include <vector>

namespace BAS {

class Message;
class Status;

class BAS_EXPORT Log {
public:
  enum class Format { TEXT, JSON };

  Log();
  ~Log();

  void setFormat(Format format) EXCLUDES(mutexM);
  Format format() const EXCLUDES(mutexM);
  void addSink(std::shared_ptr<LogSink> sink) EXCLUDES(mutexM);
  void removeSink(const std::shared_ptr<LogSink>& sink) EXCLUDES(mutexM);

  void writeStatus(const Status& status) EXCLUDES(mutexM);
  void writeEvent(const Message& message, bool delivered) EXCLUDES(mutexM);

  // The line of a record in a format, without a line end.
  static std::string formatLine(const LogRecord& record, Format format);
  // An argument longer than this is cut to it in the log, with its full size added: a rejected
  // data line of a hundred megabytes must not become a log line of that size.
  static constexpr std::size_t maxArgumentBytesCM = 4096;

  // The records that writeStatus and writeEvent hand to the sinks, stamped with the current
  // time, arguments shortened; for callers that must report without a log (no framework).
  static LogRecord statusRecord(const Status& status);
  static LogRecord eventRecord(const Message& message, bool delivered);

private:
  static void shorten(String& argument);
  void dispatch(const LogRecord& record) EXCLUDES(mutexM);

  // Also held while the sinks write, which is what keeps lines from interleaving.
  mutable Mutex mutexM;
  Format formatM GUARDED_BY(mutexM) = Format::TEXT;
  std::vector<std::shared_ptr<LogSink>> sinksM GUARDED_BY(mutexM);
};

}  // namespace BAS
