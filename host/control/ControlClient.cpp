#include "host/control/ControlClient.h"

#include "host/common/OwnedDescriptor.h"
#include "host/script/WordSplitter.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>

namespace Host {

std::string ControlClient::commandLine(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) {
    if (!line.empty()) line += ' ';
    line += WordSplitter::quote(word);
  }
  return line;
}

int ControlClient::run(const CommandLine::Options& options, std::ostream& out, std::ostream& err) {
  ControlClient client;
  std::vector<std::string> words = options.command;
  bool answered;
  if (options.waitFor) {
    // The server notes the count before the command and waits after it, so the wait sees only
    // what the command's own work logs, not an earlier entry of the same identifier.
    words.insert(words.begin(), {"after", *options.waitFor, std::to_string(options.waitTimeoutMs)});
    answered = client.send(*options.controlSocket, words, 2, static_cast<int>(options.waitTimeoutMs) + answerMarginMsCM);
  } else {
    answered = client.send(*options.controlSocket, words);
  }
  bool failed = !answered;
  for (const std::string& line : client.answers()) {
    out << line << '\n';
    failed = failed || isFailure(line);
  }
  out << std::flush;
  if (!answered) err << "nphost: " << client.error() << std::endl;
  return failed ? 1 : 0;
}

bool ControlClient::isFailure(std::string_view line) {
  const auto endsWith = [&](std::string_view tail) { return line.ends_with(tail); };
  if (line.starts_with("error")) return true;
  if (line.starts_with("update result=false")) return true;
  if (line.starts_with("update ") && (line.find(" taken=false") != std::string_view::npos)) return true;
  // The data is served, but the data file does not hold it: the operator has work to do.
  if (line.starts_with("update ") && (line.find(" saved=false") != std::string_view::npos)) return true;
  if (line.starts_with("probe ") && endsWith(" result=false")) return true;
  return line.starts_with("await ") && endsWith(" timeout");
}

bool ControlClient::send(const std::string& path, const std::vector<std::string>& words, std::size_t lines,
                         int timeoutMs) {
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
    for (auto end = received.find('\n'); end != std::string::npos; end = received.find('\n')) {
      answersM.push_back(received.substr(0, end));
      received.erase(0, end + 1);
      if (answersM.size() == lines || answersM.back().starts_with("error")) return true;
    }
    pollfd wait{socket.get(), POLLIN, 0};
    const int ready = poll(&wait, 1, timeoutMs);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      errorM = "no answer from the control socket '" + path + "' within " + std::to_string(timeoutMs / 1000) +
               " seconds.";
      return false;
    }
    char buffer[4096];
    const ssize_t n = recv(socket.get(), buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      errorM = "the control socket '" + path + "' closed the connection before the whole answer.";
      return false;
    }
    received.append(buffer, static_cast<std::size_t>(n));
  }
}

}  // namespace Host
