// Host::CommandLine reads nphost's arguments: a subcommand (script, run, check or ctl) with its
// registry file, the options that override the registry's [Framework] table and the options of
// the run; for ctl the socket and the command words.
// It prints nothing itself: help and version text and errors come back as text. One thread.
#pragma once

#include "host/common/RecordFields.h"
#include "host/metrics/MetricsAddress.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Host {

class CommandLine {
public:
  struct Options {
    enum class Mode { SCRIPT, RUN, CTL, CHECK };
    Mode mode = Mode::SCRIPT;
    std::string registryFile;
    std::optional<std::string> logFile;
    std::optional<std::string> logFormat;  // "text" or "json" once parsed
    std::optional<std::string> name;
    std::optional<std::string> pluginDirectory;
    std::optional<std::string> probeDirectory;

    // run
    std::string input = "-";   // "-" for standard input
    std::string output = "-";  // "-" for standard output
    unsigned threads = 0;      // 0: one per core
    char delimiter = ';';
    std::optional<std::string> controlSocket;
    std::optional<MetricsAddress> metrics;  // where the metrics are served; none: not served
    // The control socket's group, the process's own, may use it too (mode 0660, not 0600).
    bool controlForGroup = false;
    bool normalize = false;  // event numbers are brought to the stored form before the lookup
    // A longer event line is passed on in pieces, never held whole, and counted as rejected.
    std::size_t maxLineBytes = std::size_t{1} << 20;
    // What each record gets appended, in order; never empty.
    std::vector<RecordField> fields{RecordField::OPERATOR};

    // ctl: the socket (in controlSocket) and the command with its arguments
    std::vector<std::string> command;
    std::optional<std::string> waitFor;      // an identifier the command's work is to log
    unsigned long long waitTimeoutMs = 60'000;
  };

  // True when a subcommand is to run with options(). False when the program ends here with
  // exitStatus(): 0 after --help or --version (the text in output()), 1 for a bad command line
  // (one sentence starting "nphost: " in error()).
  bool parse(int argc, const char* const* argv);

  // The project's version, as CMake's project() gives it.
  static std::string_view version();

  const Options& options() const { return optionsM; }
  int exitStatus() const { return exitStatusM; }
  const std::string& output() const { return outputM; }
  const std::string& error() const { return errorM; }

private:
  Options optionsM;
  int exitStatusM = 0;
  std::string outputM;
  std::string errorM;
};

}  // namespace Host
