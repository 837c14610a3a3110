// Bench::DiscardingLogSink counts the framework's log entries and drops them. A load of
// millions of lines may report many of them, and keeping them would distort both the memory
// figures and the timings of the runs that produce them. Thread-safe.
#pragma once

#include "BAS/LogSink.h"

#include <atomic>
#include <cstddef>
#include <string>

namespace Bench {

class DiscardingLogSink : public BAS::LogSink {
public:
  void write(const BAS::LogRecord& /*record*/, const std::string& /*line*/) override {
    countM.fetch_add(1, std::memory_order_relaxed);
  }
  std::size_t count() const { return countM.load(std::memory_order_relaxed); }

private:
  std::atomic<std::size_t> countM{0};
};

}  // namespace Bench
