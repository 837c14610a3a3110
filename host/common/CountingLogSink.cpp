#include "host/common/CountingLogSink.h"

#include "BAS/MutexLocker.h"

#include <unistd.h>

#include <vector>

namespace Host {

void CountingLogSink::write(const BAS::LogRecord& record, const std::string& /*line*/) {
  {
    BAS::MutexLocker locker(mutexM);
    Seen& seen = seenM[record.id.str()];
    ++seen.count;
    seen.last = record.time;
    // Under the lock, so that the descriptor cannot be closed in between. A full pipe is
    // readable already, so a write that fails loses nothing.
    for (const int writeEnd : notifyM) {
      const char byte = 'x';
      [[maybe_unused]] const ssize_t ignored = ::write(writeEnd, &byte, 1);
    }
  }
  writtenM.notifyAll();
}

void CountingLogSink::notifyOnWrite(int writeEnd) {
  BAS::MutexLocker locker(mutexM);
  notifyM.push_back(writeEnd);
}

void CountingLogSink::stopNotifying(int writeEnd) {
  BAS::MutexLocker locker(mutexM);
  std::erase(notifyM, writeEnd);
}

const CountingLogSink::Seen* CountingLogSink::find(const std::string& id) const {
  const auto found = seenM.find(id);
  return found == seenM.end() ? nullptr : &found->second;
}

std::size_t CountingLogSink::countOf(const std::string& id) const {
  const Seen* seen = find(id);
  return seen == nullptr ? 0 : seen->count;
}

std::size_t CountingLogSink::count(const std::string& id) const {
  BAS::MutexLocker locker(mutexM);
  return countOf(id);
}

std::optional<std::chrono::system_clock::time_point> CountingLogSink::lastTime(const std::string& id) const {
  BAS::MutexLocker locker(mutexM);
  const Seen* seen = find(id);
  if (seen == nullptr) return std::nullopt;
  return seen->last;
}

CountingLogSink::Outcome CountingLogSink::outcomeOf(const Goal& goal) const {
  if (!goal.failureId.empty() && countOf(goal.failureId) >= goal.failureCount) return Outcome::FAILED;
  return countOf(goal.id) >= goal.count ? Outcome::REACHED : Outcome::PENDING;
}

CountingLogSink::Outcome CountingLogSink::outcome(const Goal& goal) const {
  BAS::MutexLocker locker(mutexM);
  return outcomeOf(goal);
}

bool CountingLogSink::waitFor(const std::string& id, std::size_t count, std::chrono::milliseconds timeout) const {
  return waitFor(Goal{id, count, {}, 0}, timeout) == Outcome::REACHED;
}

CountingLogSink::Outcome CountingLogSink::waitFor(const Goal& goal, std::chrono::milliseconds timeout) const {
  const auto deadline = BAS::ConditionVariable::Clock::now() + timeout;
  BAS::MutexLocker locker(mutexM);
  for (;;) {
    const Outcome now = outcomeOf(goal);
    if (now != Outcome::PENDING) return now;
    if (!writtenM.waitUntil(mutexM, deadline)) return outcomeOf(goal);
  }
}

}  // namespace Host
