// Bench::BenchRun is one npbench run over one generated data set: it measures the portability
// plug-in's parsing, loading, memory, lookups (with and without the cache lock, one and more
// threads), lookup latency while reloads run, reload, delta load and tree release, next to a
// trie built the plain way, and prints the figures as tables and, on request, as JSON.
// main makes one and calls run(). The phases run one after another in the order of the
// output, each in a file of its own (BenchRun*.cpp), and hand their figures on in members.
// One thread drives the run; the phases start and join the threads they measure with.
#pragma once

#include "bench/BenchOptions.h"
#include "bench/DiscardingLogSink.h"
#include "bench/LatencyHistogram.h"
#include "bench/LookupKeys.h"
#include "bench/LookupTiming.h"
#include "bench/ReferenceTrie.h"

#include "BAS/Framework.h"
#include "BAS/String.h"
#include "cache/CacheManager.h"
#include "plugin/NumberPortabilityPlugIn.h"
#include "store/StoredHistory.h"
#include "store/StoredRecord.h"
#include "store/NumberPortabilityTree.h"
#include "store/PtrTreeNode.h"

#include <nlohmann/json.hpp>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace Bench {

class BenchRun {
public:
  explicit BenchRun(const BenchOptions& options);

  // The whole run: 0 when every check held, 1 when the store disagreed with the reference
  // trie or a reload or delta load failed, 2 when the run could not be made.
  int run();

private:
  using Json = nlohmann::ordered_json;
  using StoreNode = PBC::PtrTreeNode<DAT::NumberPortability::StoredHistory>;

  static constexpr const char* plugInNameCM = "NumberPortability";
  static constexpr const char* methodNamesCM[] = {"BEST_MATCH", "EXACT_MATCH", "ANY_PREFIX_MATCH"};
  // Numbers a PlugIn::searchMany call gets, as nphost looks them up.
  static constexpr std::size_t batchCM = 64;

  // A ratio that the run checks against a limit, with its verdict in the targets table.
  struct Target {
    std::string nameM;
    std::optional<double> valueM;
    bool atLeastM;  // true: value >= limit passes; false: value <= limit passes
    double limitM;
    std::string unitM;
  };

  // BenchRun.cpp: the machine, the data, the sizes and the plug-in, configured but not loaded.
  void describeMachine();
  bool generateData();
  void printSizes();
  bool makePlugIn();
  void removeData();
  // BenchRunLoading.cpp: 1 parsing, 3 the reference trie, 2 init, and the cross-check; the
  // reference trie's release once everything else is measured.
  bool measureLoading();
  void classifyByStore();
  void crossCheck();
  void releaseReference();
  // BenchRunLookups.cpp: 4 lookup rates and the batched rates.
  void measureLookups();
  // Lookups per second, one thread, batchCM numbers a call: [0] through PlugIn::searchMany,
  // [1] through the host's interface (PortabilityLookup::lookUp), timed in turns.
  std::array<double, 2> batchedRates() const;
  // BenchRunLatency.cpp: 6a reload, 5 latency with reloads, 5b with a crowd of threads.
  void measureLatency();
  void measureCrowdedLatency();
  // BenchRunOperations.cpp: 6b delta load, 7 build and release of a tree, the plug-in's end.
  void measureOperations();
  // BenchRunReport.cpp: 8 nphost end to end, the targets and the JSON file.
  void measureHostRun();
  void reportTargets();
  bool writeJson();

  const BenchOptions& optionsM;
  std::ostream& outM;
  Json reportM;
  const Clock::time_point startM = Clock::now();
  const std::chrono::milliseconds minTimeM;

  // The data set.
  std::filesystem::path workDirM;
  bool removeWorkDirM = false;
  std::filesystem::path dataFileM;
  std::filesystem::path mainFileM;  // the plug-in's file; the delta load rewrites it
  std::filesystem::path deltaFileM;
  std::filesystem::path eventFileM;
  BAS::String dataFileNameM;

  // The measured plug-in and everything it needs.
  std::shared_ptr<DiscardingLogSink> sinkM = std::make_shared<DiscardingLogSink>();
  BAS::Framework frameworkM;
  std::unique_ptr<DAT::NumberPortability::PlugIn> plugInM;
  DAT::NumberPortability::CacheManager* cacheManagerM = nullptr;
  DAT::NumberPortability::NumberPortabilityTree* activeTreeM = nullptr;  // the tree that init built

  // The lookups: the events, and the same events by the answer they get.
  LookupKeys mixedM;
  LookupKeys hitsM{"hits"};
  LookupKeys prefixHitsM{"prefix hits"};
  LookupKeys missesM{"misses"};
  std::vector<std::array<std::uint64_t, 3>> expectedM;  // the reference trie's answer by method
  // Kept until the end: its lookups are timed in turns with the store's, and releasing its
  // gigabytes in mid-run would leave the machine busy taking the memory back while the store
  // is measured.
  std::unique_ptr<ReferenceTrie> referenceM;

  // Figures that later phases print or check.
  double parseRateM = 0;
  double initSecondsM = 0;
  double initRateM = 0;
  double initPerRecordM = 0;
  double refPerRecordM = 0;
  double refLookupRateM = 0;
  double refRateM = 0;  // lines per second into the reference trie (one tree)
  std::uint32_t treeRecordsM = 0;
  std::size_t disagreementsM = 0;
  double lockedBest1M = 0;
  double bareBest1M = 0;
  double lockedBest2M = 0;
  std::vector<double> bareMixedM;  // BEST_MATCH, mixed keys, by thread count
  bool reloadedM = false;
  double reloadSecondsM = 0;
  LatencyHistogram idleM;
  LatencyHistogram duringReloadM;
  bool reloadsOkM = true;  // set by measureLatency's reload thread, read only after it is joined
  std::chrono::milliseconds idleWindowM{0};
  bool deltaLoadedM = false;
  double deltaSecondsM = 0;
  double buildSecondsM = 0;
  double clearSecondsM = 0;
  std::vector<std::optional<double>> hostRatiosM;
};

}  // namespace Bench
