#include "host/control/ControlClient.h"

#include "host/common/CountWords.h"
#include "host/control/ControlVerb.h"
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
  if (!options.command.empty() && ControlVerb::isVerb(options.command.front())) {
    if (options.waitFor) {
      err << "nphost: --wait is not for " << options.command.front()
          << ", which waits for its own end; leave it out." << std::endl;
      return 1;
    }
    return ControlVerb::run(*options.controlSocket, options.command, out, err);
  }
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
  return line.starts_with("await ") && (endsWith(" timeout") || endsWith(" failed"));
}

bool ControlClient::send(const std::string& path, const std::vector<std::string>& words, std::size_t lines,
                         int timeoutMs) {
  return connect(path) && ask(words, lines, timeoutMs);
}

bool ControlClient::connect(const std::string& path) {
  pathM = path;
  sockaddr_un where{};
  where.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(where.sun_path)) {
    errorM = "the control socket path '" + path + "' is empty or too long.";
    return false;
  }
  std::memcpy(where.sun_path, path.data(), path.size());
  socketM.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (socketM.get() < 0 || ::connect(socketM.get(), reinterpret_cast<const sockaddr*>(&where), sizeof(where)) != 0) {
    errorM = "cannot reach the control socket '" + path + "': " + std::strerror(errno) + ".";
    socketM.reset();
    return false;
  }
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(socketM.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0) serverM = peer.pid;
  return true;
}

bool ControlClient::ask(const std::vector<std::string>& words, std::size_t lines, int timeoutMs) {
  answersM.clear();
  for (const std::string& word : words) {
    if (word.find('\n') != std::string::npos) {
      errorM = "a command word cannot hold a line break.";
      return false;
    }
  }
  if (socketM.get() < 0) {
    errorM = "no connection to the control socket '" + pathM + "'.";
    return false;
  }
  const std::string line = commandLine(words) + "\n";
  for (std::size_t done = 0; done < line.size();) {
    const ssize_t n = ::send(socketM.get(), line.data() + done, line.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      errorM = "cannot send the command to '" + pathM + "': " + std::strerror(errno) + ".";
      return false;
    }
    done += static_cast<std::size_t>(n);
  }

  for (;;) {
    for (auto end = receivedM.find('\n'); end != std::string::npos; end = receivedM.find('\n')) {
      answersM.push_back(receivedM.substr(0, end));
      receivedM.erase(0, end + 1);
      if (answersM.size() == lines || answersM.back().starts_with("error")) return true;
    }
    pollfd wait{socketM.get(), POLLIN, 0};
    const int ready = poll(&wait, 1, timeoutMs);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      errorM = "no answer from the control socket '" + pathM + "' within " +
               CountWords::of(static_cast<unsigned>(timeoutMs / 1000), "second", "seconds") + ".";
      return false;
    }
    char buffer[4096];
    const ssize_t n = recv(socketM.get(), buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      errorM = "the control socket '" + pathM + "' closed the connection before the whole answer.";
      return false;
    }
    receivedM.append(buffer, static_cast<std::size_t>(n));
  }
}

}  // namespace Host
