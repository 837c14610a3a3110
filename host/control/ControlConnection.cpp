#include "host/control/ControlConnection.h"

#include "host/common/NphostMessages.h"
#include "host/common/SelfPipe.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace Host {

namespace {

using Clock = std::chrono::steady_clock;

// Milliseconds for poll until `deadline`, rounded up so that a wake-up is never early.
int millisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, 24 * 3600 * 1000));
}

}  // namespace

ControlConnection::ControlConnection(OwnedDescriptor socket, const Shared& shared)
    : socketM(std::move(socket)),
      sharedM(shared),
      interpreterM(*shared.services, CommandInterpreter::Mode::CONTROL,
                   CommandInterpreter::ControlLimits{*shared.ownFiles, shared.waitSlots}) {}

ControlConnection::~ControlConnection() {
  if (threadM.joinable()) threadM.join();
}

bool ControlConnection::start() {
  try {
    threadM = std::thread([this] { serve(); });
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

bool ControlConnection::stopping() const {
  pollfd stop{sharedM.stopDescriptor, POLLIN, 0};
  return poll(&stop, 1, 0) > 0;
}

void ControlConnection::serve() {
  sharedM.services->metrics.connectionOpened();
  // Whatever fails here ends this connection only; the thread never takes the process with it.
  try {
    idleSinceM = Clock::now();
    bool readClosed = false;  // the client sent its last byte; close once answered
    while (outputM.size() <= maxPendingOutputCM && !(readClosed && outputM.empty())) {
      const short events = static_cast<short>((readClosed ? 0 : POLLIN) | (outputM.empty() ? 0 : POLLOUT));
      pollfd waits[2] = {{socketM.get(), events, 0}, {sharedM.stopDescriptor, POLLIN, 0}};
      const int ready = poll(waits, 2, millisecondsUntil(idleSinceM + sharedM.idle));
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0 || waits[1].revents != 0) break;
      if (ready == 0) {
        // Idle: no command in progress and nothing received for the whole idle time.
        if (Clock::now() >= idleSinceM + sharedM.idle) break;
        continue;
      }
      const short got = waits[0].revents;
      if ((got & POLLOUT) && !flush()) break;
      if (readClosed) {
        if (got & (POLLHUP | POLLERR)) break;  // nobody is left to read the answers
        continue;
      }
      if ((got & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
      char buffer[16 * 1024];
      const ssize_t n = recv(socketM.get(), buffer, sizeof buffer, MSG_DONTWAIT);
      if (n > 0) {
        idleSinceM = Clock::now();
        if (!take(buffer, static_cast<std::size_t>(n))) break;
      } else if (n == 0) {
        readClosed = true;
        // A last line without a line end is a command too.
        if (!skippingM && !inputM.empty() && !runLine(std::exchange(inputM, std::string()))) break;
      } else if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
        break;
      }
    }
  } catch (...) {
  }
  socketM.reset();
  sharedM.services->metrics.connectionClosed();
  endedM = true;
}

bool ControlConnection::take(const char* bytes, std::size_t size) {
  const char* const end = bytes + size;
  while (bytes < end) {
    const char* newline = static_cast<const char*>(std::memchr(bytes, '\n', static_cast<std::size_t>(end - bytes)));
    const char* stop = newline != nullptr ? newline : end;
    if (skippingM) {
      if (newline != nullptr) skippingM = false;
    } else {
      inputM.append(bytes, static_cast<std::size_t>(stop - bytes));
      if (inputM.size() > maxLineBytesCM) {
        const std::string refused = "error line longer than " + std::to_string(maxLineBytesCM) + " bytes";
        logCommand(inputM, refused);  // the log shortens it
        inputM.clear();
        skippingM = newline == nullptr;
        if (!answer(refused)) return false;
      } else if (newline != nullptr) {
        // The commands after this one run once it is answered (and its wait, if any), in the
        // order sent.
        if (!runLine(std::exchange(inputM, std::string()))) return false;
      }
    }
    bytes = newline != nullptr ? newline + 1 : end;
  }
  return true;
}

bool ControlConnection::runLine(const std::string& line) {
  if (stopping()) return false;  // the run is ending: start nothing more
  const auto reply = interpreterM.execute(line);
  const auto wait = interpreterM.takePendingWait();
  if (!wait) {
    if (!reply) return true;  // a blank line or a comment
    logCommand(line, *reply);
    if (!answer(*reply)) return false;
  } else {
    // The command's own answer ("after") goes out at once; the log has the whole answer once
    // the wait is over.
    if (reply && !answer(*reply)) {
      logCommand(line, *reply);
      return false;
    }
    const auto ended = park(*wait);
    logCommand(line, (reply ? *reply + "; " : std::string()) + ended.value_or("(the connection ended first)"));
    if (!ended || !answer(*ended)) return false;
  }
  idleSinceM = Clock::now();
  return true;
}

void ControlConnection::logCommand(const std::string& line, const std::string& answer) const {
  NphostMessages::write(sharedM.services->log, NphostMessages::commandIdCM, {line, answer});
}

std::optional<std::string> ControlConnection::park(const CommandInterpreter::PendingWait& wait) {
  SelfPipe logged;  // the log writes a byte into it for each entry while this wait is parked
  if (!logged.open()) return std::string("error cannot wait: ") + std::strerror(errno);
  CountingLogSink& counts = *sharedM.counts;
  counts.notifyOnWrite(logged.writeEnd());
  // The pipe must not be written into once it is closed, on every way out.
  struct Unwatch {
    CountingLogSink& counts;
    int writeEnd;
    ~Unwatch() { counts.stopNotifying(writeEnd); }
  } const unwatch{counts, logged.writeEnd()};
  for (;;) {
    // Looked at after the notification was set up, so an entry logged just before is seen.
    const CountingLogSink::Outcome outcome = counts.outcome(wait.goal);
    if (outcome != CountingLogSink::Outcome::PENDING || Clock::now() >= wait.deadline)
      return CommandInterpreter::waitAnswer(wait.goal.id, outcome);
    pollfd waits[3] = {{socketM.get(), static_cast<short>(outputM.empty() ? 0 : POLLOUT), 0},
                       {sharedM.stopDescriptor, POLLIN, 0},
                       {logged.readEnd(), POLLIN, 0}};
    const int ready = poll(waits, 3, millisecondsUntil(wait.deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0 || waits[1].revents != 0) return std::nullopt;
    // Nobody is left to read the answer of a client that hung up while it waited.
    if (waits[0].revents & (POLLHUP | POLLERR)) return std::nullopt;
    if ((waits[0].revents & POLLOUT) && !flush()) return std::nullopt;
    if (waits[2].revents != 0) {
      char drained[256];
      while (read(logged.readEnd(), drained, sizeof drained) > 0) {
      }
    }
  }
}

bool ControlConnection::answer(const std::string& text) {
  outputM += text;
  outputM += '\n';
  return flush() && outputM.size() <= maxPendingOutputCM;
}

bool ControlConnection::flush() {
  while (!outputM.empty()) {
    const ssize_t n = send(socketM.get(), outputM.data(), outputM.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      outputM.erase(0, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  }
  return true;
}

}  // namespace Host
