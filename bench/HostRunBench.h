// Bench::HostRunBench is the end-to-end figure of the host program: events per second of a
// whole `nphost` run that loads the generated data and looks up every line of the event file.
// The host has no command for such a run yet, so for now the figure is reported as not
// measured; the rest of npbench prints and stores whatever run() returns.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace Bench {

class HostRunBench {
public:
  struct Result {
    std::optional<double> eventsPerSecondM;  // empty when not measured
    std::string statusM;                     // "not measured", or how it was measured
  };

  HostRunBench(std::filesystem::path dataFile, std::filesystem::path eventFile, std::filesystem::path workDir)
      : dataFileM(std::move(dataFile)), eventFileM(std::move(eventFile)), workDirM(std::move(workDir)) {}

  // To be filled in once the host can process an event file end to end: start it on
  // dataFileM and eventFileM (writing below workDirM), time the whole run, divide the events
  // by the seconds.
  Result run() const;

private:
  std::filesystem::path dataFileM;
  std::filesystem::path eventFileM;
  std::filesystem::path workDirM;
};

}  // namespace Bench
