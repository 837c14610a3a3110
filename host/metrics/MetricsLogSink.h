// Host::MetricsLogSink is the log's sink that turns what the plug-in reports into the metrics
// registry's figures: the outcome of every reload and delta load (which end in events whichever
// road they took: registry update or probe), the time of each kind's last success, and the
// distinct data lines the last load rejected. The host session adds it after the RewriteWatch,
// whose judgement of a delta load's rewrite it takes over as it stands after the same entry.
// Thread contract: the log calls write() one entry at a time (it serialises its writers), so
// the sink's own state needs no lock; the figures go to the registry's atomics.
#pragma once

#include "BAS/LogSink.h"
#include "host/common/RewriteWatch.h"
#include "host/metrics/MetricsRegistry.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace Host {

class MetricsLogSink : public BAS::LogSink {
public:
  // Neither is owned; both must outlive the log that holds this sink.
  MetricsLogSink(MetricsRegistry& metrics, const RewriteWatch& rewrites) : metricsM(metrics), rewritesM(rewrites) {}

  void write(const BAS::LogRecord& record, const std::string& line) override;

private:
  // Notes a rejected line of the operation in progress; the plug-in reports each once per
  // copy of the data, so a line is counted by its file and number.
  void noteRejected(const std::string& file, std::uint64_t lineNumber);
  // The operation ended: its distinct rejected lines become the gauge, and the next starts afresh.
  void publishRejected();

  MetricsRegistry& metricsM;
  const RewriteWatch& rewritesM;
  // Per file, one flag per line number: bounded by the file's line count, however often (and in
  // whatever order) the lines are reported.
  std::unordered_map<std::string, std::vector<bool>> rejectedM;
  std::uint64_t distinctM = 0;
};

}  // namespace Host
