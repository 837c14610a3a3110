// BAS::MemoryLogSink keeps every log entry in memory so that tests (and the host's `await`)
// can read back what was logged. Thread-safe.
#pragma once

#include "BAS/Export.h"
#include "BAS/LogSink.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace BAS {

class BAS_EXPORT MemoryLogSink : public LogSink {
public:
  void write(const LogRecord& record, const std::string& line) override;

  std::vector<LogRecord> records() const;
  std::vector<std::string> lines() const;
  // Entries whose id (message identifier or event name) is `id`.
  std::vector<LogRecord> withId(const String& id) const;
  std::size_t count(const String& id) const;
  // Waits until at least `count` entries with that id were written; false on timeout.
  bool waitFor(const String& id, std::size_t count, std::chrono::milliseconds timeout) const;
  void clear();

private:
  mutable std::mutex mutexM;
  mutable std::condition_variable writtenM;
  std::vector<LogRecord> recordsM;  // guarded by mutexM
  std::vector<std::string> linesM;  // guarded by mutexM
};

}  // namespace BAS
