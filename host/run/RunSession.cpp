#include "host/run/RunSession.h"

#include "host/control/ControlServer.h"
#include "host/control/SignalWatcher.h"
#include "host/metrics/MetricsServer.h"
#include "host/run/EventRecordPipeline.h"
#include "host/run/ServiceNotifier.h"
#include "host/script/CommandInterpreter.h"
#include "host/startup/HostSession.h"
#include "STR/FileIoTurbo.h"
#include "host/common/CountWords.h"
#include "host/common/ExitStatus.h"
#include "host/common/NphostMessages.h"
#include "host/common/OwnedDescriptor.h"
#include "host/common/SelfPipe.h"
#include "plugin/PortabilityLookup.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <future>
#include <iostream>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace Host {

namespace {

// Why `path` could not be opened for writing, as an errno value, as far as its status (null
// when it does not exist) and the access rights tell; 0 when nothing speaks against it.
int unwritable(const std::string& path, const struct stat* status) {
  if (status != nullptr) {
    if (S_ISDIR(status->st_mode)) return EISDIR;
    return access(path.c_str(), W_OK) == 0 ? 0 : errno;
  }
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  return access(folder.empty() ? "." : folder.c_str(), W_OK | X_OK) == 0 ? 0 : errno;
}

double seconds(std::chrono::steady_clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

// Whether the signal watcher's descriptor says that a signal asked the run to end.
bool signalled(int descriptor) {
  pollfd wait{descriptor, POLLIN, 0};
  return poll(&wait, 1, 0) > 0;
}

// The summary's line on standard error: the event records of the run, and the data lines of
// the start-up load (a reload or delta load later does not change them).
void writeSummary(std::ostream& err, const EventRecordPipeline::Totals& totals, double elapsed,
                  const DAT::NumberPortability::PortabilityLookup::LoadFigures& data) {
  const auto rate = static_cast<std::uint64_t>(std::llround(elapsed > 0 ? static_cast<double>(totals.records) / elapsed : 0.0));
  err << fmt::format("{}: {} found, {} not found, {} rejected in {:.3f} s ({}); start-up load: {} loaded, {} rejected",
                     CountWords::of(totals.records, "record", "records"), totals.found, totals.notFound,
                     totals.rejected, elapsed, CountWords::of(rate, "record/s", "records/s"),
                     CountWords::of(data.linesTaken, "data line", "data lines"), data.linesRejected)
      << std::endl;
}

// The same figures as the log's summary message.
void logSummary(BAS::Log& log, const EventRecordPipeline::Totals& totals, double elapsed,
                const DAT::NumberPortability::PortabilityLookup::LoadFigures& data) {
  NphostMessages::write(log, NphostMessages::summaryIdCM,
                        {std::to_string(totals.records), std::to_string(totals.found), std::to_string(totals.notFound),
                         std::to_string(totals.rejected), fmt::format("{:.3f}", elapsed),
                         fmt::format("{:.0f}", elapsed > 0 ? static_cast<double>(totals.records) / elapsed : 0.0),
                         std::to_string(data.linesTaken), std::to_string(data.linesRejected)});
}

// When the last of two events (an operation's success and its failure) was logged, and which.
std::string lastOutcome(const CountingLogSink& counts, const char* succeeded, const char* failed) {
  const auto ok = counts.lastTime(succeeded);
  const auto bad = counts.lastTime(failed);
  if (!ok && !bad) return "never";
  const bool lastOk = ok && (!bad || *ok >= *bad);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}Z {}", std::chrono::floor<std::chrono::seconds>(lastOk ? *ok : *bad),
                     lastOk ? "ok" : "failed");
}

// The service manager's one line on the run: what serves and what last changed it.
std::string serviceStatus(DAT::NumberPortability::PortabilityLookup& lookup, const CountingLogSink& counts) {
  return fmt::format("{} in service; last reload: {}; last delta load: {}",
                     CountWords::of(lookup.activeRecords(), "record", "records"),
                     lastOutcome(counts, "EVT::RELOAD_SUCCESSFUL", "EVT::RELOAD_FAILED"),
                     lastOutcome(counts, "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL", "EVT::ADD_NUM_PORT_DATA_FAILED"));
}

enum class Opened { OPEN, FAILED, STOPPED };

// Opens the output for writing into `into`. A FIFO without a reader is waited for, never in an
// open that a signal could not cut short: STOPPED when a signal came first. FAILED with errno.
Opened openOutput(const std::string& name, int signalDescriptor, OwnedDescriptor& into) {
  for (;;) {
    into.reset(::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0644));
    if (into.get() >= 0) {
      // The writer thread writes whole batches and waits for a slow reader.
      const int flags = fcntl(into.get(), F_GETFL);
      if (flags < 0 || fcntl(into.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) return Opened::FAILED;
      return signalled(signalDescriptor) ? Opened::STOPPED : Opened::OPEN;
    }
    // ENXIO: a FIFO nobody reads yet. Linux tells of no reader coming, so look again shortly.
    if (errno != ENXIO) return Opened::FAILED;
    pollfd wait{signalDescriptor, POLLIN, 0};
    if (poll(&wait, 1, 100) > 0) return Opened::STOPPED;
  }
}

