// BenchRun's lookup phase: 4 lookups per second by method, workload and thread count, through
// the plug-in's read-locked search and on the bare tree, and the rates of batched lookups.
#include "bench/BenchRun.h"

#include "bench/FigureText.h"
#include "bench/TextTable.h"

#include <fmt/format.h>

#include <algorithm>
#include <iostream>
#include <string_view>

namespace Bench {

void BenchRun::measureLookups() {
  using DAT::NumberPortability::NumberPortabilityTree;
  outM << "measuring lookups ..." << std::endl;
  const LookupKeys* const workloads[] = {&hitsM, &prefixHitsM, &missesM, &mixedM};
  std::vector<std::string> header = {"method / workload (keys)"};
  for (const char* path : {"locked", "bare"}) {
    for (unsigned t = 1; t <= optionsM.threadsMaxM; ++t) header.push_back(fmt::format("{} {}T", path, t));
  }
  header.emplace_back("locked/bare 1T");
  if (optionsM.threadsMaxM >= 2) header.emplace_back("2T/1T locked");
  TextTable lookupTable("4 Lookups per second (locked: the plug-in's read-locked search; bare: the tree "
                        "without lock)",
                        header);
  Json lookupJson = Json::array();
  const NumberPortabilityTree& bareTree = *activeTreeM;
  DAT::NumberPortability::PlugIn& plugIn = *plugInM;
  DAT::NumberPortability::CacheManager* const cacheManager = cacheManagerM;
  for (unsigned method = 0; method < 3; ++method) {
    for (const LookupKeys* keys : workloads) {
      std::vector<std::string> row = {fmt::format("{} {} / {} ({})", method, methodNamesCM[method], keys->name(), keys->size())};
      std::vector<double> locked(optionsM.threadsMaxM + 1, 0.0);
      std::vector<double> bare(optionsM.threadsMaxM + 1, 0.0);
      // The configured method goes through the plug-in's own entry point, the others through
      // the cache manager's, which is the same read-locked search with the method passed in.
      auto viaPlugIn = [&plugIn](const BAS::String& n, const BAS::DateTime& d, NumberPortabilityData& r) {
        return plugIn.search(n, d, r);
      };
      auto viaCache = [cacheManager, method](const BAS::String& n, const BAS::DateTime& d, NumberPortabilityData& r) {
        return cacheManager->search(n, d, r, method);
      };
      auto viaTree = [&bareTree, method](const BAS::String& n, const BAS::DateTime& d, NumberPortabilityData& r) {
        return bareTree.search(n, d, r, method);
      };
      for (unsigned t = 1; t <= optionsM.threadsMaxM; ++t) {
        if (method == 0 && keys == &mixedM && t == 1 && referenceM != nullptr) {
          // The ratio to the reference trie is timed in turns with it, so that both rates see
          // the same state of the machine.
          const ReferenceTrie& reference = *referenceM;
          auto viaReference = [&reference](const BAS::String& n, const BAS::DateTime& d, NumberPortabilityData&) {
            return reference.search(n.view(), d, ReferenceTrie::bestMatchCM) != nullptr;
          };
          const auto rates = bestRates(*keys, t, minTimeM, optionsM.repeatsM, viaPlugIn, viaTree, viaReference);
          locked[t] = rates[0];
          bare[t] = rates[1];
          refLookupRateM = rates[2];
          continue;
        }
        const auto rates = method == 0 ? bestRates(*keys, t, minTimeM, optionsM.repeatsM, viaPlugIn, viaTree)
                                       : bestRates(*keys, t, minTimeM, optionsM.repeatsM, viaCache, viaTree);
        locked[t] = rates[0];
        bare[t] = rates[1];
      }
      for (unsigned t = 1; t <= optionsM.threadsMaxM; ++t) row.push_back(rateText(locked[t]));
      for (unsigned t = 1; t <= optionsM.threadsMaxM; ++t) row.push_back(rateText(bare[t]));
      row.push_back(ratioText(bare[1] > 0 ? locked[1] / bare[1] : 0.0));
      if (optionsM.threadsMaxM >= 2) row.push_back(ratioText(locked[1] > 0 ? locked[2] / locked[1] : 0.0));
      lookupTable.addRow(row);
      for (unsigned t = 1; t <= optionsM.threadsMaxM; ++t) {
        lookupJson.push_back(Json{{"method", method}, {"workload", keys->name()}, {"keys", keys->size()},
                                  {"threads", t}, {"locked_per_s", locked[t]}, {"bare_per_s", bare[t]}});
      }
      if (method == 0 && keys == &mixedM) {
        lockedBest1M = locked[1];
        bareBest1M = bare[1];
        bareMixedM = bare;
        if (optionsM.threadsMaxM >= 2) lockedBest2M = locked[2];
      }
    }
  }
  lookupTable.print(outM);
  if (!optionsM.noReferenceM) {
    outM << "  (reference trie, BEST_MATCH, mixed, 1 thread, no lock: " << rateText(refLookupRateM)
         << ", timed in turns with the row's locked and bare figures)\n";
    reportM["reference"]["lookups_per_s_best_match_mixed_1_thread"] = refLookupRateM;
  }
  reportM["lookups"] = lookupJson;
  const std::array<double, 2> batched = batchedRates();
  outM << "  (PlugIn::searchMany, BEST_MATCH, mixed, 1 thread, " << batchCM << " numbers a call as nphost looks them up: "
       << rateText(batched[0]) << ";\n   the same through PortabilityLookup::lookUp, nphost's interface: " << rateText(batched[1])
       << ", timed in turns)\n";
  reportM["lookups_batched_per_s"] = batched[0];
  reportM["lookups_host_interface_per_s"] = batched[1];
}

std::array<double, 2> BenchRun::batchedRates() const {
  std::vector<std::string_view> numbers;
  std::vector<BAS::DateTime> dateTimes;
  for (std::size_t i = 0; i < mixedM.size(); ++i) {
    numbers.push_back(mixedM.number(i).view());
    dateTimes.push_back(mixedM.dateTime(i));
  }
  std::vector<NumberPortabilityData> results(batchCM);
  std::vector<DAT::NumberPortability::PortabilityLookup::Answer> answers(batchCM);
  DAT::NumberPortability::PortabilityLookup& host = *plugInM;
  bool found[batchCM];
  std::array<double, 2> best{};
  std::size_t hits[2] = {};
  // One pass over the keys for each way in turn, each of at least the least time.
  const auto timed = [&](std::size_t way) {
    std::size_t done = 0;
    const auto start = Clock::now();
    do {
      for (std::size_t first = 0; first < numbers.size(); first += batchCM) {
        const std::size_t count = std::min(batchCM, numbers.size() - first);
        if (way == 0) {
          plugInM->searchMany(numbers.data() + first, dateTimes.data() + first, count, results.data(), found);
        } else {
          host.lookUp(numbers.data() + first, dateTimes.data() + first, count, answers.data(), found);
        }
        hits[way] += static_cast<std::size_t>(std::count(found, found + count, true));
        done += count;
      }
    } while (Clock::now() - start < minTimeM);
    best[way] = std::max(best[way], static_cast<double>(done) / seconds(Clock::now() - start));
  };
  for (unsigned run = 0; run < optionsM.repeatsM; ++run) {
    timed(0);
    timed(1);
  }
  if ((hits[0] == 0 || hits[1] == 0) && !numbers.empty()) std::cerr << "npbench: a batched search found nothing\n";
  return best;
}

}  // namespace Bench
