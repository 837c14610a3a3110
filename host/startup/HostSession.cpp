#include "host/startup/HostSession.h"

#include "BAS/FileLogSink.h"
#include "BAS/Framework.h"
#include "BAS/MutexLocker.h"
#include "BAS/RegisteredObject.h"
#include "host/script/CommandInterpreter.h"
#include "host/control/ControlServer.h"
#include "host/run/EventRecordPipeline.h"
#include "host/control/SignalWatcher.h"
#include "plugin/NumberPortabilityPlugIn.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <thread>

namespace Host {

namespace {

int fail(std::ostream& err, int status, const std::string& sentence) {
  err << "nphost: " << sentence << (sentence.ends_with('.') ? "" : ".") << std::endl;
  return status;
}

// Closes a descriptor that the run opened (not the standard ones) on every way out.
class OwnedDescriptor {
public:
  OwnedDescriptor() = default;
  ~OwnedDescriptor() {
    if (descriptorM > 2) close(descriptorM);
  }
  OwnedDescriptor(const OwnedDescriptor&) = delete;
  OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;
  void reset(int descriptor) { descriptorM = descriptor; }
  int get() const { return descriptorM; }

private:
  int descriptorM = -1;
};

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

std::string names(const std::vector<RegistryFile::Instance>& instances) {
  std::string result;
  for (const auto& instance : instances) result += (result.empty() ? "" : ", ") + instance.name;
  return result;
}

}  // namespace

HostSession::HostSession(const CommandLine::Options& options, const std::string& executableDirectory)
    : optionsM(options), executableDirectoryM(executableDirectory) {}

HostSession::~HostSession() { finish(); }

std::optional<std::string> HostSession::setting(const std::optional<std::string>& option, const char* key) const {
  if (option) return option;
  const std::string path = std::string(RegistryFile::frameworkTableCM) + "." + key;
  const BAS::RegistryEntry* entry = frameworkM->registry().findPath(BAS::String(path));
  if (entry == nullptr) return std::nullopt;
  return entry->value().str();
}

bool HostSession::setUpLog(std::ostream& err) {
  BAS::Log& log = frameworkM->log();
  const auto format = setting(optionsM.logFormat, "LogFormat").value_or("text");
  if (format != "text" && format != "json") {
    fail(err, exitBadInputCM,
         fmt::format("registry file '{}', line {}: Framework.LogFormat must be 'text' or 'json', not '{}'.",
                     optionsM.registryFile, registryFileM.lineOf("Framework.LogFormat"), format));
    return false;
  }
  log.setFormat(format == "json" ? BAS::Log::Format::JSON : BAS::Log::Format::TEXT);

  const auto path = setting(optionsM.logFile, "Log").value_or("-");
  auto sink = path == "-" ? std::make_shared<BAS::FileLogSink>() : std::make_shared<BAS::FileLogSink>(BAS::String(path));
  if (!sink->ok()) {
    fail(err, exitBadInputCM, fmt::format("cannot open the log file '{}' for appending: {}.", path, std::strerror(errno)));
    return false;
  }
  log.addSink(sink);
  countsM = std::make_shared<CountingLogSink>();
  log.addSink(countsM);
  return true;
}

int HostSession::start(std::ostream& err) {
  std::error_code code;
  if (std::filesystem::is_directory(optionsM.registryFile, code))
    return fail(err, exitBadInputCM, fmt::format("the registry file '{}' is a folder", optionsM.registryFile));
  std::ifstream file(optionsM.registryFile, std::ios::binary);
  const std::string text = file ? std::string(std::istreambuf_iterator<char>(file), {}) : std::string();
  if (!file || file.bad()) {
    return fail(err, exitBadInputCM,
                fmt::format("cannot read the registry file '{}': {}", optionsM.registryFile, std::strerror(errno)));
  }

  frameworkM = std::make_unique<BAS::Framework>();
  if (!registryFileM.load(text, optionsM.registryFile, frameworkM->registry()))
    return fail(err, exitBadInputCM, registryFileM.error());
  if (!setUpLog(err)) return exitBadInputCM;
  if (const auto handler = setting(std::nullopt, "EventHandler"))
    frameworkM->setEventHandlerName(BAS::String(*handler));

  const auto& instances = registryFileM.instances();
  const RegistryFile::Instance* chosen = nullptr;
  if (optionsM.name) {
    for (const auto& instance : instances)
      if (instance.name == *optionsM.name) chosen = &instance;
    if (chosen == nullptr)
      return fail(err, exitBadInputCM,
                  fmt::format("the registry file '{}' has no plug-in instance named '{}' (instances: {}).",
                              optionsM.registryFile, *optionsM.name, instances.empty() ? "none" : names(instances)));
  } else if (instances.empty()) {
    return fail(err, exitBadInputCM,
                fmt::format("the registry file '{}' names no plug-in instance (a table with a Library key).",
                            optionsM.registryFile));
  } else if (instances.size() > 1) {
    return fail(err, exitBadInputCM,
                fmt::format("the registry file '{}' holds several plug-in instances ({}); choose one with --name.",
                            optionsM.registryFile, names(instances)));
  } else {
    chosen = &instances.front();
  }
  instanceNameM = chosen->name;

  const std::string besideExecutable =
      (std::filesystem::path(executableDirectoryM) / ".." / "lib").lexically_normal().string();
  const std::string pluginDirectory = setting(optionsM.pluginDirectory, "PluginDirectory").value_or(besideExecutable);
  const auto location = PluginLibrary::locate(chosen->library, pluginDirectory);
  if (!libraryM.open(location)) return fail(err, exitNoLibraryCM, libraryM.error());
  const auto probeDirectory = setting(optionsM.probeDirectory, "ProbeDirectory").value_or(libraryM.directory());
  frameworkM->setProbeDirectory(BAS::String(probeDirectory));

  plugInM.reset(libraryM.create(BAS::String(instanceNameM)));
  if (plugInM == nullptr)
    return fail(err, exitInvalidObjectCM, fmt::format("the entry point '{}' made no plug-in object.", location.entryPoint));
  return exitDoneCM;
}

int HostSession::runScript(std::istream& in, std::ostream& out, std::ostream& err) {
  if (const int status = start(err); status != exitDoneCM) return status;

  const bool valid = isValid();
  out << "construct valid=" << (valid ? "true" : "false") << std::endl;
  if (!valid) {
    plugInM.reset();
    return fail(err, exitInvalidObjectCM,
                fmt::format("the plug-in '{}' is not valid after construction; the log says why.", instanceNameM));
  }

  // nphost hosts the number-portability plug-in and nothing else, so the object that its entry
  // point made is that class. Its type information is not exported, hence no dynamic_cast.
  auto* plugIn = static_cast<DAT::NumberPortability::PlugIn*>(plugInM.get());
  startedM = true;
  out << "init result=" << (plugIn->init() ? "true" : "false") << std::endl;

  CommandInterpreter interpreter(*plugIn, *countsM);
  std::string line;
  while (std::getline(in, line)) {
    if (const auto answer = interpreter.execute(line)) out << *answer << std::endl;
    shutDownM = interpreter.isShutDown();
  }
  finish();
  return exitDoneCM;
}

bool HostSession::isValid() const {
  BAS::MutexLocker locker(BAS::RegisteredObject::isValidLockerCM);
  return plugInM->isValid();
}

int HostSession::runEvents(std::ostream& err) {
  // A reader that went away must show as a failed write (EPIPE), not end the process.
  std::signal(SIGPIPE, SIG_IGN);
  OwnedDescriptor input, output;
  input.reset(STDIN_FILENO);
  output.reset(STDOUT_FILENO);
  if (optionsM.input != "-") {
    input.reset(::open(optionsM.input.c_str(), O_RDONLY | O_CLOEXEC));
    if (input.get() < 0)
      return fail(err, exitBadInputCM, fmt::format("cannot open the input file '{}': {}", optionsM.input, std::strerror(errno)));
  }
  struct stat inputStatus {};
  const std::uintmax_t inputSize =
      fstat(input.get(), &inputStatus) == 0 && S_ISREG(inputStatus.st_mode) ? static_cast<std::uintmax_t>(inputStatus.st_size) : 0;
  // Writing the enriched records over the file they are read from would destroy it: refused
  // before anything is opened for writing, whatever name, link or redirection leads there.
  struct stat outputStatus {};
  const bool outputExists = optionsM.output == "-" ? fstat(STDOUT_FILENO, &outputStatus) == 0
                                                   : ::stat(optionsM.output.c_str(), &outputStatus) == 0;
  if (outputExists && S_ISREG(inputStatus.st_mode) && outputStatus.st_dev == inputStatus.st_dev &&
      outputStatus.st_ino == inputStatus.st_ino)
    return fail(err, exitBadInputCM,
                fmt::format("the output '{}' is the input file '{}'; name another output", optionsM.output, optionsM.input));
  // The output is opened only once the plug-in runs; what can be told of it without opening it
  // is told now, before the data is loaded.
  const auto outputUnwritable = [&](int code) {
    return fail(err, exitBadInputCM,
                fmt::format("cannot open the output file '{}' for writing: {}", optionsM.output, std::strerror(code)));
  };
  if (const int problem = optionsM.output == "-" ? 0 : unwritable(optionsM.output, outputExists ? &outputStatus : nullptr))
    return outputUnwritable(problem);

  if (const int status = start(err); status != exitDoneCM) return status;
  if (!isValid()) {
    plugInM.reset();
    return fail(err, exitInvalidObjectCM,
                fmt::format("the plug-in '{}' is not valid after construction; the log says why.", instanceNameM));
  }
  auto* plugIn = static_cast<DAT::NumberPortability::PlugIn*>(plugInM.get());

  // The socket and the signal handlers are set up while this is the only thread: the socket's
  // mode comes from the process-wide umask, which must not leak into files others create.
  CommandInterpreter controlInterpreter(*plugIn, *countsM, CommandInterpreter::Mode::CONTROL);
  ControlServer control(controlInterpreter);
  if (optionsM.controlSocket && !control.open(*optionsM.controlSocket)) return fail(err, exitBadInputCM, control.error());
  SignalWatcher signals;
  if (!signals.install())
    return fail(err, exitBadInputCM, fmt::format("cannot watch for signals: {}", std::strerror(errno)));

  startedM = true;
  if (!plugIn->init()) {
    finish();
    return fail(err, exitInvalidObjectCM, fmt::format("the plug-in '{}' did not start; the log says why.", instanceNameM));
  }
  // Opened only now that the plug-in runs: a run that cannot start leaves an existing output as it was.
  if (optionsM.output != "-") {
    output.reset(::open(optionsM.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (output.get() < 0) {
      const int code = errno;
      finish();
      return outputUnwritable(code);
    }
  }
  if (optionsM.controlSocket && !control.start()) {
    finish();
    return fail(err, exitBadInputCM, control.error());
  }

  EventRecordPipeline::Settings settings;
  settings.inputDescriptor = input.get();
  settings.outputDescriptor = output.get();
  settings.inputName = optionsM.input;
  settings.outputName = optionsM.output;
  settings.threads = optionsM.threads != 0 ? optionsM.threads : std::max(1u, std::thread::hardware_concurrency());
  settings.delimiter = optionsM.delimiter;
  settings.stopDescriptor = signals.descriptor();

  // The summary's time and rate cover the enrichment (reading, lookups, writing) up to the last
  // record written: the plug-in's shutdown below frees both trees, which takes a fixed part of a
  // second and says nothing about how fast records flow.
  const auto begin = std::chrono::steady_clock::now();
  auto end = begin;
  EventRecordPipeline::Totals totals;
  std::string failure;
  {
    EventRecordPipeline pipeline(*plugIn, frameworkM->log(), settings);
    if (pipeline.start()) {
      // The progress line is for a person watching; a log file or a pipe gets the summary only.
      const bool terminal = isatty(STDERR_FILENO) == 1;
      bool drawn = false;
      while (!pipeline.waitUntilDone(std::chrono::milliseconds(250))) {
        if (!terminal) continue;
        const auto now = pipeline.totals();
        const double elapsed = seconds(std::chrono::steady_clock::now() - begin);
        std::string line = fmt::format("\r{} records, {:.0f} records/s", now.records, elapsed > 0 ? now.records / elapsed : 0.0);
        if (inputSize > 0) line += fmt::format(", {:.1f}%", 100.0 * static_cast<double>(now.bytes) / static_cast<double>(inputSize));
        err << line << "\x1b[K" << std::flush;
        drawn = true;
      }
      if (drawn) err << "\r\x1b[K" << std::flush;
    }
    end = std::chrono::steady_clock::now();
    totals = pipeline.totals();
    failure = pipeline.failure();
  }
  control.stop();
  finish();

  const double elapsed = seconds(end - begin);
  err << fmt::format("{} records: {} found, {} not found, {} rejected in {:.3f} s ({:.0f} records/s)", totals.records,
                     totals.found, totals.notFound, totals.rejected, elapsed,
                     elapsed > 0 ? static_cast<double>(totals.records) / elapsed : 0.0)
      << std::endl;
  if (!failure.empty()) return fail(err, exitBadInputCM, failure);
  return exitDoneCM;
}

void HostSession::finish() {
  if (plugInM != nullptr && startedM && !shutDownM) plugInM->shutdown();
  shutDownM = true;
  plugInM.reset();
  frameworkM.reset();
}

}  // namespace Host
