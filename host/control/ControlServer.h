// Host::ControlServer is the control socket of `nphost run`: a Unix domain socket, owner-only,
// on which operators send the script commands (lookups, updates, probes, waits) while the
// records flow. A listener thread accepts connections and gives each a thread of its own
// (ControlConnection), because a command runs inside the plug-in until it ends: a reload of a
// large file, a delta file that is a FIFO nobody writes yet, a wait. With a thread each, such a
// command holds up only its own connection; two cache operations queue in the plug-in's own
// serialisation, and every other connection is answered meanwhile. The bound of 16
// connections keeps the thread count small, and the bound on parked waits keeps some of them
// free for an operator.
// The run session opens it before the data loads, starts it once the data serves, and stops
// it at the end; those three and the destructor belong to that one thread.
#pragma once

#include "host/common/OwnedDescriptor.h"
#include "host/common/SelfPipe.h"
#include "host/common/WaitSlots.h"
#include "host/script/CommandInterpreter.h"

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Host {

class ControlConnection;

class ControlServer {
public:
  // Connections served at once; one more is told "error too many connections" and closed.
  static constexpr std::size_t maxConnectionsCM = 16;
  // Waits ("await", "after") parked at once; one more is answered "error too many waits".
  static constexpr std::size_t maxWaitsCM = 12;
  // A connection with no command in progress for this long is closed. The environment variable
  // shortens it for the tests, which cannot wait a minute.
  static constexpr std::chrono::milliseconds defaultIdleCM{60'000};
  static constexpr const char* idleEnvironmentCM = "NPHOST_CONTROL_IDLE_MS";

  // `services` are those of every connection's interpreter; `counts` is the log's counter that
  // parked waits watch. Neither is owned.
  ControlServer(const CommandInterpreter::Services& services, CountingLogSink& counts);
  // Stops the threads and removes the socket file if it is still the one this object made.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Checks `path` and creates the socket, mode 0600 (0660 with `forGroup`: the process's group
  // may use it too) from its creation on, under a hidden name
  // in the same folder, where nobody looks for it: the socket appears at `path` only when
  // start() publishes it. A socket file left at `path` by a process that ended will be
  // replaced; a socket someone listens on, or a file of another kind, is refused. False with
  // error() as one sentence. Call it while no other thread of the process creates files: the
  // file mode comes from the process's umask.
  bool open(const std::string& path, bool forGroup = false);
  const std::string& error() const { return errorM; }

  // Once the data serves: puts the socket in its place (replacing a stale one, refusing one that
  // came alive meanwhile) and starts the listener; `ownFiles` are the run's files that a print
  // must not write over. False with error() when it cannot.
  bool start(std::vector<CommandInterpreter::OwnFile> ownFiles);
  // Ends every connection and joins the threads. A command being carried out finishes first
  // (the run has made every wait for a FIFO end before). Idempotent.
  void stop();
  // Removes the socket file made by open(), for a process about to end at once, without
  // destructors. Calls nothing that locks or allocates.
  void removeSocketFileNow() const;

private:
  void listen();
  void acceptAll();
  // Joins the connections whose threads have ended. The listener thread only.
  void reap();

  // No lock for these: set in the constructor, open() and start() before the listener exists,
  // then only read by the threads; the owner touches them again after joining them.
  CommandInterpreter::Services servicesM;
  CountingLogSink& countsM;  // thread-safe itself
  std::chrono::milliseconds idleM = defaultIdleCM;
  std::string pathM;     // the socket file's current name: the hidden one until start()
  std::string finalM;    // the name asked for
  char pathBytesM[128] = {};  // pathM for removeSocketFileNow
  dev_t deviceM = 0;     // identity of the socket file made by open(), for the removal
  ino_t inodeM = 0;
  OwnedDescriptor listenerM;
  std::vector<CommandInterpreter::OwnFile> ownFilesM;
  SelfPipe wakeM;  // stop() notifies it; every thread of the server polls it (it stays readable)
  WaitSlots waitSlotsM{maxWaitsCM};  // thread-safe itself
  std::string errorM;  // the owner's thread only
  // The listener thread's alone while it runs; the owner's after joining it.
  std::list<std::unique_ptr<ControlConnection>> connectionsM;
  std::thread listenerThreadM;         // the owner's thread only
  std::atomic<bool> stoppingM{false};  // atomic: set by stop(), read by every thread of the server
};

}  // namespace Host
