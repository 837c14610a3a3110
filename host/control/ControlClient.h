// Host::ControlClient is `nphost ctl`: it sends one command to the control socket of a running
// `nphost run` and hands back the one answer line. The words are quoted so that the server's
// WordSplitter gets them back unchanged. One thread; one command per object.
#pragma once

#include <string>
#include <vector>

namespace Host {

class ControlClient {
public:
  // How long an answer may take: the longest wait a control command accepts, and some.
  static constexpr int answerTimeoutMsCM = 90'000;

  // The command line for `words`: a word is quoted when it is empty, holds a blank, a quote or
  // a backslash, or starts with '#', so that it splits back to itself.
  static std::string commandLine(const std::vector<std::string>& words);

  // Sends the words as one line to the socket at `path` and reads the answer. False with
  // error() as one sentence when the socket cannot be reached or no answer line comes back;
  // an answer "error ..." is a true result.
  bool send(const std::string& path, const std::vector<std::string>& words);
  const std::string& answer() const { return answerM; }
  const std::string& error() const { return errorM; }

private:
  std::string answerM;
  std::string errorM;
};

}  // namespace Host
