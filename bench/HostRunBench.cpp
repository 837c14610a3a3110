#include "bench/HostRunBench.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <vector>

extern char** environ;

namespace Bench {

HostRunBench::HostRunBench(std::filesystem::path nphost, std::filesystem::path dataFile,
                           std::filesystem::path eventFile, std::filesystem::path workDir)
    : nphostM(std::move(nphost)),
      eventFileM(std::move(eventFile)),
      workDirM(std::move(workDir)),
      registryM(workDirM / "nphost-registry.toml") {
  // The same dialling codes as the plug-in that npbench measures in-process.
  std::ofstream registry(registryM);
  registry << "[NumberPortability]\n"
           << "Library = \"DAT_NumberPortability\"\n"
           << "FileName = \"" << dataFile.string() << "\"\n"
           << "CountryCode = \"49\"\nNationalAccessCode = \"0\"\n"
           << "InternationalAccessCode = \"00\"\nInternationalAccessCodeSign = \"+\"\nSearchMethod = 0\n";
}

HostRunBench::Result HostRunBench::run(unsigned threads) const {
  const std::filesystem::path errors = workDirM / ("nphost-" + std::to_string(threads) + ".err");
  const std::vector<std::string> words = {nphostM.string(), "run", registryM.string(), "--input", eventFileM.string(),
                                          "--output", "/dev/null", "--log", "/dev/null", "--threads",
                                          std::to_string(threads)};
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t child = 0;
  const int spawned = posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return Result{std::nullopt, "cannot start " + nphostM.string()};
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }

  std::ifstream in(errors);
  std::stringstream text;
  text << in.rdbuf();
  // "N records: F found, M not found, R rejected in S s (X records/s)"
  static const std::regex summary(R"(\d+ records: .* \((\d+) records/s\))");
  std::string line;
  std::optional<std::string> last;
  for (std::istringstream lines(text.str()); std::getline(lines, line);) {
    if (std::regex_search(line, summary)) last = line;
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || !last) {
    return Result{std::nullopt, "nphost run failed (status " + std::to_string(status) + "), see " + errors.string()};
  }
  std::smatch match;
  std::regex_search(*last, match, summary);
  return Result{std::stod(match[1].str()), *last};
}

}  // namespace Bench
