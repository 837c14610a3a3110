// Host::CountingLogSink counts the log entries per identifier (status message identifier or
// event name) so that a script can wait for the plug-in's background work. It keeps counts
// only, never the entries, so a long run does not grow. Thread-safe: the log writes from any
// thread while the command thread waits.
#pragma once

#include "BAS/LogSink.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>

namespace Host {

class CountingLogSink : public BAS::LogSink {
public:
  void write(const BAS::LogRecord& record, const std::string& line) override;

  std::size_t count(const std::string& id) const;
  // Waits until at least `count` entries with that identifier were written since the sink was
  // attached; false when the time ran out first.
  bool waitFor(const std::string& id, std::size_t count, std::chrono::milliseconds timeout) const;

private:
  mutable std::mutex mutexM;
  mutable std::condition_variable writtenM;
  std::unordered_map<std::string, std::size_t> countsM;  // guarded by mutexM
};

}  // namespace Host
