// Host::NphostMessages writes the messages of the object "nphost" that tell a run's or a
// script's story in the framework log: its start, its readiness, each control command with its
// answer, the run's summary and its stop. The sessions and the control connections use it; the
// texts are in the framework's message catalogue. Any thread: the log serialises its writers.
#pragma once

#include <string>
#include <vector>

namespace BAS {
class Log;
}

namespace Host {

struct NphostMessages {
  static constexpr const char* objectNameCM = "nphost";
  // Version, registry file, instance, data file, lookup threads.
  static constexpr const char* startIdCM = "INF_NPHOST_START";
  // Records in service, seconds the start-up load took.
  static constexpr const char* readyIdCM = "INF_NPHOST_READY";
  // Records, found, not found, rejected, seconds, records per second, and the start-up load's
  // data lines loaded and rejected.
  static constexpr const char* summaryIdCM = "INF_NPHOST_SUMMARY";
  // The cause: "end of input", the signal's name ("SIGTERM"), or "failure: " and the sentence.
  static constexpr const char* stopIdCM = "INF_NPHOST_STOP";
  // The address at which the metrics are served, HOST:PORT with the port bound.
  static constexpr const char* metricsIdCM = "INF_NPHOST_METRICS";
  // The command line as received and its answer (the lines of a two-line answer joined by "; ").
  static constexpr const char* commandIdCM = "INF_NPHOST_COMMAND";

  // Writes the information message `id` of the object "nphost" with `arguments` in order.
  static void write(BAS::Log& log, const char* id, const std::vector<std::string>& arguments);
};

}  // namespace Host
