#include "host/control/ControlServer.h"

#include "host/script/CommandInterpreter.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace Host {

namespace {

bool address(const std::string& path, sockaddr_un& out) {
  out = {};
  out.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(out.sun_path)) return false;
  std::memcpy(out.sun_path, path.data(), path.size());
  return true;
}

std::string reason() { return std::strerror(errno); }

}  // namespace

ControlServer::ControlServer(CommandInterpreter& interpreter, CountingLogSink& counts)
    : interpreterM(interpreter), countsM(counts) {}

ControlServer::~ControlServer() {
  stop();
  struct stat now {};
  if (!pathM.empty() && lstat(pathM.c_str(), &now) == 0 && now.st_dev == deviceM && now.st_ino == inodeM)
    unlink(pathM.c_str());
}

bool ControlServer::open(const std::string& path) {
  sockaddr_un where{};
  if (!address(path, where)) {
    errorM = "the control socket path '" + path + "' is empty or longer than " +
             std::to_string(sizeof(where.sun_path) - 1) + " bytes.";
    return false;
  }
  struct stat existing {};
  if (lstat(path.c_str(), &existing) == 0) {
    if (!S_ISSOCK(existing.st_mode)) {
      errorM = "'" + path + "' exists and is not a socket; the control socket is not created there.";
      return false;
    }
    // Only a socket nobody listens on may go: connecting tells a live one from a stale one.
    OwnedDescriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (probe.get() < 0) {
      errorM = "cannot create a socket: " + reason() + ".";
      return false;
    }
    const int connected = connect(probe.get(), reinterpret_cast<const sockaddr*>(&where), sizeof(where));
    const int code = errno;
    probe.reset();
    if (connected == 0) {
      errorM = "another process is listening on the control socket '" + path + "'.";
      return false;
    }
    if (code != ECONNREFUSED) {
      errorM = "cannot check the existing control socket '" + path + "': " + std::strerror(code) + ".";
      return false;
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      errorM = "cannot remove the stale control socket '" + path + "': " + reason() + ".";
      return false;
    }
  }

  listenerM.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (listenerM.get() < 0) {
    errorM = "cannot create a socket: " + reason() + ".";
    return false;
  }
  // The socket file takes its mode from the umask as bind creates it, so it is owner-only
  // before anyone could connect; no chmod afterwards with a window between.
  const mode_t previous = umask(0177);
  const int bound = bind(listenerM.get(), reinterpret_cast<const sockaddr*>(&where), sizeof(where));
  const int code = errno;
  umask(previous);
  if (bound != 0) {
    errorM = "cannot create the control socket '" + path + "': " + std::strerror(code) + ".";
    return false;
  }
  struct stat made {};
  if (lstat(path.c_str(), &made) == 0) {
    pathM = path;
    deviceM = made.st_dev;
    inodeM = made.st_ino;
  }
  if (listen(listenerM.get(), static_cast<int>(maxConnectionsCM)) != 0) {
    errorM = "cannot listen on the control socket '" + path + "': " + reason() + ".";
    return false;
  }
  return true;
}

bool ControlServer::start() {
  if (!wakeM.open() || !loggedM.open()) {
    errorM = "cannot create a pipe: " + reason() + ".";
    return false;
  }
  threadM = std::thread([this] { serve(); });
  return true;
}

void ControlServer::stop() {
  if (!threadM.joinable()) return;
  stoppingM = true;
  wakeM.notify();
  threadM.join();
  connectionsM.clear();  // closes them
}

void ControlServer::serve() {
  std::vector<pollfd> waits;
  while (!stoppingM.load()) {
    auto next = std::chrono::steady_clock::time_point::max();
    bool parked = serveWaits(next);
    // The log wakes this thread only while someone waits for it; an entry logged before the
    // notification was set is found by looking once more.
    countsM.notifyOnWrite(parked ? loggedM.writeEnd() : -1);
    if (parked) parked = serveWaits(next);

    waits.clear();
    waits.push_back({wakeM.readEnd(), POLLIN, 0});
    waits.push_back({listenerM.get(), POLLIN, 0});
    waits.push_back({loggedM.readEnd(), POLLIN, 0});
    constexpr std::size_t firstConnection = 3;
    for (const Connection& connection : connectionsM) {
      // A parked connection's later commands stay unread until its wait is answered.
      const bool reading = !connection.readClosed && !connection.wait;
      const short events = static_cast<short>((reading ? POLLIN : 0) | (connection.output.empty() ? 0 : POLLOUT));
      waits.push_back({connection.descriptor.get(), events, 0});
    }
    int timeout = -1;
    if (parked) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - std::chrono::steady_clock::now()).count();
      timeout = static_cast<int>(std::clamp<decltype(left)>(left, 0, 24 * 3600 * 1000));
    }
    if (poll(waits.data(), waits.size(), timeout) < 0) continue;  // EINTR: look again
    if (waits[0].revents != 0) break;
    if (waits[2].revents != 0) {
      char drained[256];
      while (read(loggedM.readEnd(), drained, sizeof drained) > 0) {
      }
    }

    // Connections first: the ones accepted below have no entry in `waits` yet.
    std::vector<Connection> kept;
    kept.reserve(connectionsM.size());
    for (std::size_t i = 0; i < connectionsM.size(); ++i) {
      Connection& connection = connectionsM[i];
      const short events = waits[i + firstConnection].revents;
      bool open = !connection.dropped;
      if (connection.wait) {
        // Nobody is left to read the answer of a client that hung up while it waited.
        if (events & (POLLHUP | POLLERR)) open = false;
      } else if (open && (events & (POLLIN | POLLHUP | POLLERR))) {
        open = readFrom(connection);
      }
      if (open && !connection.output.empty()) open = flush(connection);
      if (open && connection.readClosed && connection.output.empty() && !connection.wait) open = false;
      if (open) kept.push_back(std::move(connection));  // the others close as connectionsM is replaced
    }
    connectionsM = std::move(kept);
    if (waits[1].revents != 0) acceptAll();
  }
  countsM.notifyOnWrite(-1);
}

