// BenchRun's last phases: 8 nphost end to end, the targets table with the closing line, and
// the JSON file.
#include "bench/BenchRun.h"

#include "bench/FigureText.h"
#include "bench/HostRunBench.h"
#include "bench/SystemProbe.h"
#include "bench/TextTable.h"

#include <fmt/format.h>

#include <cstdint>
#include <fstream>
#include <iostream>

namespace Bench {

namespace {

// The size of the data set that the targets are set for.
constexpr std::uint64_t targetRecordsCM = 10'000'000;

}  // namespace

void BenchRun::measureHostRun() {
  TextTable hostTable("8 nphost run end to end (event file, output discarded; rate from nphost's summary)",
                      {"threads", "events per second", "bare search, same threads", "ratio"});
  Json hostJson = Json::array();
  const HostRunBench hostBench(optionsM.nphostM, mainFileM, eventFileM, workDirM);
  for (unsigned t = 1; t <= optionsM.threadsMaxM; ++t) {
    const HostRunBench::Result hostRun = hostBench.run(t);
    const double bare = t < bareMixedM.size() ? bareMixedM[t] : 0.0;
    if (hostRun.eventsPerSecondM && bare > 0) hostRatiosM[t] = *hostRun.eventsPerSecondM / bare;
    hostTable.addRow({std::to_string(t), hostRun.eventsPerSecondM ? rateText(*hostRun.eventsPerSecondM) : hostRun.statusM,
                      rateText(bare), hostRatiosM[t] ? ratioText(*hostRatiosM[t]) : "-"});
    hostJson.push_back(Json{{"threads", t},
                            {"events_per_s", hostRun.eventsPerSecondM ? Json(*hostRun.eventsPerSecondM) : Json()},
                            {"bare_per_s", bare},
                            {"summary", hostRun.statusM}});
  }
  hostTable.print(outM);
  reportM["host_run"] = hostJson;
}

void BenchRun::reportTargets() {
  const double idle999 = static_cast<double>(idleM.percentile(0.999));
  std::vector<Target> targets = {
      {"init rate / parse rate", initRateM / parseRateM, true, 0.1, ""},
      {"memory per record, both trees / reference two trees",
       refPerRecordM > 0 ? std::optional<double>(initPerRecordM / (2 * refPerRecordM)) : std::nullopt, false,
       optionsM.sparseM ? 0.30 : 0.18, ""},
      {"locked search 1 thread / reference trie search (BEST_MATCH, mixed)",
       refLookupRateM > 0 ? std::optional<double>(lockedBest1M / refLookupRateM) : std::nullopt, true, 2.0, ""},
      {"init rate, both trees / reference trie rate, one tree",
       refRateM > 0 ? std::optional<double>(initRateM / refRateM) : std::nullopt, true, 6.0, ""},
      {"locked / bare search, 1 thread (BEST_MATCH, mixed)", bareBest1M > 0 ? lockedBest1M / bareBest1M : 0.0, true, 0.9, ""},
      {"locked search 2 threads / 1 thread (BEST_MATCH, mixed)",
       optionsM.threadsMaxM >= 2 ? std::optional<double>(lockedBest2M / lockedBest1M) : std::nullopt, true, 1.8, ""},
      {"latency p99.9 during reload / idle p99.9", static_cast<double>(duringReloadM.percentile(0.999)) / idle999,
       false, 2.0, ""},
      {"latency max during reload (ms)", static_cast<double>(duringReloadM.max()) / 1e6, false, 1.0, " ms"},
      {"reload time / init time", reloadSecondsM / initSecondsM, false, 2.5, ""},
      {"delta load time / init time", deltaSecondsM / initSecondsM, false, 0.5, ""},
      {"clearAndDestroy / build of one tree", clearSecondsM / buildSecondsM, false, 0.1, ""},
  };
  for (unsigned t = 1; t <= optionsM.threadsMaxM; ++t) {
    targets.push_back({fmt::format("nphost run / bare search, {} thread{}", t, t == 1 ? "" : "s"), hostRatiosM[t], true,
                       0.7, ""});
  }
  TextTable targetTable("Targets", {"ratio", "measured", "target", "result"});
  Json targetJson = Json::array();
  std::size_t missed = 0;
  for (const Target& target : targets) {
    const bool pass = target.valueM && (target.atLeastM ? *target.valueM >= target.limitM : *target.valueM <= target.limitM);
    if (target.valueM && !pass) ++missed;
    const std::string verdict = !target.valueM ? "not measured" : pass ? "PASS" : "MISS";
    targetTable.addRow({target.nameM, target.valueM ? fmt::format("{:.3f}{}", *target.valueM, target.unitM) : "-",
                        fmt::format("{} {}{}", target.atLeastM ? ">=" : "<=", target.limitM, target.unitM), verdict});
    targetJson.push_back(Json{{"name", target.nameM},
                              {"value", target.valueM ? Json(*target.valueM) : Json()},
                              {"comparison", target.atLeastM ? ">=" : "<="},
                              {"limit", target.limitM},
                              {"result", verdict}});
  }
  targetTable.print(outM);
  const std::string loadAtEnd = loadAverage();
  const double totalSeconds = seconds(Clock::now() - startM);
  outM << "\n" << missed << " of " << targets.size() << " targets missed; log entries discarded " << sinkM->count()
       << "; load average at end " << loadAtEnd << "; total " << secondsText(totalSeconds) << "\n";
  // Fixed costs (threads, page faults, a pass over a small tree) weigh more in a small run, so
  // its ratios say little about the targets.
  if (optionsM.recordsM < targetRecordsCM)
    outM << "The targets are set for " << targetRecordsCM << " records (bench/RESULTS.md); this run had "
         << optionsM.recordsM << ", so its misses say nothing about them.\n";
  reportM["targets"] = targetJson;
  reportM["machine"]["load_average_end"] = loadAtEnd;
  reportM["log_entries"] = sinkM->count();
  reportM["total_s"] = totalSeconds;
}

bool BenchRun::writeJson() {
  if (optionsM.jsonM.empty()) return true;
  std::ofstream json(optionsM.jsonM, std::ios::trunc);
  json << reportM.dump(2) << '\n';
  if (!json) {
    std::cerr << "npbench: cannot write " << optionsM.jsonM << "\n";
    return false;
  }
  outM << "JSON written to " << optionsM.jsonM << "\n";
  return true;
}

}  // namespace Bench
