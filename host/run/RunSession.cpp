#include "host/run/RunSession.h"

#include "host/common/ExitStatus.h"
#include "host/common/OwnedDescriptor.h"
#include "host/control/ControlServer.h"
#include "host/control/SignalWatcher.h"
#include "host/run/EventRecordPipeline.h"
#include "host/script/CommandInterpreter.h"
#include "host/startup/HostSession.h"
#include "plugin/PortabilityLookup.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <future>
#include <iostream>
#include <thread>

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

}  // namespace

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
    openedInput.reset(::open(options.input.c_str(), O_RDONLY | O_CLOEXEC));
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

  // The socket and the signal handlers are set up while this is the only thread: the socket's
  // mode comes from the process-wide umask, which must not leak into files others create.
  CommandInterpreter controlInterpreter(sessionM.plugIn(), sessionM.lookup(), sessionM.counts(),
                                        sessionM.lookupsServed(), CommandInterpreter::Mode::CONTROL);
  ControlServer control(controlInterpreter, sessionM.counts());
  if (options.controlSocket && !control.open(*options.controlSocket)) return fail(ExitStatus::badInputCM, control.error());
  SignalWatcher signals;
  if (!signals.install())
    return fail(ExitStatus::badInputCM, fmt::format("cannot watch for signals: {}", std::strerror(errno)));

  const bool started = initShowingLoad();
  // Taken before a reload or delta load through the socket can change them: the summary
  // speaks of the data the run started with.
  const auto data = sessionM.lookup().loadFigures();
  if (!started) {
    sessionM.finish();
    return fail(ExitStatus::invalidObjectCM,
                fmt::format("the plug-in '{}' did not start; the log says why.", sessionM.instanceName()));
  }
  // Opened only now that the plug-in runs: a run that cannot start leaves an existing output as it was.
  if (options.output != "-") {
    openedOutput.reset(::open(options.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    output = openedOutput.get();
    if (output < 0) {
      const int code = errno;
      sessionM.finish();
      return outputUnwritable(code);
    }
  }
  if (options.controlSocket && !control.start()) {
    sessionM.finish();
    return fail(ExitStatus::badInputCM, control.error());
  }

  EventRecordPipeline::Settings settings;
  settings.inputDescriptor = input;
  settings.outputDescriptor = output;
  settings.inputName = options.input;
  settings.outputName = options.output;
  settings.threads = options.threads != 0 ? options.threads : std::max(1u, std::thread::hardware_concurrency());
  settings.delimiter = options.delimiter;
  settings.stopDescriptor = signals.descriptor();
  settings.normalize = options.normalize;
  settings.lookupsServed = &sessionM.lookupsServed();

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
  control.stop();
  sessionM.finish();

  const double elapsed = seconds(end - begin);
  err << fmt::format("{} records: {} found, {} not found, {} rejected in {:.3f} s ({:.0f} records/s); "
                     "data lines: {} loaded, {} rejected",
                     totals.records, totals.found, totals.notFound, totals.rejected, elapsed,
                     elapsed > 0 ? static_cast<double>(totals.records) / elapsed : 0.0, data.linesTaken,
                     data.linesRejected)
      << std::endl;
  if (!failure.empty()) return fail(ExitStatus::badInputCM, failure);
  return ExitStatus::doneCM;
}

bool RunSession::initShowingLoad() {
  if (!ProgressLine::onTerminal()) return sessionM.init();
  ProgressLine& line = sessionM.progressLine();
  DAT::NumberPortability::PortabilityLookup& lookup = sessionM.lookup();
  const std::string file = lookup.dataFileName();
  const auto draw = [&] {
    const auto figures = lookup.loadFigures();
    std::string text = fmt::format("loading {}: {} data lines, {} rejected", file, figures.linesRead, figures.linesRejected);
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
      line.clear();  // a failure to reopen is said on standard error, not inside the line
      sessionM.reopenLog(std::cerr);
    }
    if (!terminal) continue;
    const auto now = pipeline.totals();
    const double elapsed = seconds(std::chrono::steady_clock::now() - begin);
    std::string text = fmt::format("{} records, {:.0f} records/s", now.records, elapsed > 0 ? now.records / elapsed : 0.0);
    if (inputSize > 0) text += fmt::format(", {:.1f}%", 100.0 * static_cast<double>(now.bytes) / static_cast<double>(inputSize));
    line.show(std::move(text));
  }
  line.clear();
}

}  // namespace Host