bool ControlServer::serveWaits(std::chrono::steady_clock::time_point& next) {
  bool parked = false;
  const auto now = std::chrono::steady_clock::now();
  for (Connection& connection : connectionsM) {
    // Carrying on with the held commands may park the connection again, on a wait that may be
    // over already.
    while (connection.wait && !connection.dropped) {
      const bool reached = countsM.count(connection.wait->id) >= connection.wait->count;
      if (!reached && now < connection.wait->deadline) break;
      const std::string id = std::move(connection.wait->id);
      connection.wait.reset();
      const std::string held = std::exchange(connection.held, std::string());
      connection.dropped = !answer(connection, CommandInterpreter::waitAnswer(id, reached)) ||
                           !take(connection, held.data(), held.size());
    }
    if (connection.wait && !connection.dropped) {
      parked = true;
      next = std::min(next, connection.wait->deadline);
    }
  }
  return parked;
}

void ControlServer::acceptAll() {
  for (;;) {
    OwnedDescriptor descriptor(accept4(listenerM.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (descriptor.get() < 0) return;  // EAGAIN: all taken; other failures concern that one client
    if (connectionsM.size() >= maxConnectionsCM) {
      static constexpr char refusal[] = "error too many connections\n";
      [[maybe_unused]] const ssize_t ignored =
          send(descriptor.get(), refusal, sizeof refusal - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
      continue;
    }
    Connection connection;
    connection.descriptor = std::move(descriptor);
    connectionsM.push_back(std::move(connection));
  }
}

bool ControlServer::readFrom(Connection& connection) {
  char buffer[16 * 1024];
  for (;;) {
    const ssize_t n = recv(connection.descriptor.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (n > 0) {
      if (!take(connection, buffer, static_cast<std::size_t>(n))) return false;
      // One read per turn keeps a client that sends without pause from starving the others.
      return true;
    }
    if (n == 0) {
      // A last line without a line end is a command too.
      if (!connection.skipping && !connection.input.empty()) {
        const std::string line = std::exchange(connection.input, std::string());
        if (const auto reply = interpreterM.execute(line); reply && !answer(connection, *reply)) return false;
        connection.wait = interpreterM.takePendingWait();
      }
      connection.readClosed = true;
      return true;
    }
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK;
  }
}

bool ControlServer::take(Connection& connection, const char* bytes, std::size_t size) {
  const char* const end = bytes + size;
  while (bytes < end) {
    const char* newline = static_cast<const char*>(std::memchr(bytes, '\n', static_cast<std::size_t>(end - bytes)));
    const char* stop = newline != nullptr ? newline : end;
    if (connection.skipping) {
      if (newline != nullptr) connection.skipping = false;
    } else {
      connection.input.append(bytes, static_cast<std::size_t>(stop - bytes));
      if (connection.input.size() > maxLineBytesCM) {
        connection.input.clear();
        connection.skipping = newline == nullptr;
        if (!answer(connection, "error line longer than " + std::to_string(maxLineBytesCM) + " bytes")) return false;
      } else if (newline != nullptr) {
        const std::string line = std::exchange(connection.input, std::string());
        if (const auto reply = interpreterM.execute(line); reply && !answer(connection, *reply)) return false;
        if (auto wait = interpreterM.takePendingWait()) {
          // The commands after this one run once its wait is answered, in the order sent.
          connection.wait = std::move(wait);
          connection.held.assign(newline + 1, end);
          return true;
        }
      }
    }
    bytes = newline != nullptr ? newline + 1 : end;
  }
  return true;
}

bool ControlServer::answer(Connection& connection, const std::string& text) {
  connection.output += text;
  connection.output += '\n';
  return connection.output.size() <= maxPendingOutputCM;
}

bool ControlServer::flush(Connection& connection) {
  while (!connection.output.empty()) {
    const ssize_t n = send(connection.descriptor.get(), connection.output.data(), connection.output.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      connection.output.erase(0, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  }
  return true;
}

}  // namespace Host
