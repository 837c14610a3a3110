#include "bench/HostRunBench.h"

namespace Bench {

HostRunBench::Result HostRunBench::run() const {
  // MEASURE HERE: the host's end-to-end run over the event file. Until the host has the
  // command for it there is nothing to start, so the figure stays empty.
  return Result{std::nullopt, "not measured"};
}

}  // namespace Bench
