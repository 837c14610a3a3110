// Host::ControlClient is `nphost ctl`: it sends commands to the control socket of a running
// `nphost run` over one connection and hands back their answer lines, and tells from them
// whether a command failed, so that a script can rely on the exit status. The operations in
// one command (reload, delta, print) are ControlVerb's, over this client. The words are quoted
// so that the server's WordSplitter gets them back unchanged. One thread; one connection per
// object.
#pragma once

#include "host/common/OwnedDescriptor.h"
#include "host/startup/CommandLine.h"

#include <sys/types.h>

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace Host {

class ControlClient {
public:
  // How long an answer may take beyond the wait the command asks for.
  static constexpr int answerMarginMsCM = 30'000;
  // How long the answer to a command without a wait of its own may take: the longest wait that
  // "await" accepts on the socket, and the margin.
  static constexpr int answerTimeoutMsCM = 60'000 + answerMarginMsCM;

  // `nphost ctl` with these options: sends the command (wrapped in "after" for --wait; a verb
  // through ControlVerb), prints the answer lines on `out` and returns the exit status: 1 when
  // the socket cannot be reached, the answer is not whole, or a line isFailure; else 0.
  static int run(const CommandLine::Options& options, std::ostream& out, std::ostream& err);

  // The command line for `words`, each quoted as WordSplitter::quote does.
  static std::string commandLine(const std::vector<std::string>& words);

  // Whether an answer line reports a failure: it starts with "error", is "update result=false
  // ...", holds "taken=false" or "saved=false", is "probe NAME result=false", or is a wait that
  // failed or timed out.
  static bool isFailure(std::string_view line);

  // Connects to the socket at `path`. False with error() as one sentence when it cannot.
  bool connect(const std::string& path);
  // Sends the words as one line on the connection and reads `lines` answer lines into answers()
  // (one, when it starts with "error": a refused command answers once), allowing `timeoutMs`
  // for each. False with error() as one sentence when the answer does not come whole; an
  // answer "error ..." is a true result.
  bool ask(const std::vector<std::string>& words, std::size_t lines = 1, int timeoutMs = answerTimeoutMsCM);
  // connect, then ask.
  bool send(const std::string& path, const std::vector<std::string>& words, std::size_t lines = 1,
            int timeoutMs = answerTimeoutMsCM);
  // The answer lines of the last ask.
  const std::vector<std::string>& answers() const { return answersM; }
  const std::string& error() const { return errorM; }
  // The process that listens on the socket, as the kernel tells it; 0 when it does not.
  pid_t server() const { return serverM; }

private:
  OwnedDescriptor socketM;
  std::string pathM;
  pid_t serverM = 0;
  std::string receivedM;  // bytes after the last answer line read
  std::vector<std::string> answersM;
  std::string errorM;
};

}  // namespace Host
