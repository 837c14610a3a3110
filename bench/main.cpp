// npbench: one run over one generated data set that measures the portability plug-in's
// parsing, loading, memory, lookups (with and without the cache lock, one and more threads),
// lookup latency while reloads run, reload, delta load and tree release, next to a trie built
// the plain way, and prints the figures as tables and, on request, as JSON.
#include "bench/DataLineParser.h"
#include "bench/DiscardingLogSink.h"
#include "bench/ContendedLatency.h"
#include "bench/HostRunBench.h"
#include "bench/LatencyHistogram.h"
#include "bench/LookupKeys.h"
#include "bench/ReferenceTrie.h"
#include "bench/TextTable.h"

#include "BAS/DateTime.h"
#include "BAS/Framework.h"
#include "BAS/ReadLocker.h"
#include "BAS/RegistryEntry.h"
#include "BAS/SimpleString.h"
#include "BAS/String.h"
#include "STR/FileIoTurbo.h"
#include "cache/CacheManager.h"
#include "plugin/NumberPortabilityPlugIn.h"
#include "store/NumberPortabilityData.h"
#include "store/NumberPortabilityList.h"
#include "store/NumberPortabilityTree.h"
#include "store/PtrTreeNode.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <spawn.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <latch>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

extern "C" char** environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;
using DAT::NumberPortability::CacheManager;
using DAT::NumberPortability::NumberPortabilityData;
using DAT::NumberPortability::NumberPortabilityList;
using DAT::NumberPortability::NumberPortabilityTree;
using DAT::NumberPortability::PlugIn;
using Bench::LookupKeys;

constexpr const char* plugInNameCM = "NumberPortability";
constexpr const char* methodNamesCM[] = {"BEST_MATCH", "EXACT_MATCH", "ANY_PREFIX_MATCH"};

struct Options {
  std::uint64_t recordsM = 1000000;
  std::uint64_t seedM = 1;
  unsigned threadsMaxM = 2;
  std::string jsonM;
  std::string workDirM;
  bool sparseM = false;
  bool keepDataM = false;
  std::string npgenM = NPBENCH_NPGEN;
  std::string nphostM = NPBENCH_NPHOST;
  std::uint64_t eventsM = 0;  // 0: as many as records, at most a million
  unsigned minTimeMsM = 200;
  unsigned reloadRoundsM = 3;
  unsigned repeatsM = 3;
};

// Keeps the compiler from dropping lookups whose answers nobody reads.
std::atomic<std::uint64_t> answerSink{0};

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t size = 0;
  std::size_t resident = 0;
  statm >> size >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

// Resident size after handing free heap pages back, so that growth compares live data only.
std::size_t trimmedResidentBytes() {
  ::malloc_trim(0);
  return residentBytes();
}

// The chunk that glibc's allocator takes for a request: the request plus its size word,
// rounded up to 16 bytes, at least 32.

std::string rateText(double perSecond) {
  if (perSecond >= 1e6) return fmt::format("{:.2f} M/s", perSecond / 1e6);
  if (perSecond >= 1e3) return fmt::format("{:.1f} k/s", perSecond / 1e3);
  return fmt::format("{:.0f} /s", perSecond);
}
std::string secondsText(double s) { return s < 1.0 ? fmt::format("{:.1f} ms", s * 1e3) : fmt::format("{:.3f} s", s); }
std::string bytesText(double b) { return fmt::format("{:.1f} B", b); }
std::string mibText(double b) { return fmt::format("{:.1f} MiB", b / (1024.0 * 1024.0)); }
std::string nsText(std::uint64_t ns) {
  return ns >= 10000 ? fmt::format("{:.1f} us", static_cast<double>(ns) / 1e3) : fmt::format("{} ns", ns);
}
std::string ratioText(double r) { return fmt::format("{:.3f}", r); }

std::string firstLineWith(const char* path, const std::string& key) {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(key, 0) == 0) {
      const auto colon = line.find(':');
      std::string value = colon == std::string::npos ? line : line.substr(colon + 1);
      value.erase(0, value.find_first_not_of(" \t"));
      return value;
    }
  }
  return "unknown";
}

// Time that the hypervisor ran something else while our virtual CPUs wanted to run, over all
// CPUs since boot ("steal" in /proc/stat); 0 where the system does not count it.
double stealSeconds() {
  std::ifstream in("/proc/stat");
  std::string cpu;
  unsigned long long fields[8] = {};
  in >> cpu;
  for (unsigned long long& field : fields) in >> field;
  return static_cast<double>(fields[7]) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

constexpr std::size_t batchCM = 64;

// Lookups per second of PlugIn::searchMany over `keys`, batchCM numbers a call, one thread; the
// best of `repeats` runs of at least `minTime`.
double batchedRateOf(DAT::NumberPortability::PlugIn& plugIn, const LookupKeys& keys, std::chrono::milliseconds minTime,
                     unsigned repeats) {
  std::vector<std::string_view> numbers;
  std::vector<BAS::DateTime> dateTimes;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    numbers.push_back(keys.number(i).view());
    dateTimes.push_back(keys.dateTime(i));
  }
  std::vector<NumberPortabilityData> results(batchCM);
  bool found[batchCM];
  double best = 0;
  std::size_t hits = 0;
  for (unsigned run = 0; run < repeats; ++run) {
    std::size_t done = 0;
    const auto start = Clock::now();
    do {
      for (std::size_t first = 0; first < numbers.size(); first += batchCM) {
        const std::size_t count = std::min(batchCM, numbers.size() - first);
        plugIn.searchMany(numbers.data() + first, dateTimes.data() + first, count, results.data(), found);
        hits += static_cast<std::size_t>(std::count(found, found + count, true));
        done += count;
      }
    } while (Clock::now() - start < minTime);
    best = std::max(best, static_cast<double>(done) / seconds(Clock::now() - start));
  }
  if (hits == 0 && !numbers.empty()) std::cerr << "npbench: the batched search found nothing\n";
  return best;
}

