// Host::CommandInterpreter carries out one command line against a number-portability plug-in,
// through the framework's plug-in interface and the library's lookup interface, and gives back
// the answer: lookups, usability, status, registry updates, probe writes, waiting for log
// entries (also around another command), sleeping and shut-down. The script reader and the
// control socket of `nphost run` use it; on the socket the commands that would stall or end the
// run are refused, and a wait around a command is left to the socket to serve.
// One caller at a time; the plug-in's own threads and the event record lookups run meanwhile.
#pragma once

#include "host/common/CountingLogSink.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace DAT::NumberPortability {
class PortabilityLookup;
}
namespace PLG {
class DataPlugIn;
}

namespace Host {

class CommandInterpreter {
public:
  // SCRIPT takes every command. CONTROL, for a control socket beside a running enrichment,
  // refuses "sleep" and "shutdown" (the run owns the plug-in's life), a print to standard
  // output (which carries the enriched records) and waits beyond longestControlWaitMsCM.
  enum class Mode { SCRIPT, CONTROL };

  // None is owned; all must outlive the interpreter. `lookup` is the lookup interface of `plugIn`;
  // `lookupsServed` counts every lookup of the process ("search" adds to it, "status" shows it).
  CommandInterpreter(PLG::DataPlugIn& plugIn, DAT::NumberPortability::PortabilityLookup& lookup,
                     const CountingLogSink& counts, std::atomic<std::uint64_t>& lookupsServed,
                     Mode mode = Mode::SCRIPT);

  // The answer to one line, without a final line end (the answer of "after" in SCRIPT mode is
  // two lines); nullopt for a blank line or a comment (a line whose first non-blank character
  // is '#'). Failures answer "error ...", never throw.
  std::optional<std::string> execute(std::string_view line);

  // The wait that an "after" command left in CONTROL mode: its command's answer was given, and
  // the line waitAnswer() is due once `id` has been logged `count` times, or at `deadline`.
  struct PendingWait {
    std::string id;
    std::size_t count = 0;
    std::chrono::steady_clock::time_point deadline;
  };
  // The wait that the last execute() left; nullopt when it left none. Takes it away.
  std::optional<PendingWait> takePendingWait() { return std::exchange(pendingM, std::nullopt); }
  static std::string waitAnswer(const std::string& id, bool reached) { return "await " + id + (reached ? " ok" : " timeout"); }

  // Whether the plug-in's shutdown was called (by a "shutdown" command).
  bool isShutDown() const { return shutDownM; }

  // The longest wait that "await" and "sleep" accept, one day: longer ones are typing errors.
  static constexpr unsigned long long longestWaitMsCM = 86'400'000;
  static constexpr unsigned long long defaultAwaitTimeoutMsCM = 10'000;
  // On the control socket a wait holds up the other connections, and the end of the run.
  static constexpr unsigned long long longestControlWaitMsCM = 60'000;

private:
  using Words = std::vector<std::string>;

  std::string dispatch(const Words& words);
  std::string search(const Words& words);
  std::string usable(const Words& words);
  std::string status(const Words& words);
  std::string after(const Words& words);
  std::string update(const Words& words);
  std::string probe(const Words& words);
  std::string await(const Words& words);
  std::string sleep(const Words& words);
  std::string shutdown(const Words& words);
  // The refusal of a command that CONTROL mode does not carry out; nullopt when it may run.
  std::optional<std::string> refusal(const Words& words) const;

  PLG::DataPlugIn& plugInM;
  DAT::NumberPortability::PortabilityLookup& lookupM;
  const CountingLogSink& countsM;
  std::atomic<std::uint64_t>& lookupsServedM;
  Mode modeM;
  std::optional<PendingWait> pendingM;
  bool shutDownM = false;
  Words wordsM;  // reused across lines
};

}  // namespace Host
