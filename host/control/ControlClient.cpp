#include "host/control/ControlClient.h"

#include "host/common/OwnedDescriptor.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Host {

std::string ControlClient::commandLine(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) {
    if (!line.empty()) line += ' ';
    const bool quote = word.empty() || word.front() == '#' || word.find_first_of(" \t\r\"\\") != std::string::npos;
    if (!quote) {
      line += word;
      continue;
    }
    line += '"';
    for (const char c : word) {
      if (c == '"' || c == '\\') line += '\\';
      line += c;
    }
    line += '"';
  }
  return line;
}

bool ControlClient::send(const std::string& path, const std::vector<std::string>& words) {
  for (const std::string& word : words) {
    if (word.find('\n') != std::string::npos) {
      errorM = "a command word cannot hold a line break.";
      return false;
    }
  }
  sockaddr_un where{};
  where.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(where.sun_path)) {
    errorM = "the control socket path '" + path + "' is empty or too long.";
    return false;
  }
  std::memcpy(where.sun_path, path.data(), path.size());
  const OwnedDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (socket.get() < 0 || connect(socket.get(), reinterpret_cast<const sockaddr*>(&where), sizeof(where)) != 0) {
    errorM = "cannot reach the control socket '" + path + "': " + std::strerror(errno) + ".";
    return false;
  }

  const std::string line = commandLine(words) + "\n";
  for (std::size_t done = 0; done < line.size();) {
    const ssize_t n = ::send(socket.get(), line.data() + done, line.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      errorM = "cannot send the command to '" + path + "': " + std::strerror(errno) + ".";
      return false;
    }
    done += static_cast<std::size_t>(n);
  }

  std::string received;
  for (;;) {
    const auto end = received.find('\n');
    if (end != std::string::npos) {
      answerM = received.substr(0, end);
      return true;
    }
    pollfd wait{socket.get(), POLLIN, 0};
    const int ready = poll(&wait, 1, answerTimeoutMsCM);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      errorM = "no answer from the control socket '" + path + "' within " + std::to_string(answerTimeoutMsCM / 1000) +
               " seconds.";
      return false;
    }
    char buffer[4096];
    const ssize_t n = recv(socket.get(), buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      errorM = "the control socket '" + path + "' closed the connection without an answer.";
      return false;
    }
    received.append(buffer, static_cast<std::size_t>(n));
  }
}

}  // namespace Host
