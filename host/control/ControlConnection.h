// Host::ControlConnection is one client of the control socket, served on a thread of its own:
// it reads command lines, carries each out through an interpreter of its own (in the plug-in,
// for as long as the command takes), sends the answers, and parks on a wait until the log
// counts the entry or its failure, the deadline passes, the client hangs up or the server
// stops. Each command is logged with its whole answer before the answer's last line is sent, so
// the log shows what changed the data and when. It is closed when the client hangs up, does
// not read its answers, or leaves it idle too long.
// The control server makes it, starts it, and joins it; its thread alone touches the rest.
#pragma once

#include "host/common/OwnedDescriptor.h"
#include "host/common/WaitSlots.h"
#include "host/script/CommandInterpreter.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Host {

class ControlConnection {
public:
  // A longer command line is answered "error ..." and skipped up to its line end.
  static constexpr std::size_t maxLineBytesCM = 64 * 1024;
  // A client whose unread answers exceed this is dropped: it does not read them.
  static constexpr std::size_t maxPendingOutputCM = 1024 * 1024;

  // What the server shares with its connections; none of it owned, all of it outliving them.
  struct Shared {
    const CommandInterpreter::Services* services;
    const std::vector<CommandInterpreter::OwnFile>* ownFiles;
    WaitSlots* waitSlots;
    CountingLogSink* counts;
    int stopDescriptor;  // readable once the server stops
    std::chrono::milliseconds idle;
  };

  ControlConnection(OwnedDescriptor socket, const Shared& shared);
  // Joins the thread.
  ~ControlConnection();
  ControlConnection(const ControlConnection&) = delete;
  ControlConnection& operator=(const ControlConnection&) = delete;

  // Starts serving on a new thread; false (the connection unserved) when no thread can be made.
  bool start();
  // Whether the thread has finished: it can be joined without waiting.
  bool ended() const { return endedM.load(); }

private:
  void serve();
  // Carries out the lines in `bytes`, in order; false when the connection is to be closed.
  bool take(const char* bytes, std::size_t size);
  bool runLine(const std::string& line);
  // Holds the connection until the wait is over and gives the wait's answer line; nullopt when
  // the connection is to be closed meanwhile.
  std::optional<std::string> park(const CommandInterpreter::PendingWait& wait);
  // Writes the command and its answer to the log.
  void logCommand(const std::string& line, const std::string& answer) const;
  bool answer(const std::string& text);
  // Sends what the client will take now; false when the connection failed.
  bool flush();
  // Whether the server stops: the stop descriptor is readable.
  bool stopping() const;

  // The connection's thread alone, once started (the server makes it before).
  OwnedDescriptor socketM;
  Shared sharedM;
  CommandInterpreter interpreterM;
  std::string inputM;   // bytes of an unfinished line
  std::string outputM;  // answers not yet sent
  bool skippingM = false;  // inside an over-long line, up to its line end
  std::chrono::steady_clock::time_point idleSinceM;

  std::atomic<bool> endedM{false};  // atomic: set by the thread as it ends, read by the listener
  std::thread threadM;              // the server's listener thread (start), then the joiner
};

}  // namespace Host
