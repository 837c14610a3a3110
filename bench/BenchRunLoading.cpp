// BenchRun's loading phases: 1 parsing alone, 3 the reference trie, 2 the plug-in's init, the
// loading table, and the check that the store answers as the reference trie does.
#include "bench/BenchRun.h"

#include "bench/DataFileReader.h"
#include "bench/FigureText.h"
#include "bench/ReferenceTrie.h"
#include "bench/SystemProbe.h"
#include "bench/TextTable.h"

#include "BAS/ReadLocker.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <string_view>

namespace Bench {

namespace {

// A fingerprint of an answer, to compare the store's answers with the reference trie's.
std::uint64_t fingerprint(bool found, const BAS::DateTime& validFrom, std::string_view networkOperator) {
  if (!found) return 0;
  return std::hash<std::string_view>{}(networkOperator) * 1000003u ^ validFrom.secs();
}

}  // namespace

bool BenchRun::measureLoading() {
  // ---- 1. parsing alone -------------------------------------------------------------------
  DataFileReader reader(cacheManagerM->parser());
  std::uint64_t parsedRecords = 0;
  std::uint64_t parseCheck = 0;
  const auto parseStart = Clock::now();
  const bool parsed = reader.readFile(dataFileNameM, [&](const BAS::String& number, const NumberPortabilityData& record) {
    parseCheck += record.validFromM.secs() + number.length() + record.networkOperatorM.length();
    ++parsedRecords;
  });
  const double parseSeconds = seconds(Clock::now() - parseStart);
  answerSink.fetch_add(parseCheck, std::memory_order_relaxed);
  if (!parsed) {
    std::cerr << "npbench: cannot read " << dataFileM << "\n";
    return false;
  }
  const std::size_t dataLines = reader.lines();
  parseRateM = static_cast<double>(dataLines) / parseSeconds;
  reportM["parse"] = Json{{"lines", dataLines}, {"records", parsedRecords}, {"rejected", reader.rejected()},
                          {"seconds", parseSeconds}, {"lines_per_s", parseRateM}};

  // ---- 3. the reference trie (built first, into a heap nothing else has used yet) --------
  // Skipped on request: at a hundred million records it does not fit beside the store.
  double refSeconds = 0, refGrowth = 0;
  std::size_t refRssAfter = 0;
  ReferenceTrie::Shape shape;
  if (!optionsM.noReferenceM) {
    const std::size_t refRssBefore = trimmedResidentBytes();
    auto reference = std::make_unique<ReferenceTrie>();
    const auto refStart = Clock::now();
    reader.readFile(dataFileNameM, [&](const BAS::String& number, const NumberPortabilityData& record) {
      reference->insert(number.view(), record.validFromM, record.networkOperatorM.view());
    });
    refSeconds = seconds(Clock::now() - refStart);
    refRssAfter = trimmedResidentBytes();
    shape = reference->shape();
    refGrowth = static_cast<double>(refRssAfter) - static_cast<double>(refRssBefore);
    refPerRecordM = refGrowth / static_cast<double>(std::max<std::size_t>(1, shape.recordsM));
    refRateM = static_cast<double>(dataLines) / refSeconds;

    // Classify the events by the answer they get, and keep every answer for the cross-check.
    expectedM.resize(mixedM.size());
    for (std::size_t i = 0; i < mixedM.size(); ++i) {
      for (unsigned method = 0; method < 3; ++method) {
        const auto* record = reference->search(mixedM.number(i).view(), mixedM.dateTime(i), method);
        expectedM[i][method] = record == nullptr ? 0 : fingerprint(true, record->validFromM, record->networkOperatorM);
      }
      if (expectedM[i][1] != 0) {
        hitsM.add(mixedM.number(i), mixedM.dateTime(i));
      } else if (expectedM[i][0] != 0) {
        prefixHitsM.add(mixedM.number(i), mixedM.dateTime(i));
      } else {
        missesM.add(mixedM.number(i), mixedM.dateTime(i));
      }
    }
    referenceM = std::move(reference);
  }

  // ---- 2. init of the plug-in -------------------------------------------------------------
  outM << "loading the plug-in ..." << std::endl;
  const std::size_t initRssBefore = trimmedResidentBytes();
  const auto initStart = Clock::now();
  const bool loaded = plugInM->init();
  initSecondsM = seconds(Clock::now() - initStart);
  const std::size_t initRssAfter = trimmedResidentBytes();
  const std::size_t initOffered = lazyFreeBytes();
  if (!loaded) {
    std::cerr << "npbench: init did not load the data file\n";
    return false;
  }
  std::size_t treeNodes = 0;
  {
    BAS::ReadLocker locker(cacheManagerM->cacheLockM);
    activeTreeM = cacheManagerM->activeTreeM;
    treeNodes = activeTreeM->nodeCount();
    treeRecordsM = activeTreeM->recordCount();
  }
  if (optionsM.noReferenceM) classifyByStore();
  const double initGrowth = static_cast<double>(initRssAfter) - static_cast<double>(initRssBefore);
  initPerRecordM = initGrowth / static_cast<double>(std::max<std::uint32_t>(1, treeRecordsM));
  const double initPerNode = initGrowth / static_cast<double>(std::max<std::size_t>(1, 2 * treeNodes));
  initRateM = static_cast<double>(dataLines) / initSecondsM;

  // Memory the store's shape asks for (one tree): the bytes of its objects, which its arenas
  // hand out back to back, without a per-block size word or rounding. A node without children
  // is its payload word alone, in its parent's group. A history of one record sits in its
  // node's payload pointer (the generated operator tables are far too small for the escape to
  // a block).
  const std::size_t singles = shape.historiesByLengthM.size() > 1 ? shape.historiesByLengthM[1] : 0;
  const std::size_t leaves = shape.nodesM - shape.innerNodesM;
  double storeObjectBytes = static_cast<double>(shape.innerNodesM * sizeof(StoreNode) + leaves * sizeof(StoreNode::Word) +
                                                (shape.numbersM - singles) * sizeof(DAT::NumberPortability::StoredHistory) +
                                                (shape.recordsM - singles) * sizeof(DAT::NumberPortability::StoredRecord));
  const double records = static_cast<double>(std::max<std::size_t>(1, shape.recordsM));

  {
    TextTable table("Loading (" + std::to_string(dataLines) + " lines, " + std::to_string(treeRecordsM) +
                        " records, " + std::to_string(shape.numbersM) + " numbers, " + std::to_string(treeNodes) +
                        " trie nodes per tree)",
                    {"stage", "time", "lines/s", "RSS growth", "per record", "per node", "note"});
    table.addRow({"1 parse only (read, split, trim, date, normalise)", secondsText(parseSeconds), rateText(parseRateM),
                  "", "", "", "no tree"});
    table.addRow({"2 plug-in init (both trees)", secondsText(initSecondsM), rateText(initRateM), mibText(initGrowth),
                  bytesText(initPerRecordM), bytesText(initPerNode), "per node: over both trees' nodes"});
    if (!optionsM.noReferenceM) {
      table.addRow({"3 reference trie, one tree", secondsText(refSeconds), rateText(refRateM), mibText(refGrowth),
                    bytesText(refPerRecordM),
                    bytesText(refGrowth / static_cast<double>(std::max<std::size_t>(1, shape.nodesM))), "same parsing"});
      table.addRow({"3 reference trie, two trees (x2)", "", "", mibText(2 * refGrowth), bytesText(2 * refPerRecordM), "",
                    "projection"});
      table.addRow({"  store model, two trees: object bytes", "", "", mibText(2 * storeObjectBytes),
                    bytesText(2 * storeObjectBytes / records), "", "from sizeof and the trie's shape"});
    }
    table.print(outM);
    outM << "  (RSS growth leaves out pages offered back to the system but still resident: "
         << mibText(static_cast<double>(initOffered)) << "; the loader returns its own at once)\n";
    if (!optionsM.noReferenceM) {
      outM << "  (reference trie: RSS " << mibText(static_cast<double>(refRssAfter)) << " once built; store trie nodes "
           << treeNodes << " vs reference " << shape.nodesM << ", inner " << shape.innerNodesM << ")\n";
    }
  }
  reportM["init"] = Json{{"seconds", initSecondsM},
                         {"lines_per_s", initRateM},
                         {"records_per_tree", treeRecordsM},
                         {"nodes_per_tree", treeNodes},
                         {"rss_before", initRssBefore},
                         {"rss_after", initRssAfter},
                         {"offered_back_after", initOffered},
                         {"rss_growth", initGrowth},
                         {"bytes_per_record_both_trees", initPerRecordM},
                         {"bytes_per_node", initPerNode},
                         {"model_object_bytes_per_record_both_trees", 2 * storeObjectBytes / records}};
  reportM["reference"] = Json{{"seconds", refSeconds},
                              {"lines_per_s", refRateM},
                              {"records", shape.recordsM},
                              {"numbers", shape.numbersM},
                              {"histories_by_length", shape.historiesByLengthM},
                              {"nodes", shape.nodesM},
                              {"inner_nodes", shape.innerNodesM},
                              {"rss_growth", refGrowth},
                              {"bytes_per_record_one_tree", refPerRecordM},
                              {"bytes_per_record_two_trees", 2 * refPerRecordM}};
  return true;
}

void BenchRun::releaseReference() {
  if (referenceM == nullptr) return;
  const std::size_t before = trimmedResidentBytes();
  const auto start = Clock::now();
  referenceM.reset();
  const double destroySeconds = seconds(Clock::now() - start);
  const std::size_t after = trimmedResidentBytes();
  outM << "(reference trie: destroyed in " << secondsText(destroySeconds) << ", RSS back to "
       << mibText(static_cast<double>(after)) << " from " << mibText(static_cast<double>(before)) << ")\n";
  reportM["reference"]["destroy_s"] = destroySeconds;
}

// Without the reference trie, the events are sorted by the store's own answers, which then
// cannot be checked.
void BenchRun::classifyByStore() {
  for (std::size_t i = 0; i < mixedM.size(); ++i) {
    NumberPortabilityData result;
    if (activeTreeM->search(mixedM.number(i), mixedM.dateTime(i), result, 1)) {
      hitsM.add(mixedM.number(i), mixedM.dateTime(i));
    } else if (activeTreeM->search(mixedM.number(i), mixedM.dateTime(i), result, 0)) {
      prefixHitsM.add(mixedM.number(i), mixedM.dateTime(i));
    } else {
      missesM.add(mixedM.number(i), mixedM.dateTime(i));
    }
  }
}

// The store must give the reference trie's answers, or the figures compare different work.
void BenchRun::crossCheck() {
  if (optionsM.noReferenceM) {
    outM << "  (no reference trie: the store's answers are not cross-checked)\n";
    reportM["cross_check_disagreements"] = nullptr;
    return;
  }
  for (std::size_t i = 0; i < mixedM.size(); ++i) {
    for (unsigned method = 0; method < 3; ++method) {
      NumberPortabilityData result;
      const bool found = activeTreeM->search(mixedM.number(i), mixedM.dateTime(i), result, method);
      if (fingerprint(found, result.validFromM, result.networkOperatorM.view()) != expectedM[i][method]) ++disagreementsM;
    }
  }
  reportM["cross_check_disagreements"] = disagreementsM;
  if (disagreementsM != 0) {
    std::cerr << "npbench: the store and the reference trie disagree on " << disagreementsM << " answers\n";
  } else {
    outM << "  (store and reference trie give the same answer to all " << mixedM.size()
         << " events, each search method)\n";
  }
}

}  // namespace Bench
