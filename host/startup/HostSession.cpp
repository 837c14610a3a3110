#include "host/startup/HostSession.h"

#include "BAS/FailureText.h"
#include "BAS/FileLogSink.h"
#include "BAS/Framework.h"
#include "BAS/MutexLocker.h"
#include "BAS/RegisteredObject.h"
#include "BAS/Status.h"
#include "PLG/DataPlugIn.h"
#include "STR/FileIoTurbo.h"
#include "host/check/RegistryRemarks.h"
#include "host/common/ExitStatus.h"
#include "host/common/NphostMessages.h"
#include "host/metrics/MetricsLogSink.h"
#include "host/script/CommandInterpreter.h"
#include "plugin/PortabilityLookup.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <thread>

namespace Host {

namespace {

std::string names(const std::vector<RegistryFile::Instance>& instances) {
  std::string result;
  for (const auto& instance : instances) result += (result.empty() ? "" : ", ") + instance.name;
  return result;
}

}  // namespace

HostSession::HostSession(const CommandLine::Options& options, const std::string& executableDirectory)
    : optionsM(options), executableDirectoryM(executableDirectory) {}

HostSession::~HostSession() { finish(); }

BAS::Log& HostSession::log() { return frameworkM->log(); }

std::optional<std::string> HostSession::setting(const std::optional<std::string>& option, const char* key) const {
  if (option) return option;
  const std::string path = std::string(RegistryFile::frameworkTableCM) + "." + key;
  const BAS::RegistryEntry* entry = frameworkM->registry().findPath(BAS::String(path));
  if (entry == nullptr) return std::nullopt;
  return entry->value().str();
}

bool HostSession::setUpDataLineLimit(std::ostream& err) {
  const auto text = setting(std::nullopt, "DataLineLimit");
  if (!text) return true;
  std::size_t bytes = 0;
  const auto [end, failure] = std::from_chars(text->data(), text->data() + text->size(), bytes);
  if (text->empty() || failure != std::errc() || end != text->data() + text->size() || bytes < 1 ||
      bytes > maxDataLineLimitCM) {
    ExitStatus::fail(err, ExitStatus::badInputCM,
                     fmt::format("registry file '{}', line {}: Framework.DataLineLimit must be a whole number of bytes "
                                 "from 1 to {}, not '{}'.",
                                 optionsM.registryFile, registryFileM.lineOf("Framework.DataLineLimit"),
                                 maxDataLineLimitCM, *text));
    return false;
  }
  STR::FileIoTurbo::setLineLimit(bytes);
  return true;
}

bool HostSession::logFormatIsKnown(std::ostream& err) const {
  const auto format = setting(optionsM.logFormat, "LogFormat").value_or("text");
  if (format == "text" || format == "json") return true;
  ExitStatus::fail(err, ExitStatus::badInputCM,
                   fmt::format("registry file '{}', line {}: Framework.LogFormat must be 'text' or 'json', not '{}'.",
                               optionsM.registryFile, registryFileM.lineOf("Framework.LogFormat"), format));
  return false;
}

bool HostSession::setUpLog(std::ostream& err) {
  BAS::Log& log = frameworkM->log();
  if (!logFormatIsKnown(err)) return false;
  const auto format = setting(optionsM.logFormat, "LogFormat").value_or("text");
  log.setFormat(format == "json" ? BAS::Log::Format::JSON : BAS::Log::Format::TEXT);

  const auto path = setting(optionsM.logFile, "Log").value_or("-");
  auto sink = path == "-" ? std::make_shared<BAS::FileLogSink>() : std::make_shared<BAS::FileLogSink>(BAS::String(path));
  if (!sink->ok()) {
    ExitStatus::fail(err, ExitStatus::badInputCM,
                     fmt::format("cannot open the log file '{}' for appending: {}.", path, std::strerror(errno)));
    return false;
  }
  // The log's lines and the run's progress line share a terminal; the progress line's sink
  // keeps them apart.
  progressLineM = std::make_shared<ProgressLine>(sink, path == "-");
  log.addSink(progressLineM);
  logFileM = sink;
  logPathM = path;
  countsM = std::make_shared<CountingLogSink>();
  log.addSink(countsM);
  rewritesM = std::make_shared<RewriteWatch>();
  log.addSink(rewritesM);
  // After the rewrite watch: a delta load's end is judged as the watch sees it.
  log.addSink(std::make_shared<MetricsLogSink>(metricsM, *rewritesM));
  return true;
}

const RegistryFile::Instance* HostSession::chooseInstance(std::ostream& err) const {
  const auto& instances = registryFileM.instances();
  if (optionsM.name) {
    for (const auto& instance : instances)
      if (instance.name == *optionsM.name) return &instance;
    ExitStatus::fail(err, ExitStatus::badInputCM,
                     fmt::format("the registry file '{}' has no plug-in instance named '{}' (instances: {}).",
                                 optionsM.registryFile, *optionsM.name, instances.empty() ? "none" : names(instances)));
    return nullptr;
  }
  if (instances.empty()) {
    ExitStatus::fail(err, ExitStatus::badInputCM,
                     fmt::format("the registry file '{}' names no plug-in instance (a table with a Library key).",
                                 optionsM.registryFile));
    return nullptr;
  }
  if (instances.size() > 1) {
    ExitStatus::fail(err, ExitStatus::badInputCM,
                     fmt::format("the registry file '{}' holds several plug-in instances ({}); choose one with --name.",
                                 optionsM.registryFile, names(instances)));
    return nullptr;
  }
  return &instances.front();
}

int HostSession::start(std::ostream& err) {
  if (const int status = openLibrary(err, true); status != ExitStatus::doneCM) return status;
  RegistryRemarks::log(*this);
  const auto probeDirectory = setting(optionsM.probeDirectory, "ProbeDirectory").value_or(libraryM.directory());
  frameworkM->setProbeDirectory(BAS::String(probeDirectory));

  // Before the plug-in's own messages, so that the log says first what runs on which data.
  const BAS::RegistryEntry* instance = instanceRegistry();
  const BAS::RegistryEntry* dataFile = instance == nullptr ? nullptr : instance->find(BAS::String("FileName"));
  NphostMessages::write(frameworkM->log(), NphostMessages::startIdCM,
                        {std::string(CommandLine::version()), optionsM.registryFile, instanceNameM,
                         dataFile == nullptr ? std::string() : dataFile->value().str(), std::to_string(lookupThreads())});
  startLoggedM = true;

  plugInM.reset(libraryM.create(BAS::String(instanceNameM)));
  if (plugInM == nullptr)
    return fail(err, ExitStatus::invalidObjectCM,
                          fmt::format("the entry point '{}' made no plug-in object.", entryPointM));
  lookupM = libraryM.lookup(plugInM.get());
  if (lookupM == nullptr)
    return fail(err, ExitStatus::invalidObjectCM,
                          fmt::format("the entry point '{}' gave no lookup interface for the object that '{}' made.",
                                      DAT::NumberPortability::PortabilityLookup::entryPointNameCM, entryPointM));
  rewritesM->watch(lookupM->dataFileName());
  publicationsM = std::make_shared<PublicationLog>(*lookupM, frameworkM->log());
  frameworkM->log().addSink(publicationsM);
  if (!publicationsM->start())
    return fail(err, ExitStatus::invalidObjectCM, "cannot start the thread that logs the data's publications.");
  return ExitStatus::doneCM;
}

int HostSession::openLibrary(std::ostream& err, bool withLog) {
  std::error_code code;
  if (std::filesystem::is_directory(optionsM.registryFile, code))
    return ExitStatus::fail(err, ExitStatus::badInputCM,
                            fmt::format("the registry file '{}' is a folder", optionsM.registryFile));
  std::ifstream file(optionsM.registryFile, std::ios::binary);
  const std::string text = file ? std::string(std::istreambuf_iterator<char>(file), {}) : std::string();
  if (!file || file.bad()) {
    return ExitStatus::fail(err, ExitStatus::badInputCM,
                            fmt::format("cannot read the registry file '{}': {}", optionsM.registryFile, std::strerror(errno)));
  }

  frameworkM = std::make_unique<BAS::Framework>();
  if (!registryFileM.load(text, optionsM.registryFile, frameworkM->registry()))
    return ExitStatus::fail(err, ExitStatus::badInputCM, registryFileM.error());
  if (withLog) {
    if (!setUpLog(err)) return ExitStatus::badInputCM;
    if (const auto handler = setting(std::nullopt, "EventHandler"))
      frameworkM->setEventHandlerName(BAS::String(*handler));
  } else if (!logFormatIsKnown(err)) {
    // Nothing is logged, but the registry file that a start would refuse is refused here too.
    return ExitStatus::badInputCM;
  }

  if (!setUpDataLineLimit(err)) return ExitStatus::badInputCM;

  const RegistryFile::Instance* chosen = chooseInstance(err);
  if (chosen == nullptr) return ExitStatus::badInputCM;
  instanceNameM = chosen->name;

  const std::string besideExecutable =
      (std::filesystem::path(executableDirectoryM) / ".." / "lib").lexically_normal().string();
  const std::string pluginDirectory = setting(optionsM.pluginDirectory, "PluginDirectory").value_or(besideExecutable);
  const auto location = PluginLibrary::locate(chosen->library, pluginDirectory);
  entryPointM = location.entryPoint;
  if (!libraryM.open(location)) return ExitStatus::fail(err, ExitStatus::noLibraryCM, libraryM.error());
  return ExitStatus::doneCM;
}

const BAS::RegistryEntry* HostSession::instanceRegistry() const {
  return frameworkM->registry().findPath(BAS::String(instanceNameM));
}

bool HostSession::isValid() const {
  BAS::MutexLocker locker(BAS::RegisteredObject::isValidLockerCM);
  return plugInM->isValid();
}

int HostSession::refuseInvalid(std::ostream& err) {
  closePublications();
  lookupM = nullptr;
  plugInM.reset();
  return fail(err, ExitStatus::invalidObjectCM,
              fmt::format("the plug-in '{}' is not valid after construction; the log says why.", instanceNameM));
}

int HostSession::fail(std::ostream& err, int status, const std::string& sentence) {
  noteStopCause("failure: " + (sentence.ends_with('.') ? sentence.substr(0, sentence.size() - 1) : sentence));
  finish();
  return ExitStatus::fail(err, status, sentence);
}

unsigned HostSession::lookupThreads() const {
  if (optionsM.mode != CommandLine::Options::Mode::RUN) return 1;
  return optionsM.threads != 0 ? optionsM.threads : std::max(1u, std::thread::hardware_concurrency());
}

void HostSession::reopenLog(std::ostream& err) {
  if (logFileM == nullptr || logFileM->reopen()) return;
  err << fmt::format("nphost: cannot reopen the log file '{}': {}; the log goes on into the file it had.", logPathM,
                     std::strerror(errno))
      << std::endl;
}

bool HostSession::init() {
  startedM = true;
  try {
    const bool started = plugInM->init();
    publicationsM->flush();
    return started;
  } catch (...) {
    BAS::Status status;
    status.set(BAS::String(CommandInterpreter::reporterNameCM), CommandInterpreter::commandFailedIdCM,
               BAS::Status::CRITICAL, {BAS::String("init"), BAS::String(BAS::failureText(std::current_exception()))});
    frameworkM->log().writeStatus(status);
    return false;
  }
}

void HostSession::closePublications() {
  if (publicationsM == nullptr) return;
  publicationsM->close();
  frameworkM->log().removeSink(publicationsM);
  publicationsM.reset();
}

void HostSession::finish() {
  if (plugInM != nullptr && startedM && !shutDownM) plugInM->shutdown();
  shutDownM = true;
  closePublications();
  lookupM = nullptr;
  plugInM.reset();
  // After the plug-in's last messages (its destructor may close a file), before the log goes.
  if (startLoggedM && frameworkM != nullptr)
    NphostMessages::write(frameworkM->log(), NphostMessages::stopIdCM, {stopCauseM});
  startLoggedM = false;
  frameworkM.reset();
}

}  // namespace Host
