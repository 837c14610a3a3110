// One nphost process started in a test folder, with pipes to its standard input and output and
// its standard error in a file; the program tests drive it as a user's script would.
#pragma once

#include "ProcessText.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

extern char** environ;

namespace NphostTest {

class Nphost {
public:
  // `launcher`, when given, starts nphost (a program found on the path, such as prlimit, with
  // its own arguments first).
  Nphost(const fs::path& folder, Lines words, const std::string& errorFile = "stderr.txt", Lines launcher = {})
      : errorsM(folder / errorFile) {
    int in[2], out[2];  // close-on-exec keeps the parent's ends out of the program
    EXPECT_EQ(pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, errorsM.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    words.insert(words.begin(), NPHOST_PROGRAM);
    words.insert(words.begin(), launcher.begin(), launcher.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    EXPECT_EQ(posix_spawnp(&pidM, argv.front(), &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    inM = in[1];
    outM = out[0];
  }
  ~Nphost() {
    if (pidM > 0) finish();
    for (const int descriptor : {inM, outM})
      if (descriptor >= 0) close(descriptor);
  }

  void write(const std::string& text) const { writeAll(inM, text); }
  // Ends standard input, as finish() does, without waiting.
  void endInput() {
    if (inM >= 0) close(std::exchange(inM, -1));
  }
  std::string readLine() { return nextLine(outM, bufferM); }
  // Ends standard input, collects the rest of standard output and returns the exit status.
  int finish() {
    if (inM >= 0) close(std::exchange(inM, -1));
    for (std::string line = readLine(); line != "<end>" && line != "<no answer>"; line = readLine())
      restM.push_back(line);
    return waitForExit();
  }
  // Stops reading standard output (the program's writes then fail) and returns the exit status.
  int abandonOutput() {
    close(std::exchange(outM, -1));
    return waitForExit();
  }
  // The exit status, or -1 for a program still running a minute later, then killed. The pipes
  // stay open for threads of the test that may still use them.
  int waitForExit() {
    int status = 0;
    for (int i = 0; waitpid(pidM, &status, WNOHANG) == 0; ++i) {
      if (i == 6'000) kill(pidM, SIGKILL);
      usleep(10'000);
    }
    pidM = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status) == SIGKILL ? -1 : 128 + WTERMSIG(status);
  }
  void signal(int number) const { kill(pidM, number); }
  pid_t pid() const { return pidM; }
  const Lines& rest() const { return restM; }
  std::string errors() const { return readText(errorsM); }

private:
  fs::path errorsM;
  pid_t pidM = 0;
  int inM = -1;
  int outM = -1;
  std::string bufferM;
  Lines restM;
};

}  // namespace NphostTest
