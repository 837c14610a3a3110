// BenchRun's latency phases: 6a one reload on an idle plug-in, 5 single-lookup latency while
// reloads come and go, 5b latency with twice as many lookup threads as processors, and the
// lookup rate on the tree that the reloads built.
#include "bench/BenchRun.h"

#include "bench/ContendedLatency.h"
#include "bench/FigureText.h"
#include "bench/SystemProbe.h"
#include "bench/TextTable.h"

#include <fmt/format.h>

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <thread>
#include <utility>

namespace Bench {

namespace {

nlohmann::ordered_json latencyJson(const LatencyHistogram& h) {
  return nlohmann::ordered_json{{"samples", h.count()},          {"p50_ns", h.percentile(0.5)},   {"p99_ns", h.percentile(0.99)},
                                {"p99_9_ns", h.percentile(0.999)}, {"max_ns", h.max()}, {"above_1ms", h.countAbove(1000000)}};
}

void addLatencyRows(TextTable& table, const std::array<std::pair<const char*, const LatencyHistogram*>, 2>& rows) {
  for (const auto& [name, h] : rows) {
    table.addRow({name, std::to_string(h->count()), nsText(h->percentile(0.5)), nsText(h->percentile(0.99)),
                  nsText(h->percentile(0.999)), nsText(h->max()), std::to_string(h->countAbove(1000000))});
  }
}

}  // namespace

void BenchRun::measureLatency() {
  DAT::NumberPortability::CacheManager* const cacheManager = cacheManagerM;
  // ---- 6a. reload, idle -------------------------------------------------------------------
  outM << "measuring reload and latency ..." << std::endl;
  const auto reloadStart = Clock::now();
  reloadedM = cacheManager->cacheReload(true);
  reloadSecondsM = seconds(Clock::now() - reloadStart);
  if (!reloadedM) std::cerr << "npbench: cacheReload failed\n";

  // ---- 5. latency, idle and during reloads -------------------------------------------------
  DAT::NumberPortability::PlugIn& plugIn = *plugInM;
  auto plugInLookup = [&plugIn](const BAS::String& n, const BAS::DateTime& d, NumberPortabilityData& r) {
    return plugIn.search(n, d, r);
  };
  LatencyHistogram clockCost;
  for (int i = 0; i < 100000; ++i) {
    const auto t0 = Clock::now();
    const auto t1 = Clock::now();
    clockCost.record(static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count()));
  }
  // Idle windows and reloads take turns, so that both kinds of sample see the same trees and
  // the same neighbours on the machine: idle, reload, idle, reload, ..., idle.
  std::atomic<ReloadPhase> phase{ReloadPhase::IDLE};
  std::vector<double> reloadTimes;
  idleWindowM = std::max(std::chrono::milliseconds(100), minTimeM * 5);
  // Steal time shows how often the machine itself stopped our threads: a lookup that the
  // hypervisor descheduled waits however the lock behaves.
  double stealIdle = 0;
  double stealReloading = 0;
  // The lookup thread and the reload thread get a CPU each: left alone, the scheduler at times
  // woke the reloader on the lookup thread's CPU, which then waited for it for milliseconds
  // (the run delay below shows such waits), a matter of the machine's scheduling, not of the lock.
  cpu_set_t allowed;
  const bool pinned = sched_getaffinity(0, sizeof allowed, &allowed) == 0 && CPU_COUNT(&allowed) >= 2 &&
                      CPU_ISSET(0, &allowed) && CPU_ISSET(1, &allowed) && pinTo(onlyCpu(0));
  std::thread reloader([&] {
    if (pinned) pinTo(onlyCpu(1));
    double mark = stealSeconds();
    const auto account = [&mark](double& total) {
      const double now = stealSeconds();
      total += now - mark;
      mark = now;
    };
    std::this_thread::sleep_for(idleWindowM);
    for (unsigned round = 0; round < optionsM.reloadRoundsM; ++round) {
      account(stealIdle);
      phase.store(ReloadPhase::RELOADING);
      const auto start = Clock::now();
      reloadsOkM = cacheManager->cacheReload(true) && reloadsOkM;
      reloadTimes.push_back(seconds(Clock::now() - start));
      phase.store(ReloadPhase::IDLE);
      account(stealReloading);
      std::this_thread::sleep_for(idleWindowM);
    }
    account(stealIdle);
    phase.store(ReloadPhase::DONE);
  });
  double runDelay[2] = {0, 0};
  sampleLatency(mixedM, plugInLookup, phase, idleM, duringReloadM, runDelay);
  reloader.join();
  if (pinned) pinTo(allowed);
  if (!reloadsOkM) std::cerr << "npbench: a cacheReload during the latency run failed\n";
  {
    TextTable table(fmt::format("5 Lookup latency, one thread, BEST_MATCH via PlugIn::search, mixed keys "
                                "(clock pair costs {} at p50)",
                                nsText(clockCost.percentile(0.5))),
                    {"while", "samples", "p50", "p99", "p99.9", "max", "> 1 ms"});
    addLatencyRows(table, {{{"no reload running", &idleM}, {"cacheReload(true) running", &duringReloadM}}});
    table.print(outM);
    std::string times;
    for (const double t : reloadTimes) times += (times.empty() ? "" : ", ") + secondsText(t);
    outM << "  (" << reloadTimes.size() << " reloads, taking turns with idle windows of "
         << secondsText(seconds(idleWindowM)) << ": " << times << ")\n";
    outM << "  (" << (pinned ? "lookup and reload thread pinned to CPUs 0 and 1; " : "threads not pinned; ")
         << "the lookup thread waited for a CPU " << secondsText(runDelay[0]) << " in the idle windows and "
         << secondsText(runDelay[1]) << " while reloading; steal time of both CPUs: " << secondsText(stealIdle)
         << " and " << secondsText(stealReloading) << ")\n";
  }
  reportM["latency"] = Json{{"clock_pair_p50_ns", clockCost.percentile(0.5)},
                            {"idle", latencyJson(idleM)},
                            {"during_reload", latencyJson(duringReloadM)},
                            {"reload_seconds", reloadTimes},
                            {"threads_pinned", pinned},
                            {"run_delay_seconds_idle", runDelay[0]},
                            {"run_delay_seconds_reloading", runDelay[1]},
                            {"steal_seconds_idle", stealIdle},
                            {"steal_seconds_reloading", stealReloading}};
}

