// Host::SignalWatcher turns SIGINT and SIGTERM into a readable file descriptor, so that the
// event reader's poll wakes up when an operator asks the run to end. The first signal only makes
// the descriptor readable; a second one ends the process at once with _exit. SIGHUP, which log
// rotation sends, only raises a flag that the run takes to reopen its log: it never ends the
// run. The run session installs one for its lifetime; at most one exists per process. Thread
// contract: install and uninstall on one thread; descriptor() and takeHangUp() from any thread.
#pragma once

#include "host/common/SelfPipe.h"

namespace Host {

class SignalWatcher {
public:
  SignalWatcher() = default;
  // Restores the previous dispositions and closes the pipe.
  ~SignalWatcher();
  SignalWatcher(const SignalWatcher&) = delete;
  SignalWatcher& operator=(const SignalWatcher&) = delete;

  // Creates the self-pipe and installs the handlers. False (errno set) when the pipe or a
  // handler could not be set up; nothing stays installed then.
  bool install();

  // Becomes readable (and stays so) once a first signal arrived; -1 before install().
  int descriptor() const { return pipeM.readEnd(); }

  // Whether a SIGHUP arrived since the last call (several count as one).
  static bool takeHangUp();
  // The name of the first SIGINT or SIGTERM ("SIGTERM"); empty while none arrived. Set before
  // descriptor() becomes readable.
  static const char* firstSignalName();

  // The status that a second signal ends the process with: 128 plus the signal number, as a
  // shell reports a process killed by it.
  static constexpr int exitOffsetCM = 128;

private:
  SelfPipe pipeM;
  bool installedM = false;
};

}  // namespace Host
