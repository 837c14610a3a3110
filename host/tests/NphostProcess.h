// Test helper for the nphost program tests: one nphost process, started in a folder, with
// pipes to its standard input and output and its standard error in a file.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace NphostTest {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// One nphost process with pipes to its standard input and output; standard error goes to a
// file. Reads give up after a minute so that a hanging program fails the test instead of
// blocking it.
class Nphost {
public:
  Nphost(const fs::path& folder, const Lines& arguments, const std::string& errorFile = "stderr.txt") : errorFileM(folder / errorFile) {
    // Close-on-exec keeps the parent's ends out of the program; dup2 gives it its own ends.
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, errorFileM.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    std::vector<std::string> words{NPHOST_PROGRAM};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pidM, NPHOST_PROGRAM, &actions, nullptr, argv.data(), environ) != 0)
      throw std::runtime_error("posix_spawn");
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    inM = in[1];
    outM = out[0];
  }
  ~Nphost() {
    if (pidM > 0) finish();
  }

  void write(const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
      const ssize_t n = ::write(inM, text.data() + done, text.size() - done);
      if (n <= 0) return;  // the program has ended; its exit status tells the test why
      done += static_cast<std::size_t>(n);
    }
  }
  // The next line of standard output; "<end>" at its end.
  std::string readLine() {
    while (bufferM.find('\n') == std::string::npos) {
      pollfd wait{outM, POLLIN, 0};
      char chunk[4096];
      if (poll(&wait, 1, 60'000) <= 0) return "<no answer>";
      const ssize_t n = read(outM, chunk, sizeof chunk);
      if (n <= 0) return bufferM.empty() ? "<end>" : std::exchange(bufferM, std::string());
      bufferM.append(chunk, static_cast<std::size_t>(n));
    }
    const auto end = bufferM.find('\n');
    std::string line = bufferM.substr(0, end);
    bufferM.erase(0, end + 1);
    return line;
  }
  std::string ask(const std::string& command) {
    write(command + "\n");
    return readLine();
  }
  // Ends standard input, collects the rest of standard output and returns the exit status.
  int finish() {
    closeInput();
    return collect();
  }
  void closeInput() {
    if (inM >= 0) close(std::exchange(inM, -1));
  }
  // Collects standard output up to its end and returns the exit status; standard input stays
  // as it is, so a program that must end by itself (on a signal) is seen to.
  int collect() {
    for (std::string line = readLine(); line != "<end>" && line != "<no answer>"; line = readLine())
      restM.push_back(line);
    close(outM);
    int status = 0;
    waitpid(std::exchange(pidM, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  // Stops reading standard output (the program's writes then fail) and returns the exit status.
  int abandonOutput() {
    closeInput();
    close(std::exchange(outM, -1));
    int status = 0;
    waitpid(std::exchange(pidM, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  void signal(int number) const { kill(pidM, number); }
  const Lines& rest() const { return restM; }
  std::string errors() const {
    std::ifstream file(errorFileM);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }

private:
  fs::path errorFileM;
  pid_t pidM = 0;
  int inM = -1;
  int outM = -1;
  std::string bufferM;
  Lines restM;
};

}  // namespace NphostTest
