// Host::HostSession is one run of nphost: it reads the registry file into a fresh framework,
// sets up the log, loads the plug-in library, creates and starts the plug-in and, in script
// mode, feeds it the commands of an input stream. It ends things in the order the plug-in's
// code needs: plug-in, framework (which releases the probes and the worker thread), library.
// In run mode it enriches event records (EventRecordPipeline) beside a control socket
// (ControlServer) until the input ends or a signal (SignalWatcher) asks it to stop.
// One thread drives it.
#pragma once

#include "host/startup/CommandLine.h"
#include "host/common/CountingLogSink.h"
#include "host/startup/PluginLibrary.h"
#include "host/startup/RegistryFile.h"

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>

namespace BAS {
class Framework;
}
namespace PLG {
class DataPlugIn;
}

namespace Host {

class HostSession {
public:
  // Exit statuses of the program.
  static constexpr int exitDoneCM = 0;
  static constexpr int exitBadInputCM = 1;       // command line or registry file
  static constexpr int exitNoLibraryCM = 2;      // plug-in library or entry point
  static constexpr int exitInvalidObjectCM = 3;  // the plug-in object is not valid

  // `executableDirectory` is where nphost lives: bare library names are looked up in its
  // ../lib unless the options or the registry say otherwise.
  HostSession(const CommandLine::Options& options, const std::string& executableDirectory);
  ~HostSession();
  HostSession(const HostSession&) = delete;
  HostSession& operator=(const HostSession&) = delete;

  // Script mode: answers go to `out`, one line each, flushed at once; errors go to `err` as one
  // sentence starting "nphost: ". Returns the exit status.
  int runScript(std::istream& in, std::ostream& out, std::ostream& err);

  // Run mode: records from the input option to the output option, a progress line on `err`
  // while it is a terminal and a summary at the end. Returns the exit status; 1 also when the
  // input cannot be read or the output cannot be written.
  int runEvents(std::ostream& err);

private:
  // Everything up to a created plug-in object; the exit status when that fails.
  int start(std::ostream& err);
  bool setUpLog(std::ostream& err);
  bool isValid() const;
  // The value of a [Framework] key, or of the option that overrides it.
  std::optional<std::string> setting(const std::optional<std::string>& option, const char* key) const;
  void finish();

  const CommandLine::Options& optionsM;
  std::string executableDirectoryM;
  RegistryFile registryFileM;
  std::string instanceNameM;
  // Declared in the order of creation, so that they end in reverse: the plug-in's code stays
  // loaded until the framework has released what the plug-in handed it.
  PluginLibrary libraryM;
  std::unique_ptr<BAS::Framework> frameworkM;
  std::shared_ptr<CountingLogSink> countsM;
  std::unique_ptr<PLG::DataPlugIn> plugInM;
  bool startedM = false;
  bool shutDownM = false;
};

}  // namespace Host