// The run's input and output as files that a print through the control socket must not
// overwrite.
std::vector<CommandInterpreter::OwnFile> ownFiles(int input, int output) {
  std::vector<CommandInterpreter::OwnFile> files;
  for (const auto& [descriptor, role] : {std::pair{input, "input"}, std::pair{output, "output"}}) {
    struct stat status {};
    if (fstat(descriptor, &status) == 0) files.push_back({role, status.st_dev, status.st_ino});
  }
  return files;
}

// While the start-up load runs, a thread that ends the process on the first signal: the load
// cannot be cut short, and the run has written nothing yet. Its end joins the thread.
class StartupGuard {
public:
  StartupGuard(int signalDescriptor, const ControlServer& control, BAS::Log& log, ServiceNotifier& notifier)
      : controlM(control) {
    if (!doneM.open()) return;
    threadM = std::thread([this, signalDescriptor, &log, &notifier] {
      pollfd waits[2] = {{signalDescriptor, POLLIN, 0}, {doneM.readEnd(), POLLIN, 0}};
      while (poll(waits, 2, -1) < 0) {
      }
      if (waits[1].revents != 0) return;
      notifier.stopping();
      // Every log line is on its way already (the log's sinks flush each line); the stop line
      // is the last.
      NphostMessages::write(log, NphostMessages::stopIdCM, {SignalWatcher::firstSignalName()});
      controlM.removeSocketFileNow();
      constexpr std::string_view said = "nphost: stopped during the start-up load; the output is untouched.\n";
      [[maybe_unused]] const ssize_t ignored = ::write(STDERR_FILENO, said.data(), said.size());
      _exit(ExitStatus::doneCM);
    });
  }
  ~StartupGuard() {
    if (!threadM.joinable()) return;
    doneM.notify();
    threadM.join();
  }
  StartupGuard(const StartupGuard&) = delete;
  StartupGuard& operator=(const StartupGuard&) = delete;

private:
  const ControlServer& controlM;
  SelfPipe doneM;
  std::thread threadM;
};

}  // namespace

RunSession::RunSession(HostSession& session) : sessionM(session) {}

RunSession::~RunSession() = default;

