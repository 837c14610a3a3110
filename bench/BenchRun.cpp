#include "bench/BenchRun.h"

#include "bench/ReferenceTrie.h"
#include "bench/SystemProbe.h"
#include "bench/TextTable.h"

#include "BAS/DateTime.h"
#include "BAS/RegistryEntry.h"
#include "store/NumberPortabilityData.h"

#include <fmt/format.h>

#include <sys/utsname.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string_view>
#include <thread>

namespace Bench {

namespace fs = std::filesystem;
using DAT::NumberPortability::StoredHistory;
using DAT::NumberPortability::StoredRecord;
using DAT::NumberPortability::PlugIn;

namespace {

// The event file's lines "NUMBER;YYYYMMDDHHMMSS;CALLID;DURATION" as lookups.
LookupKeys readEvents(const fs::path& file) {
  LookupKeys keys("mixed");
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    const auto first = line.find(';');
    if (first == std::string::npos) continue;
    const auto second = line.find(';', first + 1);
    const std::string_view text(line);
    const std::string_view date = text.substr(first + 1, second == std::string::npos ? std::string::npos : second - first - 1);
    keys.add(BAS::String(text.substr(0, first)), BAS::DateTime(date));
  }
  return keys;
}

}  // namespace

BenchRun::BenchRun(const BenchOptions& options)
    : optionsM(options), outM(std::cout), minTimeM(options.minTimeMsM), hostRatiosM(options.threadsMaxM + 1) {}

int BenchRun::run() {
  describeMachine();
  if (!generateData()) return 2;
  printSizes();
  if (!makePlugIn()) return 2;
  mixedM = readEvents(eventFileM);
  dataFileNameM = BAS::String(dataFileM.string());
  if (!measureLoading()) return 2;
  crossCheck();
  measureLookups();
  measureLatency();
  measureCrowdedLatency();
  measureOperations();
  measureHostRun();
  releaseReference();
  reportTargets();
  if (!writeJson()) return 2;
  removeData();
  const bool faultless = disagreementsM == 0 && reloadedM && reloadsOkM && deltaLoadedM;
  return faultless ? 0 : 1;
}

void BenchRun::describeMachine() {
  struct utsname system {};
  ::uname(&system);
  const std::string cpuModel = firstLineWith("/proc/cpuinfo", "model name");
  const std::string memTotal = firstLineWith("/proc/meminfo", "MemTotal");
  const unsigned cores = std::thread::hardware_concurrency();
  const std::string loadAtStart = loadAverage();
  outM << "npbench: " << optionsM.recordsM << " records" << (optionsM.sparseM ? " (sparse)" : "") << ", seed "
       << optionsM.seedM << "\n"
       << "machine: " << cores << " cores, " << cpuModel << ", " << memTotal << ", " << system.sysname << ' '
       << system.release << ", load average " << loadAtStart << "\n"
       << "compiler: " << compilerText() << "\n";
  reportM["machine"] = Json{{"cores", cores},          {"cpu", cpuModel},
                            {"memory", memTotal},      {"kernel", std::string(system.release)},
                            {"compiler", compilerText()}, {"load_average_start", loadAtStart}};
}

