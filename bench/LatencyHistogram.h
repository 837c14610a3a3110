// Bench::LatencyHistogram collects latencies in nanoseconds and answers exact percentiles:
// one counter per nanosecond up to fineLimitCM, and the rare slower samples kept one by one.
// Millions of samples fit in a fixed half megabyte. One writer; not synchronised.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Bench {

class LatencyHistogram {
public:
  static constexpr std::uint64_t fineLimitCM = 1U << 16;

  LatencyHistogram() : fineM(fineLimitCM, 0) {}

  void record(std::uint64_t nanoseconds) {
    if (nanoseconds < fineLimitCM) {
      ++fineM[nanoseconds];
    } else {
      slowM.push_back(nanoseconds);
    }
    ++countM;
    if (nanoseconds > maxM) maxM = nanoseconds;
  }

  // Adds the samples of `other`, as if each had been recorded here.
  void add(const LatencyHistogram& other) {
    for (std::uint64_t ns = 0; ns < fineLimitCM; ++ns) fineM[ns] += other.fineM[ns];
    slowM.insert(slowM.end(), other.slowM.begin(), other.slowM.end());
    countM += other.countM;
    if (other.maxM > maxM) maxM = other.maxM;
  }

  std::uint64_t count() const { return countM; }
  std::uint64_t max() const { return maxM; }
  // The smallest latency that at least `fraction` (0..1) of the samples do not exceed; 0
  // without samples.
  std::uint64_t percentile(double fraction) const;
  // Samples slower than `nanoseconds`.
  std::uint64_t countAbove(std::uint64_t nanoseconds) const;

private:
  std::vector<std::uint64_t> fineM;
  std::vector<std::uint64_t> slowM;  // unsorted
  std::uint64_t countM = 0;
  std::uint64_t maxM = 0;
};

}  // namespace Bench