void BenchRun::measureCrowdedLatency() {
  // ---- 5b. latency with twice as many lookup threads as processors, reloads running --------
  DAT::NumberPortability::PlugIn& plugIn = *plugInM;
  DAT::NumberPortability::CacheManager* const cacheManager = cacheManagerM;
  const LookupKeys& mixed = mixedM;
  const unsigned crowd = 2 * std::max(1u, std::thread::hardware_concurrency());
  const ContendedLatency contended(
      [&plugIn, &mixed](std::size_t i) {
        thread_local NumberPortabilityData result;
        return plugIn.search(mixed.number(i), mixed.dateTime(i), result);
      },
      mixed.size(), [&cacheManager] { return cacheManager->cacheReload(true); }, cacheManager->cacheLockM);
  const ContendedLatency::Result crowded = contended.run(crowd, optionsM.reloadRoundsM, idleWindowM);
  if (!crowded.reloadsOkM) std::cerr << "npbench: a cacheReload during the crowded latency run failed\n";
  {
    TextTable table(fmt::format("5b {} lookup threads on {} CPUs, PlugIn::search, while {} reloads run; a writer "
                                "takes the lock every millisecond",
                                crowd, std::thread::hardware_concurrency(), crowded.reloadSecondsM.size()),
                    {"", "samples", "p50", "p99", "p99.9", "max", "> 1 ms"});
    addLatencyRows(table, {{{"lookup", &crowded.lookupsM}, {"writer's wait for the lock", &crowded.writerWaitsM}}});
    table.print(outM);
  }
  reportM["latency_crowded"] = Json{{"lookup_threads", crowd},
                                    {"lookups", latencyJson(crowded.lookupsM)},
                                    {"writer_waits", latencyJson(crowded.writerWaitsM)},
                                    {"reload_seconds", crowded.reloadSecondsM}};

  // The same lookups on the tree that the reloads built in memory an earlier tree released,
  // next to the figure on the tree that init built in fresh memory.
  auto plugInLookup = [&plugIn](const BAS::String& n, const BAS::DateTime& d, NumberPortabilityData& r) {
    return plugIn.search(n, d, r);
  };
  const double lockedBestAfterReload = bestRates(mixedM, 1, minTimeM, optionsM.repeatsM, plugInLookup)[0];
  outM << "  (BEST_MATCH, mixed, 1 thread, locked: " << rateText(lockedBestAfterReload) << " on the tree of the last "
       << "reload, " << rateText(lockedBest1M) << " on the tree of init)\n";
  reportM["latency"]["lookups_per_s_after_reloads"] = lockedBestAfterReload;
}

}  // namespace Bench
