#include "bench/LatencyHistogram.h"

#include <algorithm>
#include <cmath>

namespace Bench {

std::uint64_t LatencyHistogram::percentile(double fraction) const {
  if (countM == 0) return 0;
  const double wanted = std::ceil(std::clamp(fraction, 0.0, 1.0) * static_cast<double>(countM));
  const std::uint64_t rank = std::max<std::uint64_t>(1, static_cast<std::uint64_t>(wanted));
  std::uint64_t seen = 0;
  for (std::uint64_t ns = 0; ns < fineLimitCM; ++ns) {
    seen += fineM[ns];
    if (seen >= rank) return ns;
  }
  std::vector<std::uint64_t> slow = slowM;
  std::sort(slow.begin(), slow.end());
  return slow[static_cast<std::size_t>(rank - seen - 1)];
}

std::uint64_t LatencyHistogram::countAbove(std::uint64_t nanoseconds) const {
  std::uint64_t above = 0;
  for (std::uint64_t ns = nanoseconds + 1; ns < fineLimitCM; ++ns) above += fineM[ns];
  above += static_cast<std::uint64_t>(
      std::count_if(slowM.begin(), slowM.end(), [nanoseconds](std::uint64_t v) { return v > nanoseconds; }));
  return above;
}

}  // namespace Bench
