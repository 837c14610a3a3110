// Host::MetricsRegistry holds the figures that `nphost run --metrics` serves beside those that
// the plug-in gives: lookups, event records, data operations and their outcomes, the last load's
// rejected lines, open control connections. The lookup threads, the command threads, the
// control connections and the log's metrics sink add to it; the HTTP threads read it.
// Thread contract: every operation may run in any thread at any time. Each figure is a relaxed
// atomic of its own, so nothing here ever waits; a reader may see two figures an update apart.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace DAT::NumberPortability {
class PortabilityLookup;
}

namespace Host {

class MetricsRegistry {
public:
  enum class Operation { RELOAD, DELTA };
  // The same judgement as `status`: UNSAVED is a delta load that serves but whose rewrite of
  // the data file failed.
  enum class Result { OK, FAILED, UNSAVED };
  // What a success timestamp is kept for: the start-up load, reloads, delta loads.
  enum class Load { STARTUP, RELOAD, DELTA };

  // Lookups made, by their answer. The run adds a batch at a time, `search` one at a time.
  void addLookups(std::uint64_t found, std::uint64_t notFound);
  // Every lookup made so far, found or not.
  std::uint64_t lookups() const;
  // Event records written: enriched (looked up) and rejected (passed on without a lookup).
  void addEventRecords(std::uint64_t enriched, std::uint64_t rejected);
  void countOperation(Operation operation, Result result);
  void noteSuccess(Load load, std::chrono::system_clock::time_point when);
  // Distinct lines that the last load of any kind rejected.
  void setRejectedLines(std::uint64_t lines);
  void connectionOpened();
  void connectionClosed();

  // The whole exposition in the Prometheus text format 0.0.4: these figures, the records and
  // the last load's duration from `lookup` (which never waits), and the process's memory and
  // start time from /proc.
  std::string exposition(DAT::NumberPortability::PortabilityLookup& lookup) const;

private:
  static constexpr std::size_t operationsCM = 2;
  static constexpr std::size_t resultsCM = 3;
  static constexpr std::size_t loadsCM = 3;

  // No lock for any of these: each is a counter or a gauge read on its own.
  std::atomic<std::uint64_t> foundM{0};
  std::atomic<std::uint64_t> notFoundM{0};
  std::atomic<std::uint64_t> enrichedM{0};
  std::atomic<std::uint64_t> rejectedRecordsM{0};
  std::array<std::atomic<std::uint64_t>, operationsCM * resultsCM> operationsM{};
  // Milliseconds since the epoch of each kind's last success; 0 for never.
  std::array<std::atomic<std::int64_t>, loadsCM> lastSuccessMsM{};
  std::atomic<std::uint64_t> rejectedLinesM{0};
  std::atomic<std::int64_t> connectionsM{0};
};

}  // namespace Host
