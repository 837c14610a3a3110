// Host::HostSession is what one run of nphost starts and ends: it reads the registry file into
// a fresh framework, sets up the log, loads the plug-in library, creates the plug-in and takes
// its lookup interface. It ends things in the order the plug-in's code needs: plug-in,
// framework (which releases the probes and the worker thread), library. The script session
// (ScriptSession) and the run session (RunSession) drive the plug-in in between. Its log tells
// where the story begins and ends: the start line once the log is set up, the stop line, with
// the cause the session noted, as the last line before the framework goes. One thread.
#pragma once

#include "host/common/CountingLogSink.h"
#include "host/common/ProgressLine.h"
#include "host/common/PublicationLog.h"
#include "host/common/RewriteWatch.h"
#include "host/metrics/MetricsRegistry.h"
#include "host/startup/CommandLine.h"
#include "host/startup/PluginLibrary.h"
#include "host/startup/RegistryFile.h"

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>

namespace BAS {
class FileLogSink;
class Framework;
class Log;
class RegistryEntry;
}
namespace PLG {
class DataPlugIn;
}
namespace DAT::NumberPortability {
class PortabilityLookup;
}

namespace Host {

class HostSession {
public:
  // `executableDirectory` is where nphost lives: bare library names are looked up in its
  // ../lib unless the options or the registry say otherwise.
  HostSession(const CommandLine::Options& options, const std::string& executableDirectory);
  ~HostSession();
  HostSession(const HostSession&) = delete;
  HostSession& operator=(const HostSession&) = delete;

  // Everything up to a created plug-in object and its lookup interface; the exit status
  // (ExitStatus), with the reason on `err` when it is not doneCM.
  int start(std::ostream& err);
  // The part of start() that a check needs: the registry file read into a fresh framework, the
  // instance chosen and its library loaded; without `withLog` no log is set up, so nothing is
  // logged. No plug-in object is made. The exit status, with the reason on `err`.
  int openLibrary(std::ostream& err, bool withLog);
  // After openLibrary: the chosen instance's registry table (null when it has none) and its library.
  const BAS::RegistryEntry* instanceRegistry() const;
  PluginLibrary& library() { return libraryM; }
  // After openLibrary: the registry file as read, which knows the line of every key.
  const RegistryFile& registryFile() const { return registryFileM; }
  bool isValid() const;
  // Destroys an object that is not valid after construction; its message and exit status.
  int refuseInvalid(std::ostream& err);
  // Calls the plug-in's init (its publication logged before it returns); from then on finish() shuts it down unless noteShutDown() said
  // that a script did. An exception out of init is logged with its cause
  // ("ERR_NPHOST_COMMAND_FAILED") and counts as a failed init.
  bool init();
  void noteShutDown() { shutDownM = true; }
  // Why the session ends, for the stop line: "end of input", a signal's name, or "failure: "
  // and the sentence said on standard error. Until noted, "failure".
  void noteStopCause(std::string cause) { stopCauseM = std::move(cause); }
  // After start() began: ends the session (finish) with the stop line's cause "failure: " and
  // the sentence, then says the sentence on `err` as ExitStatus::fail does, so that it is the
  // last line there; returns `status`.
  int fail(std::ostream& err, int status, const std::string& sentence);
  // Shuts the plug-in down if it was started, then destroys it, logs the stop line if the start
  // line was logged, and destroys the framework. Idempotent.
  void finish();
  // The threads that look numbers up: --threads or one per core for run, the command thread for
  // script.
  unsigned lookupThreads() const;

  // Valid from a successful start() to finish().
  const CommandLine::Options& options() const { return optionsM; }
  const std::string& instanceName() const { return instanceNameM; }
  PLG::DataPlugIn& plugIn() { return *plugInM; }
  DAT::NumberPortability::PortabilityLookup& lookup() { return *lookupM; }
  CountingLogSink& counts() { return *countsM; }
  RewriteWatch& rewrites() { return *rewritesM; }
  // Logs each publication of the data; an update flushes it before it answers.
  PublicationLog& publications() { return *publicationsM; }
  ProgressLine& progressLine() { return *progressLineM; }
  // The figures that the metrics serve, "status" included: every lookup this process made
  // (event records and "search" commands), the data operations' outcomes as the log saw them.
  MetricsRegistry& metrics() { return metricsM; }
  BAS::Log& log();
  // Reopens a log file by its name (after log rotation moved it away); nothing for standard
  // error. When it cannot, says so on `err` and the log goes on into the file held before.
  void reopenLog(std::ostream& err);

private:
  // The longest data line the framework's reader takes, as Framework.DataLineLimit sets it.
  static constexpr std::size_t maxDataLineLimitCM = std::size_t{1} << 30;
  // Sets the reader's line limit from Framework.DataLineLimit, when the registry has it; false,
  // with the reason on `err`, for a value that is no whole number of bytes within the bounds.
  bool setUpDataLineLimit(std::ostream& err);
  bool setUpLog(std::ostream& err);
  // Writes the publications still queued and stops watching for more: before the plug-in goes.
  void closePublications();
  // False, with the reason on `err`, when Framework.LogFormat (or --log-format) is neither text nor json.
  bool logFormatIsKnown(std::ostream& err) const;
  // The value of a [Framework] key, or of the option that overrides it.
  std::optional<std::string> setting(const std::optional<std::string>& option, const char* key) const;
  // The one instance the options and the registry file name; null with the reason on `err`.
  const RegistryFile::Instance* chooseInstance(std::ostream& err) const;

  const CommandLine::Options& optionsM;
  std::string executableDirectoryM;
  RegistryFile registryFileM;
  std::string instanceNameM;
  std::string entryPointM;  // the chosen library's module-start entry point
  // Before the framework, whose log's metrics sink adds to it until the log goes. Thread-safe
  // itself.
  MetricsRegistry metricsM;
  // Declared in the order of creation, so that they end in reverse: the plug-in's code stays
  // loaded until the framework has released what the plug-in handed it.
  PluginLibrary libraryM;
  std::unique_ptr<BAS::Framework> frameworkM;
  std::shared_ptr<CountingLogSink> countsM;
  std::shared_ptr<RewriteWatch> rewritesM;
  // Made once the lookup interface is there; closed before the plug-in goes.
  std::shared_ptr<PublicationLog> publicationsM;
  std::shared_ptr<BAS::FileLogSink> logFileM;
  std::string logPathM;  // as the options or the registry name it; "-" for standard error
  std::shared_ptr<ProgressLine> progressLineM;
  std::unique_ptr<PLG::DataPlugIn> plugInM;
  DAT::NumberPortability::PortabilityLookup* lookupM = nullptr;  // owned by plugInM
  bool startedM = false;
  bool shutDownM = false;
  bool startLoggedM = false;
  std::string stopCauseM = "failure";
};

}  // namespace Host