int RunSession::run(std::ostream& err) {
  const CommandLine::Options& options = sessionM.options();
  const auto fail = [&err](int status, const std::string& sentence) { return ExitStatus::fail(err, status, sentence); };
  // A reader that went away must show as a failed write (EPIPE), not end the process.
  std::signal(SIGPIPE, SIG_IGN);
  // The standard descriptors are the process's; only files the run opens are closed by it.
  OwnedDescriptor openedInput, openedOutput;
  int input = STDIN_FILENO;
  int output = STDOUT_FILENO;
  if (options.input != "-") {
    // Not blocking: a FIFO's writer may come long after the data has loaded, and the reader of
    // the records waits for it beside the signals.
    openedInput.reset(::open(options.input.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    input = openedInput.get();
    if (input < 0)
      return fail(ExitStatus::badInputCM,
                  fmt::format("cannot open the input file '{}': {}", options.input, std::strerror(errno)));
  }
  struct stat inputStatus {};
  const std::uintmax_t inputSize =
      fstat(input, &inputStatus) == 0 && S_ISREG(inputStatus.st_mode) ? static_cast<std::uintmax_t>(inputStatus.st_size) : 0;
  // Writing the enriched records over the file they are read from would destroy it: refused
  // before anything is opened for writing, whatever name, link or redirection leads there.
  struct stat outputStatus {};
  const bool outputExists = options.output == "-" ? fstat(STDOUT_FILENO, &outputStatus) == 0
                                                  : ::stat(options.output.c_str(), &outputStatus) == 0;
  if (outputExists && S_ISREG(inputStatus.st_mode) && outputStatus.st_dev == inputStatus.st_dev &&
      outputStatus.st_ino == inputStatus.st_ino)
    return fail(ExitStatus::badInputCM,
                fmt::format("the output '{}' is the input file '{}'; name another output", options.output, options.input));
  // The output is opened only once the plug-in runs; what can be told of it without opening it
  // is told now, before the data is loaded.
  const auto outputUnwritable = [&](int code) {
    return fail(ExitStatus::badInputCM,
                fmt::format("cannot open the output file '{}' for writing: {}", options.output, std::strerror(code)));
  };
  if (const int problem = options.output == "-" ? 0 : unwritable(options.output, outputExists ? &outputStatus : nullptr))
    return outputUnwritable(problem);

  if (const int status = sessionM.start(err); status != ExitStatus::doneCM) return status;
  if (!sessionM.isValid()) return sessionM.refuseInvalid(err);
  // From here on every way out notes its cause for the log's stop line.
  const auto failAndStop = [this, &err](int status, const std::string& sentence) {
    stopMetrics();
    return sessionM.fail(err, status, sentence);
  };

  // The socket and the signal handlers are set up while this is the only thread: the socket's
  // mode comes from the process-wide umask, which must not leak into files others create.
  const CommandInterpreter::Services services{sessionM.plugIn(), sessionM.lookup(), sessionM.counts(),
                                              sessionM.rewrites(), sessionM.log(),  sessionM.metrics(),
                                              &sessionM.publications()};
  ControlServer control(services, sessionM.counts());
  if (options.controlSocket && !control.open(*options.controlSocket, options.controlForGroup)) return failAndStop(ExitStatus::badInputCM, control.error());
  SignalWatcher signals;
  if (!signals.install())
    return failAndStop(ExitStatus::badInputCM, fmt::format("cannot watch for signals: {}", std::strerror(errno)));
  // Served from before the start-up load on, so that a long load is watched too.
  if (options.metrics && !startMetrics(*options.metrics)) return failAndStop(ExitStatus::badInputCM, metricsM->error());

  bool started = false;
  const auto loadBegin = std::chrono::steady_clock::now();
  {
    // The start-up load cannot be cut short, and nothing has been written yet: a signal
    // during it ends the process at once, the output untouched.
    const StartupGuard guard(signals.descriptor(), control, sessionM.log(), notifierM);
    started = initShowingLoad();
  }
  const double loadSeconds = seconds(std::chrono::steady_clock::now() - loadBegin);
  // Taken before a reload or delta load through the socket can change them: the summary
  // speaks of the data the run started with.
  const auto data = sessionM.lookup().loadFigures();
  if (!started)
    return failAndStop(ExitStatus::invalidObjectCM,
                       fmt::format("the plug-in '{}' did not start; the log says why.", sessionM.instanceName()));
  // Ready: the start-up load has ended and lookups are served. Said before the output is
  // opened, so that a FIFO whose reader has not come yet never holds up the service manager's
  // start, and before the control socket appears, so that whoever finds the socket finds the
  // line in the log.
  NphostMessages::write(sessionM.log(), NphostMessages::readyIdCM,
                        {std::to_string(sessionM.lookup().activeRecords()), fmt::format("{:.3f}", loadSeconds)});
  notifierM.ready(serviceStatus(sessionM.lookup(), sessionM.counts()));
  // A signal before the records flow ends the run with an empty summary.
  const auto endBeforeRecords = [&] {
    endRun(err, {}, 0.0, data, SignalWatcher::firstSignalName());
    return ExitStatus::doneCM;
  };
  // Opened only now that the plug-in runs: a run that cannot start, or is stopped before it
  // serves, leaves an existing output as it was.
  if (options.output != "-") {
    const Opened opened = openOutput(options.output, signals.descriptor(), openedOutput);
    if (opened == Opened::STOPPED) return endBeforeRecords();
    output = openedOutput.get();
    if (opened == Opened::FAILED) {
      const int code = errno;
      return failAndStop(ExitStatus::badInputCM, fmt::format("cannot open the output file '{}' for writing: {}",
                                                             options.output, std::strerror(code)));
    }
  } else if (signalled(signals.descriptor())) {
    return endBeforeRecords();
  }
  if (options.controlSocket && !control.start(ownFiles(input, output)))
    return failAndStop(ExitStatus::badInputCM, control.error());

  EventRecordPipeline::Settings settings;
  settings.inputDescriptor = input;
  settings.outputDescriptor = output;
  settings.inputName = options.input;
  settings.outputName = options.output;
  settings.threads = sessionM.lookupThreads();
  settings.delimiter = options.delimiter;
  settings.stopDescriptor = signals.descriptor();
  settings.normalize = options.normalize;
  settings.metrics = &sessionM.metrics();
  settings.maxLineBytes = options.maxLineBytes;
  settings.fields = options.fields;

  // The summary's time and rate cover the enrichment (reading, lookups, writing) up to the last
  // record written: the plug-in's shutdown below frees both trees, which takes a fixed part of a
  // second and says nothing about how fast records flow.
  const auto begin = std::chrono::steady_clock::now();
  auto end = begin;
  EventRecordPipeline::Totals totals;
  std::string failure;
  {
    EventRecordPipeline pipeline(sessionM.lookup(), sessionM.log(), settings);
    if (pipeline.start()) showProgress(pipeline, begin, inputSize, sessionM.progressLine());
    end = std::chrono::steady_clock::now();
    totals = pipeline.totals();
    failure = pipeline.failure();
  }
  // A command still reading a FIFO (a delta file nobody writes) must not keep the run from
  // ending; a reload or delta load that reads a file is waited for.
  STR::FileIoTurbo::stopWaiting();
  control.stop();
  stopMetrics();

  const std::string signal = SignalWatcher::firstSignalName();
  const std::string cause = !failure.empty()  ? "failure: " + failure.substr(0, failure.find_last_not_of('.') + 1)
                            : !signal.empty() ? signal
                                              : "end of input";
  endRun(err, totals, seconds(end - begin), data, cause);
  if (!failure.empty()) return ExitStatus::fail(err, ExitStatus::badInputCM, failure);
  return ExitStatus::doneCM;
}

void RunSession::endRun(std::ostream& err, const EventRecordPipeline::Totals& totals, double elapsed,
                        const DAT::NumberPortability::PortabilityLookup::LoadFigures& data, const std::string& cause) {
  stopMetrics();
  notifierM.stopping();
  logSummary(sessionM.log(), totals, elapsed, data);
  sessionM.noteStopCause(cause);
  sessionM.finish();
  // After the log's last line, so that on a terminal the summary is what stays in view.
  writeSummary(err, totals, elapsed, data);
}

bool RunSession::startMetrics(const MetricsAddress& address) {
  // The figures come from atomics and from the lookup interface's figures, which never wait: a
  // scrape is answered while a reload or delta load runs.
  metricsM = std::make_unique<MetricsServer>(
      [this] { return sessionM.metrics().exposition(sessionM.lookup()); });
  if (!metricsM->open(address) || !metricsM->start()) return false;
  NphostMessages::write(sessionM.log(), NphostMessages::metricsIdCM, {metricsM->address().text()});
  return true;
}

void RunSession::stopMetrics() {
  // Before the plug-in goes: a scrape reads its lookup interface.
  if (metricsM != nullptr) metricsM->stop();
}

bool RunSession::initShowingLoad() {
  if (!ProgressLine::onTerminal()) return sessionM.init();
  ProgressLine& line = sessionM.progressLine();
  DAT::NumberPortability::PortabilityLookup& lookup = sessionM.lookup();
  const std::string file = lookup.dataFileName();
  const auto draw = [&] {
    const auto figures = lookup.loadFigures();
    std::string text = fmt::format("loading {}: {}, {} rejected", file,
                                   CountWords::of(figures.linesRead, "data line", "data lines"), figures.linesRejected);
    if (figures.fileBytes > 0)
      text += fmt::format(", {:.1f}%", 100.0 * static_cast<double>(figures.bytesRead) / static_cast<double>(figures.fileBytes));
    line.show(std::move(text));
  };
  // Drawn at once, so that a person sees what the start waits for, then a few times a second
  // until the load has ended.
  draw();
  std::promise<void> loaded;
  std::thread drawer([&, ended = loaded.get_future()] {
    while (ended.wait_for(std::chrono::milliseconds(250)) == std::future_status::timeout) draw();
  });
  const bool started = sessionM.init();
  loaded.set_value();
  drawer.join();
  line.clear();
  return started;
}

void RunSession::showProgress(EventRecordPipeline& pipeline, std::chrono::steady_clock::time_point begin,
                              std::uintmax_t inputSize, ProgressLine& line) {
  // The progress line is for a person watching; a log file or a pipe gets the summary only.
  const bool terminal = ProgressLine::onTerminal();
  while (!pipeline.waitUntilDone(std::chrono::milliseconds(250))) {
    if (SignalWatcher::takeHangUp()) {
      notifierM.reloading();
      line.clear();  // a failure to reopen is said on standard error, not inside the line
      sessionM.reopenLog(std::cerr);
      notifierM.reloaded();
    }
    // Reloads and delta loads through the control socket change what serves.
    if (notifierM.active()) notifierM.status(serviceStatus(sessionM.lookup(), sessionM.counts()));
    if (!terminal) continue;
    const auto now = pipeline.totals();
    const double elapsed = seconds(std::chrono::steady_clock::now() - begin);
    const auto rate = static_cast<std::uint64_t>(std::llround(elapsed > 0 ? static_cast<double>(now.records) / elapsed : 0.0));
    std::string text = fmt::format("{}, {}", CountWords::of(now.records, "record", "records"),
                                   CountWords::of(rate, "record/s", "records/s"));
    if (inputSize > 0) text += fmt::format(", {:.1f}%", 100.0 * static_cast<double>(now.bytes) / static_cast<double>(inputSize));
    line.show(std::move(text));
  }
  line.clear();
}

}  // namespace Host
