#include "host/control/ControlServer.h"

#include "host/control/ControlConnection.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>
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

std::string reason(int code = errno) { return std::strerror(code); }

// What is at `path` now, for a socket about to be put there: empty when nothing speaks against
// replacing it (no file, or a socket nobody listens on), else the sentence that refuses it.
std::string occupied(const std::string& path, const sockaddr_un& where) {
  struct stat existing {};
  if (lstat(path.c_str(), &existing) != 0) return {};
  if (!S_ISSOCK(existing.st_mode)) return "'" + path + "' exists and is not a socket; the control socket is not created there.";
  // Only a socket nobody listens on may go: connecting tells a live one from a stale one.
  const OwnedDescriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (probe.get() < 0) return "cannot create a socket: " + reason() + ".";
  if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&where), sizeof(where)) == 0)
    return "another process is listening on the control socket '" + path + "'.";
  if (errno != ECONNREFUSED) return "cannot check the existing control socket '" + path + "': " + reason() + ".";
  return {};
}

// Removes the hidden sockets in `folder` that a run killed while it loaded left behind: a
// socket named for a process that no longer exists. A live instance's, still loading, stays.
void removeLeftOvers(const std::filesystem::path& folder) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder.empty() ? "." : folder, error)) {
    const std::string name = entry.path().filename().string();
    constexpr std::string_view prefix = ".nphost-";
    if (!name.starts_with(prefix)) continue;
    pid_t pid = 0;
    const char* digits = name.data() + prefix.size();
    const auto [end, failure] = std::from_chars(digits, name.data() + name.size(), pid);
    if (failure != std::errc() || end != name.data() + name.size() || pid <= 0) continue;
    struct stat status {};
    if (lstat(entry.path().c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) continue;
    if (kill(pid, 0) != 0 && errno == ESRCH) unlink(entry.path().c_str());
  }
}

std::chrono::milliseconds idleTime() {
  const char* text = std::getenv(ControlServer::idleEnvironmentCM);
  unsigned long long ms = 0;
  if (text == nullptr) return ControlServer::defaultIdleCM;
  const char* end = text + std::strlen(text);
  const auto [stop, failure] = std::from_chars(text, end, ms);
  if (failure != std::errc() || stop != end || ms == 0) return ControlServer::defaultIdleCM;
  return std::chrono::milliseconds(ms);
}

}  // namespace

ControlServer::ControlServer(const CommandInterpreter::Services& services, CountingLogSink& counts)
    : servicesM(services), countsM(counts), idleM(idleTime()) {}

ControlServer::~ControlServer() {
  stop();
  struct stat now {};
  if (!pathM.empty() && lstat(pathM.c_str(), &now) == 0 && now.st_dev == deviceM && now.st_ino == inodeM)
    unlink(pathM.c_str());
}

bool ControlServer::open(const std::string& path, bool forGroup) {
  sockaddr_un where{};
  // Hidden in the same folder, so that the rename in start() puts it in place in one step.
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  const std::string hidden = (folder / (".nphost-" + std::to_string(getpid()))).string();
  sockaddr_un hiddenWhere{};
  if (!address(path, where) || !address(hidden, hiddenWhere)) {
    // The hidden name must fit too, where it is the longer of the two.
    const std::size_t extra = hidden.size() > path.size() ? hidden.size() - path.size() : 0;
    errorM = "the control socket path '" + path + "' is empty or longer than " +
             std::to_string(sizeof(where.sun_path) - 1 - extra) + " bytes.";
    return false;
  }
  // Refused before the data loads, so that a second instance ends at once.
  if (errorM = occupied(path, where); !errorM.empty()) return false;

  listenerM.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (listenerM.get() < 0) {
    errorM = "cannot create a socket: " + reason() + ".";
    return false;
  }
  // Left-overs of runs killed while they loaded, this process's id among them.
  removeLeftOvers(folder);
  unlink(hidden.c_str());
  // The socket file takes its mode from the umask as bind creates it, so it is owner-only (or
  // owner and group) before anyone could connect; no chmod afterwards with a window between.
  const mode_t previous = umask(forGroup ? 0117 : 0177);
  const int bound = bind(listenerM.get(), reinterpret_cast<const sockaddr*>(&hiddenWhere), sizeof(hiddenWhere));
  const int code = errno;
  umask(previous);
  if (bound != 0) {
    errorM = "cannot create the control socket '" + path + "': " + reason(code) + ".";
    return false;
  }
  struct stat made {};
  if (lstat(hidden.c_str(), &made) == 0) {
    pathM = hidden;
    std::memcpy(pathBytesM, hidden.c_str(), hidden.size() + 1);
    deviceM = made.st_dev;
    inodeM = made.st_ino;
  }
  finalM = path;
  // Connections wait in the backlog until the listener runs.
  if (::listen(listenerM.get(), static_cast<int>(maxConnectionsCM)) != 0) {
    errorM = "cannot listen on the control socket '" + path + "': " + reason() + ".";
    return false;
  }
  return true;
}

