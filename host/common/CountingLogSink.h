// Host::CountingLogSink counts the log entries per identifier (status message identifier or
// event name) so that a script can wait for the plug-in's background work. It keeps counts
// only, never the entries, so a long run does not grow. Thread-safe: the log writes from any
// thread while the command thread waits.
#pragma once

#include "BAS/ConditionVariable.h"
#include "BAS/LogSink.h"
#include "BAS/Mutex.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <unordered_map>

namespace Host {

class CountingLogSink : public BAS::LogSink {
public:
  void write(const BAS::LogRecord& record, const std::string& line) override EXCLUDES(mutexM);

  std::size_t count(const std::string& id) const EXCLUDES(mutexM);
  // Waits until at least `count` entries with that identifier were written since the sink was
  // attached; false when the time ran out first.
  bool waitFor(const std::string& id, std::size_t count, std::chrono::milliseconds timeout) const EXCLUDES(mutexM);

private:
  std::size_t countOf(const std::string& id) const REQUIRES(mutexM);

  mutable BAS::Mutex mutexM;
  mutable BAS::ConditionVariable writtenM;  // notified after each entry, under no lock
  std::unordered_map<std::string, std::size_t> countsM GUARDED_BY(mutexM);
};

}  // namespace Host