bool BenchRun::generateData() {
  if (optionsM.workDirM.empty()) {
    std::string pattern = (fs::temp_directory_path() / "npbench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temporary folder");
    workDirM = pattern;
    removeWorkDirM = !optionsM.keepDataM;
  } else {
    workDirM = optionsM.workDirM;
    fs::create_directories(workDirM);
  }
  dataFileM = workDirM / "np.txt";
  mainFileM = workDirM / "np-main.txt";
  deltaFileM = workDirM / "delta.txt";
  eventFileM = workDirM / "events.txt";
  const std::uint64_t eventCount =
      optionsM.eventsM != 0 ? optionsM.eventsM : std::min<std::uint64_t>(optionsM.recordsM, 1000000);

  std::vector<std::string> generate = {optionsM.npgenM,     "--records",    std::to_string(optionsM.recordsM),
                                       "--seed",            std::to_string(optionsM.seedM),
                                       "--data",            dataFileM.string(),
                                       "--delta",           deltaFileM.string(),
                                       "--delta-share",     "0.01",
                                       "--events",          eventFileM.string(),
                                       "--event-count",     std::to_string(eventCount)};
  if (optionsM.sparseM) generate.emplace_back("--sparse");
  outM << "generating data in " << workDirM.string() << " ..." << std::endl;
  const auto generateStart = Clock::now();
  if (runProgram(generate) != 0) {
    std::cerr << "npbench: npgen failed (" << optionsM.npgenM << ")\n";
    return false;
  }
  const double generateSeconds = seconds(Clock::now() - generateStart);
  fs::copy_file(dataFileM, mainFileM, fs::copy_options::overwrite_existing);
  for (const fs::path& file : {dataFileM, mainFileM, deltaFileM, eventFileM}) warmPageCache(file);
  reportM["options"] = Json{{"records", optionsM.recordsM}, {"seed", optionsM.seedM},          {"sparse", optionsM.sparseM},
                            {"events", eventCount},        {"threads_max", optionsM.threadsMaxM},
                            {"min_time_ms", optionsM.minTimeMsM}, {"repeats", optionsM.repeatsM},
                            {"reload_rounds", optionsM.reloadRoundsM},
                            {"chunk_lines", optionsM.chunkLinesM != 0 ? optionsM.chunkLinesM
                                                                      : DAT::NumberPortability::CacheManager::defaultChunkLinesCM},
                            {"generate_s", generateSeconds}};
  return true;
}

void BenchRun::printSizes() {
  using RefNode = ReferenceTrie::Node;
  const std::size_t refChildArray = ReferenceTrie::radixCM * sizeof(RefNode*);
  TextTable sizes("Sizes (bytes, from sizeof)", {"object", "store", "reference trie"});
  sizes.addRow({"trie node", std::to_string(sizeof(StoreNode)), std::to_string(sizeof(RefNode))});
  sizes.addRow({"child slots of a node", "none (children side by side, a digit set in the node)",
                fmt::format("{} (every node)", refChildArray)});
  sizes.addRow({"history of a number", fmt::format("{} (a count before its records; none for one record)", sizeof(StoredHistory)),
                std::to_string(sizeof(ReferenceTrie::History))});
  sizes.addRow({"record", fmt::format("{} (operator text once per tree)", sizeof(StoredRecord)),
                std::to_string(sizeof(ReferenceTrie::Record))});
  sizes.print(outM);
  reportM["sizes"] = Json{{"store_node", sizeof(StoreNode)},
                          {"store_history", sizeof(StoredHistory)},
                          {"store_record", sizeof(StoredRecord)},
                          {"reference_node", sizeof(RefNode)},
                          {"reference_child_array", refChildArray},
                          {"reference_history", sizeof(ReferenceTrie::History)},
                          {"reference_record", sizeof(ReferenceTrie::Record)}};
}

bool BenchRun::makePlugIn() {
  frameworkM.log().addSink(sinkM);
  frameworkM.setProbeDirectory(BAS::String(NPBENCH_PROBE_DIRECTORY));
  BAS::RegistryEntry& entry = frameworkM.registry().child(BAS::String(plugInNameCM));
  entry.add("FileName", BAS::String(mainFileM.string()));
  entry.add("CountryCode", "49");
  entry.add("NationalAccessCode", "0");
  entry.add("InternationalAccessCode", "00");
  entry.add("InternationalAccessCodeSign", "+");
  entry.add("SearchMethod", "0");
  plugInM = std::make_unique<PlugIn>(BAS::String(plugInNameCM), BAS::String("10008"));
  cacheManagerM = plugInM->cacheManager();
  if (cacheManagerM == nullptr || !plugInM->isUsable()) {
    std::cerr << "npbench: the plug-in could not be made (registry or data file)\n";
    return false;
  }
  if (optionsM.chunkLinesM != 0) cacheManagerM->setChunkLines(optionsM.chunkLinesM);
  return true;
}

void BenchRun::removeData() {
  if (removeWorkDirM) {
    std::error_code ignored;
    fs::remove_all(workDirM, ignored);
  } else if (!optionsM.keepDataM) {
    std::error_code ignored;
    for (const fs::path& file : {dataFileM, mainFileM, deltaFileM, eventFileM}) fs::remove(file, ignored);
  } else {
    outM << "data kept in " << workDirM.string() << "\n";
  }
}

}  // namespace Bench