std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

std::string compilerText() {
#if defined(__clang__)
  return std::string("clang ") + __clang_version__;
#elif defined(__GNUC__)
  return std::string("g++ ") + __VERSION__;
#else
  return "unknown";
#endif
}

// Runs a program with arguments, without a shell; its exit status, or -1.
int runProgram(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Reads a file once so that every stage that follows finds it in the page cache alike.
void warmPageCache(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::vector<char> buffer(1 << 20);
  while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0) {
  }
}

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

// A fingerprint of an answer, to compare the store's answers with the reference trie's.
std::uint64_t fingerprint(bool found, const BAS::DateTime& validFrom, std::string_view networkOperator) {
  if (!found) return 0;
  return std::hash<std::string_view>{}(networkOperator) * 1000003u ^ validFrom.secs();
}

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
// Seconds that the calling thread spent ready to run but waiting for a CPU of its own
// system, from /proc/thread-self/schedstat; 0 where the system does not keep it.
// Restricts the calling thread to the CPUs in `cpus`; false where the system refuses.
bool pinTo(const cpu_set_t& cpus) { return pthread_setaffinity_np(pthread_self(), sizeof cpus, &cpus) == 0; }

cpu_set_t onlyCpu(int cpu) {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  CPU_SET(cpu, &cpus);
  return cpus;
}

double runDelaySeconds() {
  std::ifstream in("/proc/thread-self/schedstat");
  unsigned long long running = 0, waiting = 0;
  in >> running >> waiting;
  return static_cast<double>(waiting) * 1e-9;
}

