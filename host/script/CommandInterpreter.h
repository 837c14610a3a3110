// Host::CommandInterpreter carries out one command line against a number-portability plug-in,
// through the framework's plug-in interface and the library's lookup interface, and gives back
// the answer: lookups (also with what answered: explain), usability, status, registry updates, probe writes, waiting for log
// entries (also around another command), sleeping and shut-down. The script reader and each
// connection of the control socket of `nphost run` use one; on the socket the commands that
// would stall or end the run, or overwrite its own files, are refused, and a wait is left to
// the connection to serve.
// One caller at a time per interpreter; several interpreters may run at once (the plug-in
// serialises their cache operations), beside the plug-in's own threads and the lookups.
#pragma once

#include "host/common/CountingLogSink.h"
#include "host/common/PublicationLog.h"
#include "host/common/RewriteWatch.h"
#include "host/common/WaitSlots.h"
#include "host/metrics/MetricsRegistry.h"

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace BAS {
class Log;
}
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
  // output (which carries the enriched records) or over one of the run's files, waits beyond
  // longestControlWaitMsCM and waits beyond the free slots.
  enum class Mode { SCRIPT, CONTROL };

  // What every interpreter of a process shares. None is owned; all must outlive the
  // interpreters. `lookup` is the lookup interface of `plugIn`; `metrics` counts every lookup
  // of the process ("search" adds to it, "status" shows it) and the control connections.
  struct Services {
    PLG::DataPlugIn& plugIn;
    DAT::NumberPortability::PortabilityLookup& lookup;
    const CountingLogSink& counts;
    RewriteWatch& rewrites;
    BAS::Log& log;
    MetricsRegistry& metrics;
    // Logs each publication of the data; an update writes its publication's line before it
    // answers. Null for none.
    PublicationLog* publications = nullptr;
  };

  // A file of the run (its input, its output) that a print must not write over, whatever name
  // leads to it.
  struct OwnFile {
    std::string role;  // "input", "output": for the refusal
    dev_t device = 0;
    ino_t inode = 0;
  };
  // CONTROL mode only: the run's own files, and the slots that bound the parked waits (not
  // owned; without them every wait is refused).
  struct ControlLimits {
    std::vector<OwnFile> ownFiles;
    WaitSlots* waits = nullptr;
  };

  // SCRIPT mode.
  explicit CommandInterpreter(const Services& services);
  CommandInterpreter(const Services& services, Mode mode, ControlLimits limits);

  // The answer to one line, without a final line end (the answer of "after" in SCRIPT mode is
  // two lines); nullopt for a blank line or a comment (a line whose first non-blank character
  // is '#'), and in CONTROL mode for an "await" that left its wait. Failures answer "error ...";
  // an exception out of the plug-in is logged ("ERR_NPHOST_COMMAND_FAILED") and answered so.
  std::optional<std::string> execute(std::string_view line);

  // The wait that "await" or "after" left in CONTROL mode ("after": its command's answer was
  // given): the line waitAnswer() is due once the goal is reached or failed, or at `deadline`.
  // It holds one of the wait slots until it ends.
  struct PendingWait {
    CountingLogSink::Goal goal;
    std::chrono::steady_clock::time_point deadline;
    WaitSlots::Slot slot;
  };
  // The wait that the last execute() left; nullopt when it left none. Takes it away.
  std::optional<PendingWait> takePendingWait() { return std::exchange(pendingM, std::nullopt); }
  // "await ID ok", "await ID failed", or "await ID timeout" for a wait that is still pending.
  static std::string waitAnswer(const std::string& id, CountingLogSink::Outcome outcome);
  // The event that reports the failure of the work whose success `id` reports, which ends an
  // "after" wait for `id` at once; empty when there is none.
  static std::string failureOf(std::string_view id);

  // Whether the plug-in's shutdown was called (by a "shutdown" command).
  bool isShutDown() const { return shutDownM; }

  // The longest wait that "await" and "sleep" accept, one day: longer ones are typing errors.
  static constexpr unsigned long long longestWaitMsCM = 86'400'000;
  static constexpr unsigned long long defaultAwaitTimeoutMsCM = 10'000;
  // On the control socket an "await" holds a wait slot; "after" may wait up to a day.
  static constexpr unsigned long long longestControlWaitMsCM = 60'000;
  // The identifier and reporter of the message that says a command was ended by a failure.
  static constexpr const char* commandFailedIdCM = "ERR_NPHOST_COMMAND_FAILED";
  static constexpr const char* reporterNameCM = "nphost";

private:
  using Words = std::vector<std::string>;

  std::string dispatch(const Words& words);
  std::string search(const Words& words);
  std::string explain(const Words& words);
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
  // The refusal of a print into `target` when it is one of the run's files or the data file.
  std::optional<std::string> printRefusal(const std::string& target) const;
  // A wait slot for a wait about to park; an empty one when all are taken.
  WaitSlots::Slot takeWaitSlot() const;

  Services servicesM;
  Mode modeM;
  ControlLimits limitsM;
  std::optional<PendingWait> pendingM;
  bool shutDownM = false;
  Words wordsM;  // reused across lines
};

}  // namespace Host
