#include "BAS/MemoryLogSink.h"

#include <algorithm>

namespace BAS {

namespace {

std::size_t countOf(const std::vector<LogRecord>& records, const String& id) {
  return static_cast<std::size_t>(
      std::count_if(records.begin(), records.end(), [&id](const LogRecord& record) { return record.id == id; }));
}

}  // namespace

void MemoryLogSink::write(const LogRecord& record, const std::string& line) {
  {
    std::lock_guard<std::mutex> lock(mutexM);
    recordsM.push_back(record);
    linesM.push_back(line);
  }
  writtenM.notify_all();
}

std::vector<LogRecord> MemoryLogSink::records() const {
  std::lock_guard<std::mutex> lock(mutexM);
  return recordsM;
}

std::vector<std::string> MemoryLogSink::lines() const {
  std::lock_guard<std::mutex> lock(mutexM);
  return linesM;
}

std::vector<LogRecord> MemoryLogSink::withId(const String& id) const {
  std::lock_guard<std::mutex> lock(mutexM);
  std::vector<LogRecord> result;
  std::copy_if(recordsM.begin(), recordsM.end(), std::back_inserter(result),
               [&id](const LogRecord& record) { return record.id == id; });
  return result;
}

std::size_t MemoryLogSink::count(const String& id) const {
  std::lock_guard<std::mutex> lock(mutexM);
  return countOf(recordsM, id);
}

bool MemoryLogSink::waitFor(const String& id, std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutexM);
  return writtenM.wait_for(lock, timeout, [&] { return countOf(recordsM, id) >= count; });
}

void MemoryLogSink::clear() {
  std::lock_guard<std::mutex> lock(mutexM);
  recordsM.clear();
  linesM.clear();
}

}  // namespace BAS
