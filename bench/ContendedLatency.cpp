#include "bench/ContendedLatency.h"

#include "BAS/WriteLocker.h"

#include <atomic>
#include <thread>

namespace Bench {

namespace {

using Clock = std::chrono::steady_clock;

std::uint64_t nanoseconds(Clock::duration d) {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(d).count());
}

}  // namespace

ContendedLatency::ContendedLatency(std::function<bool(std::size_t)> lookup, std::size_t keys,
                                   std::function<bool()> reload, BAS::RWLock& lock)
    : lookupM(std::move(lookup)), keysM(keys), reloadM(std::move(reload)), lockM(lock) {}

ContendedLatency::Result ContendedLatency::run(unsigned threads, unsigned reloads, std::chrono::milliseconds idle) const {
  Result result;
  if (keysM == 0) return result;
  std::atomic<bool> done{false};
  std::atomic<std::uint64_t> found{0};
  // One histogram per thread, merged at the end: a shared one would be a lock of its own.
  std::vector<LatencyHistogram> perThread(threads);
  std::vector<std::thread> lookups;
  for (unsigned t = 0; t < threads; ++t) {
    lookups.emplace_back([&, t] {
      std::uint64_t hits = 0;
      for (std::size_t i = t * keysM / threads; !done.load(std::memory_order_relaxed); i = i + 1 == keysM ? 0 : i + 1) {
        const auto t0 = Clock::now();
        hits += lookupM(i) ? 1 : 0;
        perThread[t].record(nanoseconds(Clock::now() - t0));
      }
      found.fetch_add(hits, std::memory_order_relaxed);
    });
  }
  std::thread writer([&] {
    while (!done.load(std::memory_order_relaxed)) {
      const auto asked = Clock::now();
      {
        BAS::WriteLocker locker(lockM);
        result.writerWaitsM.record(nanoseconds(Clock::now() - asked));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  std::this_thread::sleep_for(idle);
  for (unsigned round = 0; round < reloads; ++round) {
    const auto start = Clock::now();
    result.reloadsOkM = reloadM() && result.reloadsOkM;
    result.reloadSecondsM.push_back(std::chrono::duration<double>(Clock::now() - start).count());
    std::this_thread::sleep_for(idle);
  }
  done = true;
  writer.join();
  for (std::thread& lookup : lookups) lookup.join();
  for (const LatencyHistogram& histogram : perThread) result.lookupsM.add(histogram);
  return result;
}

}  // namespace Bench
