// npbench: one run over one generated data set that measures the portability plug-in's
// parsing, loading, memory, lookups (with and without the cache lock, one and more threads),
// lookup latency while reloads run, reload, delta load and tree release, next to a trie built
// the plain way, and prints the figures as tables and, on request, as JSON (Bench::BenchRun).
#include "bench/BenchOptions.h"
#include "bench/BenchRun.h"

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
  Bench::BenchOptions options;
  if (const std::optional<int> status = Bench::BenchOptions::parse(argc, argv, options)) return *status;
  try {
    return Bench::BenchRun(options).run();
  } catch (const std::exception& error) {
    std::cerr << "npbench: " << error.what() << "\n";
    return 2;
  }
}
