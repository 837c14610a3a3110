// Host::RunSession is `nphost run`: it checks the input and output, starts the plug-in through
// a HostSession, and enriches the event records (EventRecordPipeline) beside a control socket
// (ControlServer) until the input ends or a signal (SignalWatcher) asks it to stop; then it
// writes the summary, telling a service manager that listens how it stands (ServiceNotifier);
// with --metrics it serves them over HTTP (MetricsServer) meanwhile. main runs it. One thread
// drives it; the pipeline, the control server and the metrics server run threads of their own.
#pragma once

#include "host/run/EventRecordPipeline.h"
#include "host/run/ServiceNotifier.h"
#include "plugin/PortabilityLookup.h"

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

namespace Host {

class HostSession;
class MetricsServer;
class ProgressLine;
struct MetricsAddress;

class RunSession {
public:
  // The session is not owned and must outlive this object.
  explicit RunSession(HostSession& session);
  ~RunSession();
  RunSession(const RunSession&) = delete;
  RunSession& operator=(const RunSession&) = delete;

  // Records from the input option to the output option, a progress line on `err` while it is
  // a terminal and a summary at the end. Returns the exit status; 1 also when the input cannot
  // be read or the output cannot be written.
  int run(std::ostream& err);

private:
  // Waits for the pipeline's end, drawing the progress line meanwhile if standard error is a
  // terminal, its rate counted from `begin`; `inputSize` is 0 when the input's size is not known.
  // Reopens the log when a SIGHUP asks for it.
  void showProgress(EventRecordPipeline& pipeline, std::chrono::steady_clock::time_point begin,
                    std::uintmax_t inputSize, ProgressLine& line);
  // The plug-in's init, with the data file's load drawn as the progress line meanwhile if
  // standard error is a terminal; the line is gone when it returns. Whether init succeeded.
  bool initShowingLoad();
  // The end of a run that served: the summary in the log, the stop line with `cause`, the
  // plug-in and framework ended, then the summary on `err`.
  void endRun(std::ostream& err, const EventRecordPipeline::Totals& totals, double elapsed,
              const DAT::NumberPortability::PortabilityLookup::LoadFigures& data, const std::string& cause);

  // Serves the metrics at `address` from now on and logs where; false with the server's error().
  bool startMetrics(const MetricsAddress& address);
  // Ends the serving of the metrics, if any. Idempotent.
  void stopMetrics();

  HostSession& sessionM;
  std::unique_ptr<MetricsServer> metricsM;  // with --metrics only; the run's thread alone
  ServiceNotifier notifierM;  // the driving thread's, and the start-up guard's while it alone runs
};

}  // namespace Host
