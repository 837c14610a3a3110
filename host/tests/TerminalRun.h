// nphost run to its end on a pseudo-terminal, for the tests of what a person watching sees:
// progress lines drawn, erased and redrawn on standard error.
#pragma once

#include "ProcessText.h"

#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace NphostTest {

struct TerminalRun {
  int status = -1;     // the exit status, -1 when the program did not end normally
  std::string screen;  // everything it wrote to the terminal, in order
};

// Runs nphost with `words` in `folder`, its standard input, output and error on one terminal.
inline TerminalRun runOnTerminal(const fs::path& folder, Lines words) {
  words.insert(words.begin(), NPHOST_PROGRAM);
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  TerminalRun run;
  int terminal = -1;
  const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (pid < 0) return run;
  if (pid == 0) {
    if (chdir(folder.c_str()) == 0) execv(NPHOST_PROGRAM, argv.data());
    _exit(127);
  }
  char chunk[4096];
  // The read fails with EIO once the program has ended and closed its side.
  for (ssize_t n; (n = read(terminal, chunk, sizeof chunk)) > 0;) run.screen.append(chunk, static_cast<std::size_t>(n));
  close(terminal);
  int status = 0;
  if (waitpid(pid, &status, 0) == pid && WIFEXITED(status)) run.status = WEXITSTATUS(status);
  return run;
}

}  // namespace NphostTest
