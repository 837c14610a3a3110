// What npbench asks the machine: memory in use, processor and kernel, load, steal and run
// delay, CPU pinning, and running a helper program. Linux only (/proc). Used by the phases of
// Bench::BenchRun; free functions, each safe to call from any thread.
#pragma once

#include <sched.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace Bench {

std::size_t residentBytes();
// Resident pages that the process offered back to the system, which takes them when it runs
// short ("LazyFree" in /proc/self/smaps_rollup); none of the store's own, which it returns
// at once, but the C library may hold some.
std::size_t lazyFreeBytes();
// Resident size after handing free heap pages back, less the pages offered back, so that
// growth compares live data only.
std::size_t trimmedResidentBytes();
// The value of the first line of `path` that starts with `key` ("key: value"); "unknown" when none does.
std::string firstLineWith(const char* path, const std::string& key);
// Time that the hypervisor ran something else while our virtual CPUs wanted to run, over all
// CPUs since boot ("steal" in /proc/stat); 0 where the system does not count it.
double stealSeconds();
std::string loadAverage();
std::string compilerText();
// Runs a program with arguments, without a shell; its exit status, or -1.
int runProgram(const std::vector<std::string>& args);
// Reads a file once so that every stage that follows finds it in the page cache alike.
void warmPageCache(const std::filesystem::path& file);
// Restricts the calling thread to the CPUs in `cpus`; false where the system refuses.
bool pinTo(const cpu_set_t& cpus);
cpu_set_t onlyCpu(int cpu);
// Seconds that the calling thread spent ready to run but waiting for a CPU of its own
// system, from /proc/thread-self/schedstat; 0 where the system does not keep it.
double runDelaySeconds();

}  // namespace Bench
