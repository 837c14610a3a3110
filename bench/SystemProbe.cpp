#include "bench/SystemProbe.h"

#include <malloc.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

extern "C" char** environ;

namespace Bench {

std::size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t size = 0;
  std::size_t resident = 0;
  statm >> size >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

std::size_t lazyFreeBytes() {
  // "LazyFree:    1234 kB"; 0 where the kernel does not keep the rollup.
  const std::string value = firstLineWith("/proc/self/smaps_rollup", "LazyFree:");
  return value == "unknown" ? 0 : std::strtoull(value.c_str(), nullptr, 10) * 1024;
}

std::size_t trimmedResidentBytes() {
  ::malloc_trim(0);
  const std::size_t resident = residentBytes();
  const std::size_t offered = lazyFreeBytes();
  return resident > offered ? resident - offered : 0;
}

std::string firstLineWith(const char* path, const std::string& key) {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(key, 0) == 0) {
      const auto colon = line.find(':');
      std::string value = colon == std::string::npos ? line : line.substr(colon + 1);
      value.erase(0, value.find_first_not_of(" \t"));
      return value;
    }
  }
  return "unknown";
}

double stealSeconds() {
  std::ifstream in("/proc/stat");
  std::string cpu;
  unsigned long long fields[8] = {};
  in >> cpu;
  for (unsigned long long& field : fields) in >> field;
  return static_cast<double>(fields[7]) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

std::string compilerText() {
#if defined(__clang__)
  return std::string("clang ") + __clang_version__;
#elif defined(__GNUC__)
  return std::string("g++ ") + __VERSION__;
#else
  return "unknown";
#endif
}

int runProgram(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void warmPageCache(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::vector<char> buffer(1 << 20);
  while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0) {
  }
}

bool pinTo(const cpu_set_t& cpus) { return pthread_setaffinity_np(pthread_self(), sizeof cpus, &cpus) == 0; }

cpu_set_t onlyCpu(int cpu) {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  CPU_SET(cpu, &cpus);
  return cpus;
}

double runDelaySeconds() {
  std::ifstream in("/proc/thread-self/schedstat");
  unsigned long long running = 0, waiting = 0;
  in >> running >> waiting;
  return static_cast<double>(waiting) * 1e-9;
}

}  // namespace Bench