void ControlServer::removeSocketFileNow() const {
  if (pathBytesM[0] != '\0') unlink(pathBytesM);
}

bool ControlServer::start(std::vector<CommandInterpreter::OwnFile> ownFiles) {
  sockaddr_un where{};
  address(finalM, where);
  // Another instance may have put a live socket there while this one loaded.
  if (errorM = occupied(finalM, where); !errorM.empty()) return false;
  if (rename(pathM.c_str(), finalM.c_str()) != 0) {
    errorM = "cannot put the control socket in place at '" + finalM + "': " + reason() + ".";
    return false;
  }
  pathM = finalM;
  pathBytesM[0] = '\0';
  ownFilesM = std::move(ownFiles);
  if (!wakeM.open()) {
    errorM = "cannot create a pipe: " + reason() + ".";
    return false;
  }
  try {
    listenerThreadM = std::thread([this] { listen(); });
  } catch (const std::system_error& failure) {
    errorM = std::string("cannot start the control socket's thread: ") + failure.what() + ".";
    return false;
  }
  return true;
}

void ControlServer::stop() {
  if (!listenerThreadM.joinable()) return;
  stoppingM = true;
  wakeM.notify();
  listenerThreadM.join();
  // Each connection ends at its next look at the pipe; one inside a command finishes it first.
  connectionsM.clear();
}

void ControlServer::listen() {
  while (!stoppingM.load()) {
    pollfd waits[2] = {{wakeM.readEnd(), POLLIN, 0}, {listenerM.get(), POLLIN, 0}};
    if (poll(waits, 2, -1) < 0) continue;  // EINTR: look again
    if (waits[0].revents != 0) break;
    // A failure here concerns the client being accepted, never the listener.
    try {
      reap();
      acceptAll();
    } catch (...) {
    }
  }
}

void ControlServer::reap() {
  std::erase_if(connectionsM, [](const std::unique_ptr<ControlConnection>& connection) { return connection->ended(); });
}

void ControlServer::acceptAll() {
  const ControlConnection::Shared shared{&servicesM, &ownFilesM, &waitSlotsM, &countsM, wakeM.readEnd(), idleM};
  for (;;) {
    OwnedDescriptor descriptor(accept4(listenerM.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (descriptor.get() < 0) return;  // EAGAIN: all taken; other failures concern that one client
    const auto refuse = [&descriptor](std::string_view text) {
      [[maybe_unused]] const ssize_t ignored = send(descriptor.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    };
    if (connectionsM.size() >= maxConnectionsCM) {
      reap();  // one may have ended since the last look
      if (connectionsM.size() >= maxConnectionsCM) {
        refuse("error too many connections\n");
        continue;
      }
    }
    const int kept = descriptor.get();
    auto connection = std::make_unique<ControlConnection>(std::move(descriptor), shared);
    if (!connection->start()) {
      constexpr std::string_view refusal = "error cannot serve the connection now\n";
      [[maybe_unused]] const ssize_t ignored = send(kept, refusal.data(), refusal.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      continue;  // the connection closes as it ends
    }
    connectionsM.push_back(std::move(connection));
  }
}

}  // namespace Host
