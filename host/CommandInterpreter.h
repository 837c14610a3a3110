// Host::CommandInterpreter carries out one command line against a number-portability plug-in
// and gives back the one answer line: lookups, usability, registry updates, probe writes,
// waiting for log entries, sleeping and shut-down. The script reader uses it now and a control
// socket can later. One caller at a time; the plug-in's own threads run meanwhile.
#pragma once

#include "host/CountingLogSink.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {
class PlugIn;
}

namespace Host {

class CommandInterpreter {
public:
  // Neither is owned; both must outlive the interpreter.
  CommandInterpreter(DAT::NumberPortability::PlugIn& plugIn, const CountingLogSink& counts);

  // The answer to one line, without a line end; nullopt for a blank line or a comment (a line
  // whose first non-blank character is '#'). Failures answer "error ...", never throw.
  std::optional<std::string> execute(std::string_view line);

  // Whether the plug-in's shutdown was called (by a "shutdown" command).
  bool isShutDown() const { return shutDownM; }

  // The longest wait that "await" and "sleep" accept, one day: longer ones are typing errors.
  static constexpr unsigned long long longestWaitMsCM = 86'400'000;
  static constexpr unsigned long long defaultAwaitTimeoutMsCM = 10'000;

private:
  using Words = std::vector<std::string>;

  std::string search(const Words& words);
  std::string usable(const Words& words);
  std::string update(const Words& words);
  std::string probe(const Words& words);
  std::string await(const Words& words);
  std::string sleep(const Words& words);
  std::string shutdown(const Words& words);

  DAT::NumberPortability::PlugIn& plugInM;
  const CountingLogSink& countsM;
  bool shutDownM = false;
  Words wordsM;  // reused across lines
};

}  // namespace Host
