#include "bench/BenchOptions.h"

#include <CLI/CLI.hpp>

namespace Bench {

std::optional<int> BenchOptions::parse(int argc, char** argv, BenchOptions& options) {
  CLI::App app{"npbench: speed and memory of the number-portability plug-in on generated data"};
  app.set_version_flag("--version", std::string("npbench ") + NP_VERSION);
  app.add_option("--records", options.recordsM, "Lines of the generated data file")->check(CLI::Range(1ULL, 1ULL << 34));
  app.add_option("--seed", options.seedM, "Seed of the generator");
  app.add_option("--threads-max", options.threadsMaxM, "Lookups are measured with 1 up to this many threads")
      ->check(CLI::Range(1U, 64U));
  app.add_option("--json", options.jsonM, "Also write the figures as JSON to this file");
  app.add_option("--work-dir", options.workDirM, "Folder for the generated files (default: a new temporary folder)");
  app.add_flag("--sparse", options.sparseM, "Uniform numbers instead of number blocks");
  app.add_flag("--keep-data", options.keepDataM, "Leave the generated files in place");
  app.add_flag("--no-reference", options.noReferenceM,
               "Build no reference trie (for data sets too large for it beside the store); ratios to it are not measured");
  app.add_option("--npgen", options.npgenM, "The data generator to run");
  app.add_option("--nphost", options.nphostM, "The host program to run end to end");
  app.add_option("--events", options.eventsM, "Lookup events to generate (default: records, at most 1000000)");
  app.add_option("--min-time-ms", options.minTimeMsM, "Least time of one lookup-rate measurement")
      ->check(CLI::Range(1U, 60000U));
  app.add_option("--reload-rounds", options.reloadRoundsM, "Reloads run during the latency measurement")
      ->check(CLI::Range(1U, 100U));
  app.add_option("--repeats", options.repeatsM, "Runs of each lookup-rate measurement; the best counts")
      ->check(CLI::Range(1U, 100U));
  app.add_option("--chunk-lines", options.chunkLinesM,
                 "Lines that each load gathers before it inserts them (default: the plug-in's)")
      ->check(CLI::Range(1ULL, 1ULL << 32));
  // What CLI11_PARSE does, with the status handed back instead of returned from main.
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  }
  return std::nullopt;
}

}  // namespace Bench
