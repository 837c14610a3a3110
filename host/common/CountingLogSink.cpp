#include "host/common/CountingLogSink.h"

#include "BAS/MutexLocker.h"

namespace Host {

void CountingLogSink::write(const BAS::LogRecord& record, const std::string& /*line*/) {
  {
    BAS::MutexLocker locker(mutexM);
    ++countsM[record.id.str()];
  }
  writtenM.notifyAll();
}

std::size_t CountingLogSink::countOf(const std::string& id) const {
  const auto found = countsM.find(id);
  return found == countsM.end() ? 0 : found->second;
}

std::size_t CountingLogSink::count(const std::string& id) const {
  BAS::MutexLocker locker(mutexM);
  return countOf(id);
}

bool CountingLogSink::waitFor(const std::string& id, std::size_t count, std::chrono::milliseconds timeout) const {
  const auto deadline = BAS::ConditionVariable::Clock::now() + timeout;
  BAS::MutexLocker locker(mutexM);
  while (countOf(id) < count) {
    if (!writtenM.waitUntil(mutexM, deadline)) return countOf(id) >= count;
  }
  return true;
}

}  // namespace Host