// `runDelay` gets the time the sampling thread waited for a CPU, idle [0] and reloading [1].
template <class Lookup>
void sampleLatency(const LookupKeys& keys, const Lookup& lookup, const std::atomic<ReloadPhase>& phase,
                   Bench::LatencyHistogram& idle, Bench::LatencyHistogram& reloading, double (&runDelay)[2]) {
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

Json latencyJson(const Bench::LatencyHistogram& h) {
  return Json{{"samples", h.count()},          {"p50_ns", h.percentile(0.5)},   {"p99_ns", h.percentile(0.99)},
              {"p99_9_ns", h.percentile(0.999)}, {"max_ns", h.max()}, {"above_1ms", h.countAbove(1000000)}};
}

struct Target {
  std::string nameM;
  std::optional<double> valueM;
  bool atLeastM;  // true: value >= limit passes; false: value <= limit passes
  double limitM;
  std::string unitM;
};

// The measured plug-in and everything it needs, made once per run.
struct PlugInSetup {
  std::shared_ptr<Bench::DiscardingLogSink> sinkM = std::make_shared<Bench::DiscardingLogSink>();
  BAS::Framework frameworkM;
  std::unique_ptr<PlugIn> plugInM;
};

int runBench(const Options& options) {
  const auto benchStart = Clock::now();
  Json report;
  std::ostream& out = std::cout;

  // ---- machine and data -------------------------------------------------------------------
  struct utsname system {};
  ::uname(&system);
  const std::string cpuModel = firstLineWith("/proc/cpuinfo", "model name");
  const std::string memTotal = firstLineWith("/proc/meminfo", "MemTotal");
  const unsigned cores = std::thread::hardware_concurrency();
  const std::string loadAtStart = loadAverage();
  out << "npbench: " << options.recordsM << " records" << (options.sparseM ? " (sparse)" : "") << ", seed "
      << options.seedM << "\n"
      << "machine: " << cores << " cores, " << cpuModel << ", " << memTotal << ", " << system.sysname << ' '
      << system.release << ", load average " << loadAtStart << "\n"
      << "compiler: " << compilerText() << "\n";
  report["machine"] = Json{{"cores", cores},          {"cpu", cpuModel},
                           {"memory", memTotal},      {"kernel", std::string(system.release)},
                           {"compiler", compilerText()}, {"load_average_start", loadAtStart}};

  fs::path workDir;
  bool removeWorkDir = false;
  if (options.workDirM.empty()) {
    std::string pattern = (fs::temp_directory_path() / "npbench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temporary folder");
    workDir = pattern;
    removeWorkDir = !options.keepDataM;
  } else {
    workDir = options.workDirM;
    fs::create_directories(workDir);
  }
  const fs::path dataFile = workDir / "np.txt";
  const fs::path mainFile = workDir / "np-main.txt";  // the plug-in's file; the delta load rewrites it
  const fs::path deltaFile = workDir / "delta.txt";
  const fs::path eventFile = workDir / "events.txt";
  const std::uint64_t eventCount =
      options.eventsM != 0 ? options.eventsM : std::min<std::uint64_t>(options.recordsM, 1000000);

  std::vector<std::string> generate = {options.npgenM,        "--records",    std::to_string(options.recordsM),
                                       "--seed",             std::to_string(options.seedM),
                                       "--data",             dataFile.string(),
                                       "--delta",            deltaFile.string(),
                                       "--delta-share",      "0.01",
                                       "--events",           eventFile.string(),
                                       "--event-count",      std::to_string(eventCount)};
  if (options.sparseM) generate.emplace_back("--sparse");
  out << "generating data in " << workDir.string() << " ..." << std::endl;
  const auto generateStart = Clock::now();
  if (runProgram(generate) != 0) {
    std::cerr << "npbench: npgen failed (" << options.npgenM << ")\n";
    return 2;
  }
  const double generateSeconds = seconds(Clock::now() - generateStart);
  fs::copy_file(dataFile, mainFile, fs::copy_options::overwrite_existing);
  for (const fs::path& file : {dataFile, mainFile, deltaFile, eventFile}) warmPageCache(file);
  report["options"] = Json{{"records", options.recordsM}, {"seed", options.seedM},          {"sparse", options.sparseM},
                           {"events", eventCount},       {"threads_max", options.threadsMaxM},
                           {"min_time_ms", options.minTimeMsM}, {"repeats", options.repeatsM},
                           {"reload_rounds", options.reloadRoundsM},
                           {"generate_s", generateSeconds}};

  // ---- sizes ------------------------------------------------------------------------------
  using StoreNode = PBC::PtrTreeNode<NumberPortabilityList>;
  using RefNode = Bench::ReferenceTrie::Node;
  const std::size_t slotArray = 10 * sizeof(StoreNode*);
  const std::size_t refChildArray = Bench::ReferenceTrie::radixCM * sizeof(RefNode*);
  {
    Bench::TextTable sizes("Sizes (bytes, from sizeof)", {"object", "store", "reference trie"});
    sizes.addRow({"trie node", std::to_string(sizeof(StoreNode)), std::to_string(sizeof(RefNode))});
    sizes.addRow({"child slots of a node", fmt::format("{} (inner nodes only)", slotArray),
                  fmt::format("{} (every node)", refChildArray)});
    sizes.addRow({"history of a number", std::to_string(sizeof(NumberPortabilityList)),
                  std::to_string(sizeof(Bench::ReferenceTrie::History))});
    sizes.addRow({"record", std::to_string(sizeof(NumberPortabilityData)),
                  std::to_string(sizeof(Bench::ReferenceTrie::Record))});
    sizes.print(out);
    report["sizes"] = Json{{"store_node", sizeof(StoreNode)},
                           {"store_slot_array", slotArray},
                           {"store_history", sizeof(NumberPortabilityList)},
                           {"store_record", sizeof(NumberPortabilityData)},
                           {"reference_node", sizeof(RefNode)},
                           {"reference_child_array", refChildArray},
                           {"reference_history", sizeof(Bench::ReferenceTrie::History)},
                           {"reference_record", sizeof(Bench::ReferenceTrie::Record)}};
  }

  // ---- the plug-in, configured but not yet loaded -----------------------------------------
  PlugInSetup setup;
  setup.frameworkM.log().addSink(setup.sinkM);
  setup.frameworkM.setProbeDirectory(BAS::String(NPBENCH_PROBE_DIRECTORY));
  BAS::RegistryEntry& entry = setup.frameworkM.registry().child(BAS::String(plugInNameCM));
  entry.add("FileName", BAS::String(mainFile.string()));
  entry.add("CountryCode", "49");
  entry.add("NationalAccessCode", "0");
  entry.add("InternationalAccessCode", "00");
  entry.add("InternationalAccessCodeSign", "+");
  entry.add("SearchMethod", "0");
  setup.plugInM = std::make_unique<PlugIn>(BAS::String(plugInNameCM), BAS::String("10008"));
  PlugIn& plugIn = *setup.plugInM;
  CacheManager* const cacheManager = plugIn.cacheManager();
  if (cacheManager == nullptr || !plugIn.isUsable()) {
    std::cerr << "npbench: the plug-in could not be made (registry or data file)\n";
    return 2;
  }

  const LookupKeys mixed = readEvents(eventFile);
  const BAS::String dataFileName(dataFile.string());

  // ---- 1. parsing alone -------------------------------------------------------------------
  Bench::DataLineParser parser(*cacheManager);
  std::uint64_t parsedRecords = 0;
  std::uint64_t parseCheck = 0;
  const auto parseStart = Clock::now();
  const bool parsed = parser.parseFile(dataFileName, [&](const BAS::String& number, const BAS::DateTime& validFrom,
                                                         std::string_view networkOperator) {
    // The record exactly as the loader builds it before inserting.
    const NumberPortabilityData record(validFrom, BAS::SimpleString(networkOperator));
    parseCheck += record.validFromM.secs() + number.length() + record.networkOperatorM.length();
    ++parsedRecords;
  });
  const double parseSeconds = seconds(Clock::now() - parseStart);
  answerSink.fetch_add(parseCheck, std::memory_order_relaxed);
  if (!parsed) {
    std::cerr << "npbench: cannot read " << dataFile << "\n";
    return 2;
  }
  const std::size_t dataLines = parser.lines();
  const double parseRate = static_cast<double>(dataLines) / parseSeconds;
  report["parse"] = Json{{"lines", dataLines}, {"records", parsedRecords}, {"rejected", parser.rejected()},
                         {"seconds", parseSeconds}, {"lines_per_s", parseRate}};

  // ---- 3. the reference trie (built first, into a heap nothing else has used yet) --------
  const std::size_t refRssBefore = trimmedResidentBytes();
  auto reference = std::make_unique<Bench::ReferenceTrie>();
  const auto refStart = Clock::now();
  parser.parseFile(dataFileName, [&](const BAS::String& number, const BAS::DateTime& validFrom,
                                     std::string_view networkOperator) {
    reference->insert(number.view(), validFrom, networkOperator);
  });
  const double refSeconds = seconds(Clock::now() - refStart);
  const std::size_t refRssAfter = trimmedResidentBytes();
  const Bench::ReferenceTrie::Shape shape = reference->shape();
  const double refGrowth = static_cast<double>(refRssAfter) - static_cast<double>(refRssBefore);
  const double refPerRecord = refGrowth / static_cast<double>(std::max<std::size_t>(1, shape.recordsM));
  const double refRate = static_cast<double>(dataLines) / refSeconds;

  // Classify the events by the answer they get, and keep every answer for the cross-check.
  LookupKeys hits("hits");
  LookupKeys prefixHits("prefix hits");
  LookupKeys misses("misses");
  std::vector<std::array<std::uint64_t, 3>> expected(mixed.size());
  for (std::size_t i = 0; i < mixed.size(); ++i) {
    for (unsigned method = 0; method < 3; ++method) {
      const auto* record = reference->search(mixed.number(i).view(), mixed.dateTime(i), method);
      expected[i][method] = record == nullptr ? 0 : fingerprint(true, record->validFromM, record->networkOperatorM);
    }
    if (expected[i][1] != 0) {
      hits.add(mixed.number(i), mixed.dateTime(i));
    } else if (expected[i][0] != 0) {
      prefixHits.add(mixed.number(i), mixed.dateTime(i));
    } else {
      misses.add(mixed.number(i), mixed.dateTime(i));
    }
  }
  const std::chrono::milliseconds minTime(options.minTimeMsM);
  const Bench::ReferenceTrie& referenceTrie = *reference;
  const double refLookupRate = bestRates(mixed, 1, minTime, options.repeatsM,
                                         [&referenceTrie](const BAS::String& n, const BAS::DateTime& t,
                                                          NumberPortabilityData&) {
                                           return referenceTrie.search(n.view(), t,
                                                                       Bench::ReferenceTrie::bestMatchCM) != nullptr;
                                         })[0];
  const auto refDestroyStart = Clock::now();
  reference.reset();
  const double refDestroySeconds = seconds(Clock::now() - refDestroyStart);
  const std::size_t refRssReleased = trimmedResidentBytes();

  // ---- 2. init of the plug-in -------------------------------------------------------------
  out << "loading the plug-in ..." << std::endl;
  const std::size_t initRssBefore = trimmedResidentBytes();
  const auto initStart = Clock::now();
  const bool loaded = plugIn.init();
  const double initSeconds = seconds(Clock::now() - initStart);
  const std::size_t initRssAfter = trimmedResidentBytes();
  if (!loaded) {
    std::cerr << "npbench: init did not load the data file\n";
    return 2;
  }
  std::size_t treeNodes = 0;
  std::uint32_t treeRecords = 0;
  NumberPortabilityTree* activeTree = nullptr;
  {
    BAS::ReadLocker locker(cacheManager->cacheLockM);
    activeTree = cacheManager->activeTreeM;
    treeNodes = activeTree->nodeCount();
    treeRecords = activeTree->recordCount();
  }
  const double initGrowth = static_cast<double>(initRssAfter) - static_cast<double>(initRssBefore);
  const double initPerRecord = initGrowth / static_cast<double>(std::max<std::uint32_t>(1, treeRecords));
  const double initPerNode = initGrowth / static_cast<double>(std::max<std::size_t>(1, 2 * treeNodes));
  const double initRate = static_cast<double>(dataLines) / initSeconds;

  // Memory the store's shape asks for (one tree): the bytes of its objects, which its arenas
  // hand out back to back, without a per-block size word or rounding.
  double storeObjectBytes = static_cast<double>(shape.nodesM * sizeof(StoreNode) + shape.innerNodesM * slotArray +
                                                shape.numbersM * sizeof(NumberPortabilityList) +
                                                shape.recordsM * sizeof(NumberPortabilityData));
  const double records = static_cast<double>(std::max<std::size_t>(1, shape.recordsM));

  {
    Bench::TextTable table("Loading (" + std::to_string(dataLines) + " lines, " + std::to_string(treeRecords) +
                               " records, " + std::to_string(shape.numbersM) + " numbers, " +
                               std::to_string(treeNodes) + " trie nodes per tree)",
                           {"stage", "time", "lines/s", "RSS growth", "per record", "per node", "note"});
    table.addRow({"1 parse only (read, split, trim, date, normalise)", secondsText(parseSeconds), rateText(parseRate),
                  "", "", "", "no tree"});
    table.addRow({"2 plug-in init (both trees)", secondsText(initSeconds), rateText(initRate), mibText(initGrowth),
                  bytesText(initPerRecord), bytesText(initPerNode), "per node: over both trees' nodes"});
    table.addRow({"3 reference trie, one tree", secondsText(refSeconds), rateText(refRate), mibText(refGrowth),
                  bytesText(refPerRecord), bytesText(refGrowth / static_cast<double>(std::max<std::size_t>(1, shape.nodesM))),
                  "same parsing"});
    table.addRow({"3 reference trie, two trees (x2)", "", "", mibText(2 * refGrowth), bytesText(2 * refPerRecord), "",
                  "projection"});
    table.addRow({"  store model, two trees: object bytes", "", "", mibText(2 * storeObjectBytes),
                  bytesText(2 * storeObjectBytes / records), "", "from sizeof and the trie's shape"});
    table.print(out);
    out << "  (reference trie: destroyed in " << secondsText(refDestroySeconds) << ", RSS back to "
        << mibText(static_cast<double>(refRssReleased)) << " from " << mibText(static_cast<double>(refRssAfter))
        << "; store trie nodes " << treeNodes << " vs reference " << shape.nodesM << ", inner " << shape.innerNodesM
        << ")\n";
  }
  report["init"] = Json{{"seconds", initSeconds},
                        {"lines_per_s", initRate},
                        {"records_per_tree", treeRecords},
                        {"nodes_per_tree", treeNodes},
                        {"rss_before", initRssBefore},
                        {"rss_after", initRssAfter},
                        {"rss_growth", initGrowth},
                        {"bytes_per_record_both_trees", initPerRecord},
                        {"bytes_per_node", initPerNode},
                        {"model_object_bytes_per_record_both_trees", 2 * storeObjectBytes / records}};
  report["reference"] = Json{{"seconds", refSeconds},
                             {"lines_per_s", refRate},
                             {"records", shape.recordsM},
                             {"numbers", shape.numbersM},
                             {"nodes", shape.nodesM},
                             {"inner_nodes", shape.innerNodesM},
                             {"rss_growth", refGrowth},
                             {"bytes_per_record_one_tree", refPerRecord},
                             {"bytes_per_record_two_trees", 2 * refPerRecord},
                             {"lookups_per_s_best_match_mixed_1_thread", refLookupRate},
                             {"destroy_s", refDestroySeconds}};

  // The store must give the reference trie's answers, or the figures compare different work.
  std::size_t disagreements = 0;
  for (std::size_t i = 0; i < mixed.size(); ++i) {
    for (unsigned method = 0; method < 3; ++method) {
      NumberPortabilityData result;
      const bool found = activeTree->search(mixed.number(i), mixed.dateTime(i), result, method);
      if (fingerprint(found, result.validFromM, result.networkOperatorM.view()) != expected[i][method]) ++disagreements;
    }
  }
  report["cross_check_disagreements"] = disagreements;
  if (disagreements != 0) {
    std::cerr << "npbench: the store and the reference trie disagree on " << disagreements << " answers\n";
  } else {
    out << "  (store and reference trie give the same answer to all " << mixed.size() << " events, each search method)\n";
  }

  // ---- 4. lookups -------------------------------------------------------------------------
  out << "measuring lookups ..." << std::endl;
  const LookupKeys* const workloads[] = {&hits, &prefixHits, &misses, &mixed};
  std::vector<std::string> header = {"method / workload (keys)"};
  for (const char* path : {"locked", "bare"}) {
    for (unsigned t = 1; t <= options.threadsMaxM; ++t) header.push_back(fmt::format("{} {}T", path, t));
  }
  header.emplace_back("locked/bare 1T");
  if (options.threadsMaxM >= 2) header.emplace_back("2T/1T locked");
  Bench::TextTable lookupTable("4 Lookups per second (locked: the plug-in's read-locked search; bare: the tree "
                               "without lock)",
                               header);
  Json lookupJson = Json::array();
  double lockedBest1 = 0, bareBest1 = 0, lockedBest2 = 0;
  std::vector<double> bareMixed;  // BEST_MATCH, mixed keys, by thread count
  const NumberPortabilityTree& bareTree = *activeTree;
  for (unsigned method = 0; method < 3; ++method) {
    for (const LookupKeys* keys : workloads) {
      std::vector<std::string> row = {fmt::format("{} {} / {} ({})", method, methodNamesCM[method], keys->name(), keys->size())};
      std::vector<double> locked(options.threadsMaxM + 1, 0.0);
      std::vector<double> bare(options.threadsMaxM + 1, 0.0);
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
      for (unsigned t = 1; t <= options.threadsMaxM; ++t) {
        const auto rates = method == 0 ? bestRates(*keys, t, minTime, options.repeatsM, viaPlugIn, viaTree)
                                       : bestRates(*keys, t, minTime, options.repeatsM, viaCache, viaTree);
        locked[t] = rates[0];
        bare[t] = rates[1];
      }
      for (unsigned t = 1; t <= options.threadsMaxM; ++t) row.push_back(rateText(locked[t]));
      for (unsigned t = 1; t <= options.threadsMaxM; ++t) row.push_back(rateText(bare[t]));
      row.push_back(ratioText(bare[1] > 0 ? locked[1] / bare[1] : 0.0));
      if (options.threadsMaxM >= 2) row.push_back(ratioText(locked[1] > 0 ? locked[2] / locked[1] : 0.0));
      lookupTable.addRow(row);
      for (unsigned t = 1; t <= options.threadsMaxM; ++t) {
        lookupJson.push_back(Json{{"method", method}, {"workload", keys->name()}, {"keys", keys->size()},
                                  {"threads", t}, {"locked_per_s", locked[t]}, {"bare_per_s", bare[t]}});
      }
      if (method == 0 && keys == &mixed) {
        lockedBest1 = locked[1];
        bareBest1 = bare[1];
        bareMixed = bare;
        if (options.threadsMaxM >= 2) lockedBest2 = locked[2];
      }
    }
  }
  lookupTable.print(out);
  out << "  (reference trie, BEST_MATCH, mixed, 1 thread, no lock: " << rateText(refLookupRate) << ")\n";
  report["lookups"] = lookupJson;
  const double batchedRate = batchedRateOf(plugIn, mixed, minTime, options.repeatsM);
  out << "  (PlugIn::searchMany, BEST_MATCH, mixed, 1 thread, " << batchCM << " numbers a call as nphost looks them up: "
      << rateText(batchedRate) << ")\n";
  report["lookups_batched_per_s"] = batchedRate;

  // ---- 6a. reload, idle -------------------------------------------------------------------
  out << "measuring reload and latency ..." << std::endl;
  const auto reloadStart = Clock::now();
  const bool reloaded = cacheManager->cacheReload(true);
  const double reloadSeconds = seconds(Clock::now() - reloadStart);
  if (!reloaded) std::cerr << "npbench: cacheReload failed\n";

  // ---- 5. latency, idle and during reloads -------------------------------------------------
  auto plugInLookup = [&plugIn](const BAS::String& n, const BAS::DateTime& d, NumberPortabilityData& r) {
    return plugIn.search(n, d, r);
  };
  Bench::LatencyHistogram clockCost;
  for (int i = 0; i < 100000; ++i) {
    const auto t0 = Clock::now();
    const auto t1 = Clock::now();
    clockCost.record(static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count()));
  }
  // Idle windows and reloads take turns, so that both kinds of sample see the same trees and
  // the same neighbours on the machine: idle, reload, idle, reload, ..., idle.
  Bench::LatencyHistogram idle;
  Bench::LatencyHistogram duringReload;
  std::atomic<ReloadPhase> phase{ReloadPhase::IDLE};
  std::vector<double> reloadTimes;
  bool reloadsOk = true;
  const auto idleWindow = std::max(std::chrono::milliseconds(100), minTime * 5);
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
    std::this_thread::sleep_for(idleWindow);
    for (unsigned round = 0; round < options.reloadRoundsM; ++round) {
      account(stealIdle);
      phase.store(ReloadPhase::RELOADING);
      const auto start = Clock::now();
      reloadsOk = cacheManager->cacheReload(true) && reloadsOk;
      reloadTimes.push_back(seconds(Clock::now() - start));
      phase.store(ReloadPhase::IDLE);
      account(stealReloading);
      std::this_thread::sleep_for(idleWindow);
    }
    account(stealIdle);
    phase.store(ReloadPhase::DONE);
  });
  double runDelay[2] = {0, 0};
  sampleLatency(mixed, plugInLookup, phase, idle, duringReload, runDelay);
  reloader.join();
  if (pinned) pinTo(allowed);
  if (!reloadsOk) std::cerr << "npbench: a cacheReload during the latency run failed\n";
  {
    Bench::TextTable table(fmt::format("5 Lookup latency, one thread, BEST_MATCH via PlugIn::search, mixed keys "
                                       "(clock pair costs {} at p50)",
                                       nsText(clockCost.percentile(0.5))),
                           {"while", "samples", "p50", "p99", "p99.9", "max", "> 1 ms"});
    const std::array<std::pair<const char*, const Bench::LatencyHistogram*>, 2> rows = {
        {{"no reload running", &idle}, {"cacheReload(true) running", &duringReload}}};
    for (const auto& [name, h] : rows) {
      table.addRow({name, std::to_string(h->count()), nsText(h->percentile(0.5)), nsText(h->percentile(0.99)),
                    nsText(h->percentile(0.999)), nsText(h->max()), std::to_string(h->countAbove(1000000))});
    }
    table.print(out);
    std::string times;
    for (const double t : reloadTimes) times += (times.empty() ? "" : ", ") + secondsText(t);
    out << "  (" << reloadTimes.size() << " reloads, taking turns with idle windows of "
        << secondsText(seconds(idleWindow)) << ": " << times << ")\n";
    out << "  (" << (pinned ? "lookup and reload thread pinned to CPUs 0 and 1; " : "threads not pinned; ")
        << "the lookup thread waited for a CPU " << secondsText(runDelay[0]) << " in the idle windows and "
        << secondsText(runDelay[1]) << " while reloading; steal time of both CPUs: " << secondsText(stealIdle)
        << " and " << secondsText(stealReloading) << ")\n";
  }
  report["latency"] = Json{{"clock_pair_p50_ns", clockCost.percentile(0.5)},
                           {"idle", latencyJson(idle)},
                           {"during_reload", latencyJson(duringReload)},
                           {"reload_seconds", reloadTimes},
                           {"threads_pinned", pinned},
                           {"run_delay_seconds_idle", runDelay[0]},
                           {"run_delay_seconds_reloading", runDelay[1]},
                           {"steal_seconds_idle", stealIdle},
                           {"steal_seconds_reloading", stealReloading}};

  // ---- 5b. latency with twice as many lookup threads as processors, reloads running --------
  const unsigned crowd = 2 * std::max(1u, std::thread::hardware_concurrency());
  const Bench::ContendedLatency contended(
      [&plugIn, &mixed](std::size_t i) {
        thread_local NumberPortabilityData result;
        return plugIn.search(mixed.number(i), mixed.dateTime(i), result);
      },
      mixed.size(), [&cacheManager] { return cacheManager->cacheReload(true); }, cacheManager->cacheLockM);
  const Bench::ContendedLatency::Result crowded = contended.run(crowd, options.reloadRoundsM, idleWindow);
  if (!crowded.reloadsOkM) std::cerr << "npbench: a cacheReload during the crowded latency run failed\n";
  {
    Bench::TextTable table(fmt::format("5b {} lookup threads on {} CPUs, PlugIn::search, while {} reloads run; a writer "
                                       "takes the lock every millisecond",
                                       crowd, std::thread::hardware_concurrency(), crowded.reloadSecondsM.size()),
                           {"", "samples", "p50", "p99", "p99.9", "max", "> 1 ms"});
    const std::array<std::pair<const char*, const Bench::LatencyHistogram*>, 2> rows = {
        {{"lookup", &crowded.lookupsM}, {"writer's wait for the lock", &crowded.writerWaitsM}}};
    for (const auto& [name, h] : rows) {
      table.addRow({name, std::to_string(h->count()), nsText(h->percentile(0.5)), nsText(h->percentile(0.99)),
                    nsText(h->percentile(0.999)), nsText(h->max()), std::to_string(h->countAbove(1000000))});
    }
    table.print(out);
  }
  report["latency_crowded"] = Json{{"lookup_threads", crowd},
                                   {"lookups", latencyJson(crowded.lookupsM)},
                                   {"writer_waits", latencyJson(crowded.writerWaitsM)},
                                   {"reload_seconds", crowded.reloadSecondsM}};

  // The same lookups on the tree that the reloads built in memory an earlier tree released,
  // next to the figure on the tree that init built in fresh memory.
  const double lockedBestAfterReload = bestRates(mixed, 1, minTime, options.repeatsM, plugInLookup)[0];
  out << "  (BEST_MATCH, mixed, 1 thread, locked: " << rateText(lockedBestAfterReload) << " on the tree of the last "
      << "reload, " << rateText(lockedBest1) << " on the tree of init)\n";
  report["latency"]["lookups_per_s_after_reloads"] = lockedBestAfterReload;

  // ---- 6b. delta load, on the plug-in's copy of the data file -------------------------------
  const auto deltaStart = Clock::now();
  const bool deltaLoaded = cacheManager->cacheDeltaLoad(BAS::String(deltaFile.string()));
  const double deltaSeconds = seconds(Clock::now() - deltaStart);
  if (!deltaLoaded) std::cerr << "npbench: cacheDeltaLoad failed\n";
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
    reader.openFile(dataFileName, 8);
    BAS::String line;
    unsigned long lineNumber = 1;
    const auto start = Clock::now();
    while (reader.isOpen()) {
      line.clear();
      if (!reader.readLine(line) || std::feof(reader.stream())) break;
      cacheManager->insertCache(separate.get(), line, lineNumber++, true, reader);
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
  const double buildSeconds = buildSeparate();
  const std::uint32_t separateRecords = separate->recordCount();
  const double clearSeconds = clearSeparate();
  const double rebuildSeconds = buildSeparate();
  const double reclearSeconds = clearSeparate();
  separate.reset();

  // The plug-in's end: worker stopped, both trees released.
  const auto endStart = Clock::now();
  plugIn.shutdown();
  setup.plugInM.reset();
  const double endSeconds = seconds(Clock::now() - endStart);

  {
    Bench::TextTable table("6/7 Cache operations (wall time)", {"operation", "time", "vs init", "note"});
    table.addRow({"init (both trees)", secondsText(initSeconds), "1.000", ""});
    table.addRow({"cacheReload(true), idle", secondsText(reloadSeconds), ratioText(reloadSeconds / initSeconds), ""});
    table.addRow({"cacheDeltaLoad (delta 1%, rewrites the file)", secondsText(deltaSeconds),
                  ratioText(deltaSeconds / initSeconds),
                  fmt::format("records {} -> {}", treeRecords, recordsAfterDelta)});
    table.addRow({"build of one tree (insertCache per line)", secondsText(buildSeconds),
                  ratioText(buildSeconds / initSeconds), fmt::format("{} records", separateRecords)});
    table.addRow({"clearAndDestroy of that tree", secondsText(clearSeconds), ratioText(clearSeconds / initSeconds),
                  fmt::format("{} of the build", ratioText(clearSeconds / buildSeconds))});
    table.addRow({"build again, into the memory just released", secondsText(rebuildSeconds),
                  ratioText(rebuildSeconds / initSeconds),
                  fmt::format("{} of the first build", ratioText(rebuildSeconds / buildSeconds))});
    table.addRow({"clearAndDestroy of the rebuilt tree", secondsText(reclearSeconds),
                  ratioText(reclearSeconds / initSeconds),
                  fmt::format("{} of the rebuild", ratioText(reclearSeconds / rebuildSeconds))});
    table.addRow({"shutdown and destruction of the plug-in", secondsText(endSeconds), ratioText(endSeconds / initSeconds),
                  "both trees"});
    table.print(out);
  }
  report["operations"] = Json{{"init_s", initSeconds},           {"reload_s", reloadSeconds},
                              {"delta_load_s", deltaSeconds},    {"records_after_delta", recordsAfterDelta},
                              {"build_one_tree_s", buildSeconds}, {"clear_and_destroy_s", clearSeconds},
                              {"rebuild_one_tree_s", rebuildSeconds}, {"clear_rebuilt_s", reclearSeconds},
                              {"plugin_end_s", endSeconds}};

  // ---- 8. the host end to end ------------------------------------------------------------------
  Bench::TextTable hostTable("8 nphost run end to end (event file, output discarded; rate from nphost's summary)",
                             {"threads", "events per second", "bare search, same threads", "ratio"});
  Json hostJson = Json::array();
  std::vector<std::optional<double>> hostRatios(options.threadsMaxM + 1);
  const Bench::HostRunBench hostBench(options.nphostM, mainFile, eventFile, workDir);
  for (unsigned t = 1; t <= options.threadsMaxM; ++t) {
    const Bench::HostRunBench::Result hostRun = hostBench.run(t);
    const double bare = t < bareMixed.size() ? bareMixed[t] : 0.0;
    if (hostRun.eventsPerSecondM && bare > 0) hostRatios[t] = *hostRun.eventsPerSecondM / bare;
    hostTable.addRow({std::to_string(t), hostRun.eventsPerSecondM ? rateText(*hostRun.eventsPerSecondM) : hostRun.statusM,
                      rateText(bare), hostRatios[t] ? ratioText(*hostRatios[t]) : "-"});
    hostJson.push_back(Json{{"threads", t},
                            {"events_per_s", hostRun.eventsPerSecondM ? Json(*hostRun.eventsPerSecondM) : Json()},
                            {"bare_per_s", bare},
                            {"summary", hostRun.statusM}});
  }
  hostTable.print(out);
  report["host_run"] = hostJson;

  // ---- targets ------------------------------------------------------------------------------------
  const double idle999 = static_cast<double>(idle.percentile(0.999));
  std::vector<Target> targets = {
      {"init rate / parse rate", initRate / parseRate, true, 0.1, ""},
      {"memory per record, both trees / reference two trees", initPerRecord / (2 * refPerRecord), false, 0.6, ""},
      {"locked / bare search, 1 thread (BEST_MATCH, mixed)", bareBest1 > 0 ? lockedBest1 / bareBest1 : 0.0, true, 0.9, ""},
      {"locked search 2 threads / 1 thread (BEST_MATCH, mixed)",
       options.threadsMaxM >= 2 ? std::optional<double>(lockedBest2 / lockedBest1) : std::nullopt, true, 1.8, ""},
      {"latency p99.9 during reload / idle p99.9", static_cast<double>(duringReload.percentile(0.999)) / idle999,
       false, 2.0, ""},
      {"latency max during reload (ms)", static_cast<double>(duringReload.max()) / 1e6, false, 1.0, " ms"},
      {"reload time / init time", reloadSeconds / initSeconds, false, 2.5, ""},
      {"delta load time / init time", deltaSeconds / initSeconds, false, 0.5, ""},
      {"clearAndDestroy / build of one tree", clearSeconds / buildSeconds, false, 0.1, ""},
  };
  for (unsigned t = 1; t <= options.threadsMaxM; ++t) {
    targets.push_back({fmt::format("nphost run / bare search, {} thread{}", t, t == 1 ? "" : "s"), hostRatios[t], true,
                       0.7, ""});
  }
  Bench::TextTable targetTable("Targets", {"ratio", "measured", "target", "result"});
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
  targetTable.print(out);
  const std::string loadAtEnd = loadAverage();
  const double totalSeconds = seconds(Clock::now() - benchStart);
  out << "\n" << missed << " of " << targets.size() << " targets missed; log entries discarded "
      << setup.sinkM->count() << "; load average at end " << loadAtEnd << "; total " << secondsText(totalSeconds)
      << "\n";
  report["targets"] = targetJson;
  report["machine"]["load_average_end"] = loadAtEnd;
  report["log_entries"] = setup.sinkM->count();
  report["total_s"] = totalSeconds;

  if (!options.jsonM.empty()) {
    std::ofstream json(options.jsonM, std::ios::trunc);
    json << report.dump(2) << '\n';
    if (!json) {
      std::cerr << "npbench: cannot write " << options.jsonM << "\n";
      return 2;
    }
    out << "JSON written to " << options.jsonM << "\n";
  }

  if (removeWorkDir) {
    std::error_code ignored;
    fs::remove_all(workDir, ignored);
  } else if (!options.keepDataM) {
    std::error_code ignored;
    for (const fs::path& file : {dataFile, mainFile, deltaFile, eventFile}) fs::remove(file, ignored);
  } else {
    out << "data kept in " << workDir.string() << "\n";
  }
  const bool faultless = disagreements == 0 && reloaded && reloadsOk && deltaLoaded;
  return faultless ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{"npbench: speed and memory of the number-portability plug-in on generated data"};
  app.add_option("--records", options.recordsM, "Lines of the generated data file")->check(CLI::Range(1ULL, 1ULL << 34));
  app.add_option("--seed", options.seedM, "Seed of the generator");
  app.add_option("--threads-max", options.threadsMaxM, "Lookups are measured with 1 up to this many threads")
      ->check(CLI::Range(1U, 64U));
  app.add_option("--json", options.jsonM, "Also write the figures as JSON to this file");
  app.add_option("--work-dir", options.workDirM, "Folder for the generated files (default: a new temporary folder)");
  app.add_flag("--sparse", options.sparseM, "Uniform numbers instead of number blocks");
  app.add_flag("--keep-data", options.keepDataM, "Leave the generated files in place");
  app.add_option("--npgen", options.npgenM, "The data generator to run");
  app.add_option("--nphost", options.nphostM, "The host program to run end to end");
  app.add_option("--events", options.eventsM, "Lookup events to generate (default: records, at most 1000000)");
  app.add_option("--min-time-ms", options.minTimeMsM, "Least time of one lookup-rate measurement")
      ->check(CLI::Range(1U, 60000U));
  app.add_option("--reload-rounds", options.reloadRoundsM, "Reloads run during the latency measurement")
      ->check(CLI::Range(1U, 100U));
  app.add_option("--repeats", options.repeatsM, "Runs of each lookup-rate measurement; the best counts")
      ->check(CLI::Range(1U, 100U));
  CLI11_PARSE(app, argc, argv);
  try {
    return runBench(options);
  } catch (const std::exception& error) {
    std::cerr << "npbench: " << error.what() << "\n";
    return 2;
  }
}
