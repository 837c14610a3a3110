// BenchRun's cache operations: 6b the delta load, 7 the build and release of a separate full
// tree (twice, the second time into released memory), the plug-in's end, and their table.
#include "bench/BenchRun.h"

#include "bench/FigureText.h"
#include "bench/TextTable.h"

#include "BAS/ReadLocker.h"
#include "STR/FileIoTurbo.h"
#include "cache/DataFileLines.h"

#include <fmt/format.h>

#include <cstdio>
#include <iostream>
#include <string_view>

namespace Bench {

void BenchRun::measureOperations() {
  using DAT::NumberPortability::NumberPortabilityTree;
  DAT::NumberPortability::CacheManager* const cacheManager = cacheManagerM;
  // ---- 6b. delta load, on the plug-in's copy of the data file -------------------------------
  const auto deltaStart = Clock::now();
  deltaLoadedM = cacheManager->cacheDeltaLoad(BAS::String(deltaFileM.string()));
  deltaSecondsM = seconds(Clock::now() - deltaStart);
  if (!deltaLoadedM) std::cerr << "npbench: cacheDeltaLoad failed\n";
  std::uint32_t recordsAfterDelta = 0;
  {
    BAS::ReadLocker locker(cacheManager->cacheLockM);
    recordsAfterDelta = cacheManager->activeTreeM->recordCount();
  }

  // ---- 7. build and clearAndDestroy of a separate full tree ---------------------------------
  // Built twice: first into memory no tree has used, then again into the memory the first
  // build released, as every reload does.
  auto separate = std::make_unique<NumberPortabilityTree>();
  auto buildSeparate = [&] {
    STR::FileIoTurbo reader;
    reader.openFile(dataFileNameM, 8);
    DAT::NumberPortability::DataFileLines lines(reader);
    std::string_view view;
    BAS::String line;  // insertCache's form of a line, as its callers hand it over
    const auto start = Clock::now();
    for (DAT::NumberPortability::DataFileLines::Step step;
         (step = lines.next(view)) == DAT::NumberPortability::DataFileLines::Step::line;) {
      line.assign(view.data(), view.size());
      cacheManager->insertCache(separate.get(), line, lines.lineNumber(), true, reader);
    }
    const double elapsed = seconds(Clock::now() - start);
    reader.closeFile();
    return elapsed;
  };
  auto clearSeparate = [&] {
    const auto start = Clock::now();
    separate->clearAndDestroy();
    return seconds(Clock::now() - start);
  };
  buildSecondsM = buildSeparate();
  const std::uint32_t separateRecords = separate->recordCount();
  clearSecondsM = clearSeparate();
  const double rebuildSeconds = buildSeparate();
  const double reclearSeconds = clearSeparate();
  separate.reset();

  // The plug-in's end: worker stopped, both trees released.
  const auto endStart = Clock::now();
  plugInM->shutdown();
  plugInM.reset();
  const double endSeconds = seconds(Clock::now() - endStart);

  TextTable table("6/7 Cache operations (wall time)", {"operation", "time", "vs init", "note"});
  table.addRow({"init (both trees)", secondsText(initSecondsM), "1.000", ""});
  table.addRow({"cacheReload(true), idle", secondsText(reloadSecondsM), ratioText(reloadSecondsM / initSecondsM), ""});
  table.addRow({"cacheDeltaLoad (delta 1%, rewrites the file)", secondsText(deltaSecondsM),
                ratioText(deltaSecondsM / initSecondsM), fmt::format("records {} -> {}", treeRecordsM, recordsAfterDelta)});
  table.addRow({"build of one tree (insertCache per line)", secondsText(buildSecondsM),
                ratioText(buildSecondsM / initSecondsM), fmt::format("{} records", separateRecords)});
  table.addRow({"clearAndDestroy of that tree", secondsText(clearSecondsM), ratioText(clearSecondsM / initSecondsM),
                fmt::format("{} of the build", ratioText(clearSecondsM / buildSecondsM))});
  table.addRow({"build again, into the memory just released", secondsText(rebuildSeconds),
                ratioText(rebuildSeconds / initSecondsM),
                fmt::format("{} of the first build", ratioText(rebuildSeconds / buildSecondsM))});
  table.addRow({"clearAndDestroy of the rebuilt tree", secondsText(reclearSeconds),
                ratioText(reclearSeconds / initSecondsM),
                fmt::format("{} of the rebuild", ratioText(reclearSeconds / rebuildSeconds))});
  table.addRow({"shutdown and destruction of the plug-in", secondsText(endSeconds), ratioText(endSeconds / initSecondsM),
                "both trees"});
  table.print(outM);
  reportM["operations"] = Json{{"init_s", initSecondsM},           {"reload_s", reloadSecondsM},
                               {"delta_load_s", deltaSecondsM},    {"records_after_delta", recordsAfterDelta},
                               {"build_one_tree_s", buildSecondsM}, {"clear_and_destroy_s", clearSecondsM},
                               {"rebuild_one_tree_s", rebuildSeconds}, {"clear_rebuilt_s", reclearSeconds},
                               {"plugin_end_s", endSeconds}};
}

}  // namespace Bench
