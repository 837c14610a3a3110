// Host::CountingLogSink counts the log entries per identifier (status message identifier or
// event name) and keeps the time of the last one, so that a script can wait for the plug-in's
// background work and `status` can tell when a reload last ended. It keeps counts and times
// only, never the entries, so a long run does not grow. Thread-safe: the log writes from any
// thread while the command thread and the control thread wait or read.
#pragma once

#include "BAS/ConditionVariable.h"
#include "BAS/LogSink.h"
#include "BAS/Mutex.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace Host {

class CountingLogSink : public BAS::LogSink {
public:
  void write(const BAS::LogRecord& record, const std::string& line) override EXCLUDES(mutexM);

  std::size_t count(const std::string& id) const EXCLUDES(mutexM);
  // When the last entry with that identifier was written; nullopt when none was.
  std::optional<std::chrono::system_clock::time_point> lastTime(const std::string& id) const EXCLUDES(mutexM);
  // Waits until at least `count` entries with that identifier were written since the sink was
  // attached; false when the time ran out first.
  bool waitFor(const std::string& id, std::size_t count, std::chrono::milliseconds timeout) const EXCLUDES(mutexM);

  // A wait for `count` entries of `id` that `failureCount` entries of `failureId` end as failed
  // (no failure ends it while `failureId` is empty). Counts are since the sink was attached.
  struct Goal {
    std::string id;
    std::size_t count = 0;
    std::string failureId;
    std::size_t failureCount = 0;
  };
  // Where a wait stands. When both counts are reached, the failure wins: the wait cannot tell
  // whose success came, but a failure means the data may not be what was asked for.
  enum class Outcome { PENDING, REACHED, FAILED };
  Outcome outcome(const Goal& goal) const EXCLUDES(mutexM);
  // Waits until the goal is reached or failed; PENDING when the time ran out first.
  Outcome waitFor(const Goal& goal, std::chrono::milliseconds timeout) const EXCLUDES(mutexM);

  // Every entry written from now on also writes a byte to `writeEnd` (a non-blocking pipe, as
  // SelfPipe makes), so that a thread sleeping in poll sees it, until stopNotifying(writeEnd).
  // Once that returns, no write of the log touches the descriptor, which may then be closed.
  // Each parked wait of the control socket adds its own.
  void notifyOnWrite(int writeEnd) EXCLUDES(mutexM);
  void stopNotifying(int writeEnd) EXCLUDES(mutexM);

private:
  struct Seen {
    std::size_t count = 0;
    std::chrono::system_clock::time_point last;
  };
  const Seen* find(const std::string& id) const REQUIRES(mutexM);
  std::size_t countOf(const std::string& id) const REQUIRES(mutexM);
  Outcome outcomeOf(const Goal& goal) const REQUIRES(mutexM);

  mutable BAS::Mutex mutexM;
  mutable BAS::ConditionVariable writtenM;  // notified after each entry, under no lock
  std::unordered_map<std::string, Seen> seenM GUARDED_BY(mutexM);
  std::vector<int> notifyM GUARDED_BY(mutexM);
};

}  // namespace Host
