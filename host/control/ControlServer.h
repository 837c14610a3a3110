// Host::ControlServer is the control socket of `nphost run`: a Unix domain socket, owner-only,
// on which operators send the script commands (lookups, updates, probes, waits) while the
// records flow. One control thread polls the listening socket and every connection, so an idle
// or slow client holds up nobody; commands run on that thread, one at a time, through a
// CommandInterpreter in control mode. A wait around a command ("after") parks its connection
// until the log counts the entry or the deadline passes, while the others are served. The run
// session opens, starts and stops it.
#pragma once

#include "host/common/OwnedDescriptor.h"
#include "host/common/SelfPipe.h"
#include "host/script/CommandInterpreter.h"

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Host {

class ControlServer {
public:
  // Connections served at once; one more is told "error too many connections" and closed.
  static constexpr std::size_t maxConnectionsCM = 16;
  // A longer command line is answered "error ..." and skipped up to its line end.
  static constexpr std::size_t maxLineBytesCM = 64 * 1024;
  // A client whose unread answers exceed this is dropped: it does not read them.
  static constexpr std::size_t maxPendingOutputCM = 1024 * 1024;

  // Neither is owned. The interpreter is used by the control thread only while it runs; `counts`
  // is the log's counter that the interpreter waits on.
  ControlServer(CommandInterpreter& interpreter, CountingLogSink& counts);
  // Stops the thread and removes the socket file if it is still the one this object made.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Creates the socket at `path`, mode 0600 from its creation on, and listens. A socket file
  // left by a process that ended is replaced; a socket someone listens on, or a file of another
  // kind, is left alone and refused. False with error() as one sentence. Call it while no other
  // thread of the process creates files: the file mode comes from the process's umask.
  bool open(const std::string& path);
  const std::string& error() const { return errorM; }

  // Starts the control thread; false with error() when it cannot.
  bool start();
  // Closes every connection and joins the thread. A command being carried out finishes first.
  // Idempotent.
  void stop();

private:
  struct Connection {
    OwnedDescriptor descriptor;
    std::string input;   // bytes of an unfinished line
    std::string output;  // answers not yet sent
    bool skipping = false;    // inside an over-long line, up to its line end
    bool readClosed = false;  // the client sent its last byte; close once answered
    // A wait that holds up this connection's later commands; their bytes wait in `held`.
    std::optional<CommandInterpreter::PendingWait> wait;
    std::string held;
    bool dropped = false;  // its answers overflowed while a wait ended; close it
  };

  void serve();
  void acceptAll();
  // False when the connection is to be closed.
  bool readFrom(Connection& connection);
  bool take(Connection& connection, const char* bytes, std::size_t size);
  bool answer(Connection& connection, const std::string& text);
  bool flush(Connection& connection);
  // Answers the waits that are over and carries on with their connections' held commands.
  // True when a wait is left, `next` then holding the earliest deadline.
  bool serveWaits(std::chrono::steady_clock::time_point& next);

  // No lock: the owner's thread sets these up in open() and start() before the control thread
  // exists, the control thread only reads them, and the owner touches them again after
  // joining it. Thread creation and join order the accesses.
  CommandInterpreter& interpreterM;
  CountingLogSink& countsM;  // thread-safe itself
  std::string pathM;
  dev_t deviceM = 0;  // identity of the socket file made by open(), for the removal
  ino_t inodeM = 0;
  OwnedDescriptor listenerM;
  SelfPipe wakeM;      // stop() notifies it; the control thread polls it
  SelfPipe loggedM;    // the log counter notifies it while a wait is parked; the control thread drains it
  std::string errorM;  // the owner's thread only
  // No lock: the control thread's alone while it runs; the owner's before and after, the
  // handover ordered by thread creation and join.
  std::vector<Connection> connectionsM;
  std::thread threadM;                 // the owner's thread only
  std::atomic<bool> stoppingM{false};  // atomic: set by stop(), read by the control thread
};

}  // namespace Host
