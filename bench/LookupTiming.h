// The timed loops of npbench: lookup rates over a workload with one or more threads, and
// single-lookup latencies sampled while reloads come and go. Templates over the lookup being
// timed, so that the call inlines as it does in a processing module. Used by the lookup and
// latency phases of Bench::BenchRun.
#pragma once

#include "bench/LatencyHistogram.h"
#include "bench/LookupKeys.h"
#include "bench/SystemProbe.h"
#include "store/NumberPortabilityData.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <latch>
#include <thread>
#include <vector>

namespace Bench {

using Clock = std::chrono::steady_clock;
using DAT::NumberPortability::NumberPortabilityData;

inline double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Keeps the compiler from dropping lookups whose answers nobody reads.
inline std::atomic<std::uint64_t> answerSink{0};

// Lookups per second over `keys` by `threads` threads at once, each looking up keys in file
// order for `minTime`, from an offset of its own that moves with `round`.
template <class Lookup>
double lookupRate(const LookupKeys& keys, unsigned threads, std::chrono::milliseconds minTime, unsigned round,
                  const Lookup& lookup) {
  const std::size_t n = keys.size();
  if (n == 0) return 0.0;
  constexpr std::size_t stride = 256;  // lookups between looks at the clock
  std::latch start(static_cast<std::ptrdiff_t>(threads));
  std::vector<Clock::time_point> begins(threads);
  std::vector<Clock::time_point> ends(threads);
  std::vector<std::uint64_t> counts(threads, 0);
  std::vector<std::thread> workers;
  for (unsigned t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      // Each thread takes its own start and end: on a busy machine a thread may not run
      // again until the others are well under way.
      std::size_t i = (static_cast<std::size_t>(t) * n / threads + static_cast<std::size_t>(round) * n / 7) % n;
      NumberPortabilityData result;
      std::uint64_t found = 0;
      std::uint64_t done = 0;
      start.arrive_and_wait();
      const Clock::time_point begin = Clock::now();
      Clock::time_point now = begin;
      do {
        for (std::size_t k = 0; k < stride; ++k) {
          found += lookup(keys.number(i), keys.dateTime(i), result) ? 1 : 0;
          if (++i == n) i = 0;
        }
        done += stride;
        now = Clock::now();
      } while (now - begin < minTime);
      begins[t] = begin;
      ends[t] = now;
      counts[t] = done;
      answerSink.fetch_add(found, std::memory_order_relaxed);
    });
  }
  for (std::thread& worker : workers) worker.join();
  const double elapsed =
      seconds(*std::max_element(ends.begin(), ends.end()) - *std::min_element(begins.begin(), begins.end()));
  std::uint64_t total = 0;
  for (const std::uint64_t count : counts) total += count;
  return static_cast<double>(total) / elapsed;
}

// The best of `repeats` runs of each of the given lookups, taken in turns, so that a slow
// spell of a shared machine falls on all of them alike instead of on one.
template <class... Lookups>
std::array<double, sizeof...(Lookups)> bestRates(const LookupKeys& keys, unsigned threads,
                                                 std::chrono::milliseconds minTime, unsigned repeats,
                                                 const Lookups&... lookups) {
  std::array<double, sizeof...(Lookups)> best{};
  for (unsigned round = 0; round < std::max(1U, repeats); ++round) {
    std::size_t index = 0;
    ((best[index] = std::max(best[index], lookupRate(keys, threads, minTime, round, lookups)), ++index), ...);
  }
  return best;
}

// What the reload thread is doing while the lookup thread samples latencies.
enum class ReloadPhase : int { IDLE, RELOADING, DONE };

// Times single lookups over `keys` again and again until the phase is DONE. A sample counts
// as taken during a reload when a reload was running at its start or at its end.
// `runDelay` gets the time the sampling thread waited for a CPU, idle [0] and reloading [1].
template <class Lookup>
void sampleLatency(const LookupKeys& keys, const Lookup& lookup, const std::atomic<ReloadPhase>& phase,
                   LatencyHistogram& idle, LatencyHistogram& reloading, double (&runDelay)[2]) {
  const std::size_t n = keys.size();
  if (n == 0) return;
  NumberPortabilityData result;
  std::uint64_t found = 0;
  ReloadPhase current = ReloadPhase::IDLE;
  double mark = runDelaySeconds();
  for (std::size_t i = 0;; i = i + 1 == n ? 0 : i + 1) {
    const ReloadPhase before = phase.load(std::memory_order_relaxed);
    if (before != current) {
      const double now = runDelaySeconds();
      runDelay[current == ReloadPhase::RELOADING ? 1 : 0] += now - mark;
      mark = now;
      current = before;
    }
    if (before == ReloadPhase::DONE) break;
    const auto t0 = Clock::now();
    found += lookup(keys.number(i), keys.dateTime(i), result) ? 1 : 0;
    const auto t1 = Clock::now();
    const ReloadPhase after = phase.load(std::memory_order_relaxed);
    const auto ns = static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count());
    (before == ReloadPhase::RELOADING || after == ReloadPhase::RELOADING ? reloading : idle).record(ns);
  }
  answerSink.fetch_add(found, std::memory_order_relaxed);
}

}  // namespace Bench
