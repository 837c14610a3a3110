// Host::ControlClient is `nphost ctl`: it sends one command to the control socket of a running
// `nphost run` and hands back its answer lines, and tells from them whether the command failed,
// so that a script can rely on the exit status. The words are quoted so that the server's
// WordSplitter gets them back unchanged. One thread; one command per object.
#pragma once

#include "host/startup/CommandLine.h"

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

  // `nphost ctl` with these options: sends the command (wrapped in "after" for --wait), prints
  // the answer lines on `out` and returns the exit status: 1 when the socket cannot be reached,
  // the answer is not whole, or a line isFailure; else 0.
  static int run(const CommandLine::Options& options, std::ostream& out, std::ostream& err);

  // The command line for `words`, each quoted as WordSplitter::quote does.
  static std::string commandLine(const std::vector<std::string>& words);

  // Whether an answer line reports a failure: it starts with "error", is "update result=false
  // ...", holds "taken=false" or "saved=false", is "probe NAME result=false", or is a wait that
  // timed out.
  static bool isFailure(std::string_view line);

  // Sends the words as one line to the socket at `path` and reads `lines` answer lines (one,
  // when it starts with "error": a refused command answers once), allowing `timeoutMs` for
  // each. False with error() as one sentence when the socket cannot be reached or the answer
  // does not come whole; an answer "error ..." is a true result.
  bool send(const std::string& path, const std::vector<std::string>& words, std::size_t lines = 1,
            int timeoutMs = answerTimeoutMsCM);
  const std::vector<std::string>& answers() const { return answersM; }
  const std::string& error() const { return errorM; }

private:
  std::vector<std::string> answersM;
  std::string errorM;
};

}  // namespace Host
