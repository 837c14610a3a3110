// Bench::BenchOptions: what one npbench run measures and where, as given on its command line.
// main parses them once (parse); the run only reads them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Bench {

struct BenchOptions {
  std::uint64_t recordsM = 1000000;
  std::uint64_t seedM = 1;
  unsigned threadsMaxM = 2;
  std::string jsonM;
  std::string workDirM;
  bool sparseM = false;
  bool keepDataM = false;
  bool noReferenceM = false;  // no reference trie: no comparison, no cross-check
  std::string npgenM = NPBENCH_NPGEN;
  std::string nphostM = NPBENCH_NPHOST;
  std::uint64_t eventsM = 0;  // 0: as many as records, at most a million
  unsigned minTimeMsM = 200;
  unsigned reloadRoundsM = 3;
  unsigned repeatsM = 5;
  std::uint64_t chunkLinesM = 0;  // 0: the cache manager's own

  // Reads the command line into `options`. Nothing when the run may start; otherwise the exit
  // status for main, after the help text or the complaint has been printed.
  static std::optional<int> parse(int argc, char** argv, BenchOptions& options);
};

}  // namespace Bench
