#include "BAS/MemoryLogSink.h"

#include "BAS/MutexLocker.h"

#include <algorithm>

namespace BAS {

void MemoryLogSink::write(const LogRecord& record, const std::string& line) {
  {
    MutexLocker locker(mutexM);
    recordsM.push_back(record);
    linesM.push_back(line);
  }
  writtenM.notifyAll();
}

std::vector<LogRecord> MemoryLogSink::records() const {
  MutexLocker locker(mutexM);
  return recordsM;
}

std::vector<std::string> MemoryLogSink::lines() const {
  MutexLocker locker(mutexM);
  return linesM;
}

std::vector<LogRecord> MemoryLogSink::withId(const String& id) const {
  MutexLocker locker(mutexM);
  std::vector<LogRecord> result;
  std::copy_if(recordsM.begin(), recordsM.end(), std::back_inserter(result),
               [&id](const LogRecord& record) { return record.id == id; });
  return result;
}

std::size_t MemoryLogSink::countLocked(const String& id) const {
  return static_cast<std::size_t>(
      std::count_if(recordsM.begin(), recordsM.end(), [&id](const LogRecord& record) { return record.id == id; }));
}

std::size_t MemoryLogSink::count(const String& id) const {
  MutexLocker locker(mutexM);
  return countLocked(id);
}

bool MemoryLogSink::waitFor(const String& id, std::size_t count, std::chrono::milliseconds timeout) const {
  MutexLocker locker(mutexM);
  const auto deadline = ConditionVariable::Clock::now() + timeout;
  while (countLocked(id) < count) {
    if (!writtenM.waitUntil(mutexM, deadline)) return countLocked(id) >= count;
  }
  return true;
}

void MemoryLogSink::clear() {
  MutexLocker locker(mutexM);
  recordsM.clear();
  linesM.clear();
}

}  // namespace BAS
