// Bench::HostRunBench is the end-to-end figure of the main job: npbench starts `nphost run` on
// the generated data and event file with a given number of lookup threads, output discarded,
// and reads the rate from the summary that nphost prints at the end. That rate covers the
// enrichment alone (reading, lookups, writing), not the plug-in's start-up, so it compares
// with the bare lookup rate of the same thread count.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace Bench {

class HostRunBench {
public:
  struct Result {
    std::optional<double> eventsPerSecondM;  // empty when the run failed
    std::string statusM;                     // the summary line, or why there is none
  };

  HostRunBench(std::filesystem::path nphost, std::filesystem::path dataFile, std::filesystem::path eventFile,
               std::filesystem::path workDir);

  // One run with `threads` lookup threads.
  Result run(unsigned threads) const;

private:
  std::filesystem::path nphostM;
  std::filesystem::path eventFileM;
  std::filesystem::path workDirM;
  std::filesystem::path registryM;  // written by the constructor, names dataFile
};

}  // namespace Bench
