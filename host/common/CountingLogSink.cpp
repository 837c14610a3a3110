#include "host/common/CountingLogSink.h"

namespace Host {

void CountingLogSink::write(const BAS::LogRecord& record, const std::string& /*line*/) {
  {
    std::lock_guard lock(mutexM);
    ++countsM[record.id.str()];
  }
  writtenM.notify_all();
}

std::size_t CountingLogSink::count(const std::string& id) const {
  std::lock_guard lock(mutexM);
  const auto found = countsM.find(id);
  return found == countsM.end() ? 0 : found->second;
}

bool CountingLogSink::waitFor(const std::string& id, std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutexM);
  return writtenM.wait_for(lock, timeout, [&] {
    const auto found = countsM.find(id);
    return (found == countsM.end() ? 0 : found->second) >= count;
  });
}

}  // namespace Host
