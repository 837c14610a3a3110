// NpTest::runScript runs a program to its end as a person at a shell would: in a folder, with an
// environment of its own, standard input from /dev/null, in a process group of its own so that
// whatever it left running in the background ends with it. The tests of the README's commands
// and of the build scripts use it. Any thread.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace NpTest {

struct ScriptResult {
  int status = -1;      // the exit status, 128 + N for signal N, -1 when it did not end in time
  std::string output;   // standard output, with standard error in it when they were merged
  std::string errors;   // standard error when kept apart
};

// Runs `words` (found through the PATH of `environment`) in `folder`. `limit` only guards
// against a hang: the group is killed then and the status is -1.
inline ScriptResult runScript(const std::vector<std::string>& words, const std::filesystem::path& folder,
                              const std::vector<std::string>& environment, bool mergeErrors,
                              std::chrono::seconds limit = std::chrono::seconds(90)) {
  namespace fs = std::filesystem;
  std::string pattern = (fs::temp_directory_path() / "np-script-XXXXXX").string();
  ScriptResult result;
  if (::mkdtemp(pattern.data()) == nullptr) return result;
  const fs::path capture = pattern;

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, (capture / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (mergeErrors)
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
  else
    posix_spawn_file_actions_addopen(&actions, 2, (capture / "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);

  std::vector<std::string> copies(words);
  std::vector<char*> argv;
  for (auto& word : copies) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::vector<std::string> variables(environment);
  std::vector<char*> envp;
  for (auto& variable : variables) envp.push_back(variable.data());
  envp.push_back(nullptr);

  pid_t pid = 0;
  const int failed = posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), envp.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (failed == 0) {
    // Waits for the end without reaping it, so that the group's id stays taken while what the
    // program left in the background is killed.
    siginfo_t ended{};
    const auto deadline = std::chrono::steady_clock::now() + limit;
    bool hung = false;
    while (::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        hung = true;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(-pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!hung) result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  const auto read = [](const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  result.output = read(capture / "out");
  result.errors = read(capture / "err");
  fs::remove_all(capture);
  return result;
}

}  // namespace NpTest
