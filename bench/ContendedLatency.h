// Bench::ContendedLatency measures lookups and a writer on one readers-writer lock while the
// data is reloaded, with more lookup threads than the machine has processors: the load under
// which a lock that lets readers pass a waiting writer starves it, and a lost wake-up stops the
// lookups. npbench runs it after the one-thread latency run and reports both histograms.
#pragma once

#include "bench/LatencyHistogram.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <vector>

namespace BAS {
class RWLock;
}

namespace Bench {

class ContendedLatency {
public:
  struct Result {
    LatencyHistogram lookupsM;      // every lookup of every thread, reloads running or not
    LatencyHistogram writerWaitsM;  // from asking for the write side to holding it
    std::vector<double> reloadSecondsM;
    bool reloadsOkM = true;
  };

  // `lookup(i)` looks up key i (below `keys`); `reload()` reloads the data, true on success.
  // `lock` is the lock that lookups read under and the writer takes.
  ContendedLatency(std::function<bool(std::size_t)> lookup, std::size_t keys, std::function<bool()> reload,
                   BAS::RWLock& lock);

  // `threads` lookup threads loop without pause while `reloads` reloads run one after another,
  // separated by `idle`; meanwhile a writer takes the write side every millisecond, as the
  // plug-in does to read the record count, and times its wait.
  Result run(unsigned threads, unsigned reloads, std::chrono::milliseconds idle) const;

private:
  std::function<bool(std::size_t)> lookupM;
  std::size_t keysM;
  std::function<bool()> reloadM;
  BAS::RWLock& lockM;
};

}  // namespace Bench
