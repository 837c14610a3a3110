// npgen writes deterministic number-portability test and benchmark data: a data file, and from
// the same options a delta file and an event file that fit it. See DataGenerator for the shape.
#include "DataGenerator.h"
#include "GeneratorOptions.h"
#include "LineWriter.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <cstdio>
#include <exception>
#include <string>

namespace {

// Writes one file through the given member of the generator and returns its line count.
template <typename Write>
std::uint64_t writeFile(const std::string& path, Write write) {
  NpGen::LineWriter out(path);
  write(out);
  out.close();
  return out.lines();
}

}  // namespace

int main(int argc, char** argv) {
  NpGen::GeneratorOptions options;
  std::string dataFile;
  std::string deltaFile;
  std::string eventFile;

  CLI::App app{"npgen: writes a number-portability data file and, from the same options, a delta file and an "
               "event file that fit it. The same options give the same bytes."};
  app.set_version_flag("--version", std::string("npgen ") + NP_VERSION);
  // Required, but checked after the parse: CLI11 would refuse --version for want of it.
  auto* records = app.add_option("--records", options.records, "Lines of the data file, bad lines included (required)")
      ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 40));
  app.add_option("--seed", options.seed, "Seed of every random choice")->capture_default_str();
  app.add_option("--density", options.density, "Share of a used sub-block's numbers that are in the data")
      ->capture_default_str()->check(CLI::Range(1e-6, 1.0));
  app.add_option("--bad-share", options.badShare, "Share of the data file's lines that are unusable")
      ->capture_default_str()->check(CLI::Range(0.0, 0.5));
  app.add_flag("--sparse", options.sparse, "Uniform 12-digit numbers instead of number blocks");
  app.add_option("--countries", options.countries, "Country codes, home country first")
      ->delimiter(',')->capture_default_str();
  app.add_option("--data", dataFile, "Data file to write");
  app.add_option("--delta", deltaFile, "Delta file to write");
  app.add_option("--delta-share", options.deltaShare, "Delta lines per data line")
      ->capture_default_str()->check(CLI::Range(0.0, 0.2));
  app.add_option("--events", eventFile, "Event file to write");
  auto* eventCount = app.add_option("--event-count", options.eventCount, "Event lines (default: --records)");
  app.add_option("--hit-share", options.hitShare, "Share of events whose number has a record at the time")
      ->capture_default_str()->check(CLI::Range(0.0, 1.0));
  app.add_option("--prefix-share", options.prefixShare, "Share of events only a block prefix answers")
      ->capture_default_str()->check(CLI::Range(0.0, 1.0));
  CLI11_PARSE(app, argc, argv);
  if (records->count() == 0) return app.exit(CLI::RequiredError("--records"));

  if (dataFile.empty() && deltaFile.empty() && eventFile.empty()) {
    fmt::print(stderr, "npgen: nothing to write; give --data, --delta or --events\n");
    return 1;
  }
  if (eventCount->count() == 0) {
    options.eventCount = options.records;
  }

  try {
    const NpGen::DataGenerator generator(options);
    const auto& summary = generator.summary();
    std::string written;
    if (!dataFile.empty()) {
      writeFile(dataFile, [&](NpGen::LineWriter& out) { generator.writeData(out); });
      written += fmt::format(" {}: {} lines, {} records of {} numbers, {} prefixes, {} bad lines;", dataFile,
                             summary.lines, summary.records, summary.numbers, summary.prefixes, summary.badLines);
    }
    if (!deltaFile.empty()) {
      const auto lines = writeFile(deltaFile, [&](NpGen::LineWriter& out) { generator.writeDelta(out); });
      written += fmt::format(" {}: {} lines, {} new, {} changed, {} duplicates;", deltaFile, lines, summary.deltaNew,
                             summary.deltaChanged, summary.deltaDuplicates);
    }
    if (!eventFile.empty()) {
      const auto lines = writeFile(eventFile, [&](NpGen::LineWriter& out) { generator.writeEvents(out); });
      written += fmt::format(" {}: {} events, {} hits, {} prefix hits, {} misses;", eventFile, lines,
                             summary.eventHits, summary.eventPrefixHits, summary.eventMisses);
    }
    written.pop_back();
    fmt::print(stderr, "npgen:{}\n", written);
  } catch (const std::exception& error) {
    fmt::print(stderr, "npgen: {}\n", error.what());
    return 1;
  }
  return 0;
}
