// BAS::MemoryLogSink keeps every log entry in memory so that tests (and the host's `await`)
// can read back what was logged. Thread-safe.
#pragma once

#include "BAS/ConditionVariable.h"
#include "BAS/Export.h"
#include "BAS/LogSink.h"
#include "BAS/Mutex.h"

#include <chrono>
#include <vector>

namespace BAS {

class BAS_EXPORT MemoryLogSink : public LogSink {
public:
  void write(const LogRecord& record, const std::string& line) EXCLUDES(mutexM) override;

  std::vector<LogRecord> records() const EXCLUDES(mutexM);
  std::vector<std::string> lines() const EXCLUDES(mutexM);
  // Entries whose id (message identifier or event name) is `id`.
  std::vector<LogRecord> withId(const String& id) const EXCLUDES(mutexM);
  std::size_t count(const String& id) const EXCLUDES(mutexM);
  // Waits until at least `count` entries with that id were written; false on timeout.
  bool waitFor(const String& id, std::size_t count, std::chrono::milliseconds timeout) const EXCLUDES(mutexM);
  void clear() EXCLUDES(mutexM);

private:
  std::size_t countLocked(const String& id) const REQUIRES(mutexM);

  mutable Mutex mutexM;
  mutable ConditionVariable writtenM;  // notified after each write
  std::vector<LogRecord> recordsM GUARDED_BY(mutexM);
  std::vector<std::string> linesM GUARDED_BY(mutexM);
};

}  // namespace BAS
