// The cache manager over a small recording owner: what load, reload and delta load report and
// leave in both trees and in the main data file, and lookups on more threads than cores while
// reloads exchange the trees. Where else a dump may go is STR::FileIo's and the plug-in's.
#include "cache/CacheManager.h"
#include "store/OperatorTable.h"
#include "testing/RecordingCacheOwner.h"
#include "testing/EndsWithoutHanging.h"
#include "testing/TempDirectory.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <new>
#include <random>
#include <sstream>
#include <thread>

namespace {

using NpTest::endsWithoutHanging;

using NpTest::Report;
using Reports = std::vector<Report>;

const char* const initialData = "+4930123456 20200115120000 OPA\n030123456 20230301000000 OPB\n0044-1234-567 20210101000000 OPC\n";
// initialData as printed: stored keys (digits only) in key order, newest first.
const std::string initialDump =
    "00441234567  20210101000000  OPC\n004930123456  20230301000000  OPB\n004930123456  20200115120000  OPA\n";
const std::string newDump = "004930700001  20200101000000  NEW1\n";

struct Cache {
  explicit Cache(const std::string& content = initialData, std::size_t chunkLines = 0) {
    if (chunkLines != 0) cache.setChunkLines(chunkLines);
    NpTest::writeText(data, content);
    EXPECT_TRUE(cache.load());
    loadReports = owner.take();
  }
  // What the active tree holds, dumped into a file with older content, without the banner.
  std::string content() {
    const std::string out = NpTest::writeText(dir.path("dump.txt"), "older content that the dump replaces\n\n\n");
    EXPECT_TRUE(cache.printData(BAS::String(out)));
    const std::string text = NpTest::readText(out);
    return text.starts_with(NpTest::dumpBanner) ? text.substr(NpTest::dumpBanner.size()) : "<no banner> " + text;
  }
  // What both trees hold: a delta load of an empty file publishes the standby tree.
  std::string bothTrees() {
    const std::string active = content();
    EXPECT_TRUE(cache.cacheDeltaLoad(BAS::String(NpTest::writeText(dir.path("empty.txt"), ""))));
    const std::string standby = content();
    return active == standby ? active : "active:\n" + active + "standby:\n" + standby;
  }
  std::string lookup(const std::string& number, const char* date = "20300101000000") {
    DAT::NumberPortability::NumberPortabilityData record;
    const bool found = cache.search(BAS::String(number), BAS::DateTime(BAS::String(date)), record, 0);
    return found ? std::string(record.networkOperatorM.view()) : "-";
  }

  NpTest::TempDirectory dir;
  const std::string data = dir.path("np.txt");
  BAS::String nac{"0"}, iac{"00"}, cc{"49"}, sign{"+"};
  NpTest::RecordingCacheOwner owner{data};
  DAT::NumberPortability::CacheManager cache{&owner, nac, iac, cc, sign, 3, BAS::String(data)};
  Reports loadReports;
};

TEST(CacheManager, LoadFillsBothTreesAndReportsEachRejectedLineOncePerTree) {
  Cache c("030111111 20210101000000 OPB\nbad\n030222222 2020 OPC\n+4930111111 20210101000000 DUP\n"
          "030111111 20200101000000 OPA\n030333333 20200101000000 NO-LINE-END");
  const Report fields = NpTest::rejected("ERR_NUMBER_OF_FIELDS_IN_RECORD", c.data, 2, {"1", "3", "bad"});
  const Report date = NpTest::rejected("ERR_INVALID_DATETIME", c.data, 3, {"2020", "004930222222"});
  const Report duplicate = NpTest::rejected("ERR_DUPLICATE_NUMPORTDATA", c.data, 4, {"004930111111", "20210101000000"});
  EXPECT_EQ(c.loadReports, (Reports{fields, fields, date, date, duplicate, duplicate, {"INF_FILE_EOF", 1, {c.data}}}));
  EXPECT_EQ(c.bothTrees(), "004930111111  20210101000000  OPB\n004930111111  20200101000000  OPA\n");
  const std::pair<const char*, const char*> byDate[] = {
      {"20191231235959", "-"}, {"20200101000000", "OPA"}, {"20201231235959", "OPA"}, {"20210101000000", "OPB"}};
  for (const auto& [when, op] : byDate) EXPECT_EQ(c.lookup("004930111111", when), op) << when;
  EXPECT_EQ(c.lookup("030111111"), "-") << "lookups do not normalise";
}

// An exception part way through a reload or a delta load (memory ran out, the operator table
// is full) leaves the data last published in service, and the next delta load and reload work
// on it as if the failed operation had not been: the delta load adds to the data in service.
TEST(CacheManager, AnOperationCutShortByAnExceptionLeavesThePublishedDataAndTheNextOperationsWork) {
  using DAT::NumberPortability::LoadOperation;
  using DAT::NumberPortability::OperatorTable;
  const char* const newData = "030700001 20200101000000 NEW1\n";
  struct Row {
    const char* label;
    bool reload;        // else a delta load of newData
    bool staleBefore;   // a reload without reuse failed before
    long fills;         // tree fills before the failing one; -1: the operator table fills up instead
    std::string served; // by lookups after the failure
  };
  const Row rows[] = {
      {"reload, first pass", true, false, 0, initialDump},
      {"reload, the copy after the exchange", true, false, 1, newDump},
      {"reload, the operator table fills up", true, false, -1, initialDump},
      {"delta load, first pass", false, false, 0, initialDump},
      {"delta load, second pass after the exchange", false, false, 1, initialDump + newDump},
      {"delta load, the rebuild of a marked standby tree", false, true, 0, initialDump},
      {"delta load after a failed reload, first pass", false, true, 1, initialDump},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    Cache c;
    if (row.staleBefore) {
      NpTest::writeText(c.data, "broken\n");
      ASSERT_FALSE(c.cache.cacheReload(false));
    }
    const std::string changed = row.reload ? c.data : c.dir.path("new.txt");
    NpTest::writeText(changed, row.fills >= 0 ? newData : "030700001 20200101000000 NEW1\n030700002 20200101000000 NEW2\n");
    if (row.fills >= 0) LoadOperation::failTreeFillAfterForTesting(row.fills);
    else OperatorTable::setLimitForTesting(1);
    EXPECT_THROW(row.reload ? c.cache.cacheReload(true) : c.cache.cacheDeltaLoad(BAS::String(changed)), std::bad_alloc);
    LoadOperation::failTreeFillAfterForTesting(-1);
    OperatorTable::setLimitForTesting(0);
    const auto records = [](const std::string& dump) { return static_cast<std::uint32_t>(std::count(dump.begin(), dump.end(), '\n')); };
    EXPECT_EQ(c.content(), row.served);
    EXPECT_EQ(c.cache.publishedRecords(), records(row.served));

    // One new record, and a duplicate of it, which both passes report.
    c.owner.take();
    const std::string delta = NpTest::writeText(c.dir.path("delta.txt"), "030700003 20200101000000 NEW3\n+4930700003 20200101000000 DUP\n");
    ASSERT_TRUE(c.cache.cacheDeltaLoad(BAS::String(delta)));
    const Report duplicate = NpTest::rejected("ERR_DUPLICATE_NUMPORTDATA", delta, 2, {"004930700003", "20200101000000"});
    EXPECT_EQ(c.owner.take(), (Reports{duplicate, duplicate}));
    const std::string expected = row.served + "004930700003  20200101000000  NEW3\n";
    EXPECT_EQ(c.cache.publishedRecords(), records(expected));
    EXPECT_EQ(c.bothTrees(), expected);
    ASSERT_TRUE(c.cache.cacheReload(false));
    EXPECT_EQ(c.content(), expected) << "the main data file holds the merged data";
  }
}


// A dump into a reader that takes nothing holds the read side; a reload beside it builds its
// data and then waits for the dump before it exchanges the trees, while lookups go on all along.
TEST(CacheManager, ADumpIntoAStalledReaderHoldsUpTheExchangeButNeverTheLookups) {
  const auto version = [](char name, int records) {
    std::string text;
    for (int i = 0; i < records; ++i) text += "0301" + std::to_string(100000 + i) + " 20200101000000 " + name + "\n";
    return text;
  };
  Cache c(version('A', 3000));  // a dump larger than a pipe holds
  const std::string fifo = c.dir.path("dump.fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const int readEnd = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(readEnd, 0);
  std::thread dump([&] { c.cache.printData(BAS::String(fifo)); });
  pollfd readable{readEnd, POLLIN, 0};
  ASSERT_EQ(::poll(&readable, 1, 30'000), 1) << "the dump did not start";

  NpTest::writeText(c.data, version('B', 3001));
  std::atomic<bool> reloaded{false};
  std::thread reload([&] { reloaded = c.cache.cacheReload(false); });
  const DAT::NumberPortability::LoadProgress& progress = c.cache.progress();
  endsWithoutHanging([&] {
    while (progress.loadingM || progress.linesReadM != 3001) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // lets the reload reach the exchange
  endsWithoutHanging([&] {
    std::vector<std::thread> lookups;
    std::atomic<int> answeredA{0};
    for (int t = 0; t < 4; ++t) {
      lookups.emplace_back([&, t] {
        for (int i = 0; i < 1000; ++i) answeredA += c.lookup("004930" + std::to_string(1100000 + (t * 1000 + i) % 3000)) == "A";
      });
    }
    for (std::thread& lookup : lookups) lookup.join();
    EXPECT_EQ(answeredA, 4000) << "lookups answer the data in service until the exchange";
  });
  EXPECT_FALSE(reloaded) << "the trees were exchanged under a dump";

  std::string dumped;
  endsWithoutHanging([&] {
    ::fcntl(readEnd, F_SETFL, 0);
    char buffer[65536];
    for (ssize_t got; (got = ::read(readEnd, buffer, sizeof buffer)) > 0;) dumped.append(buffer, static_cast<std::size_t>(got));
    dump.join();
    reload.join();
  });
  ::close(readEnd);
  EXPECT_EQ(dumped.size(), NpTest::dumpBanner.size() + 3000 * 33) << "the dump holds the old data whole";
  EXPECT_TRUE(reloaded);
  EXPECT_EQ(c.lookup("0049301103000"), "B");
  EXPECT_EQ(c.cache.publishedRecords(), 3001U);
}

// A reload replaces the data of both trees, or keeps the old data by the reuse rule; a delta
// load adds to both trees and rewrites the main data file in the cache's own form.
TEST(CacheManager, ReloadAndDeltaLoadChangeBothTreesAndTheMainFile) {
  struct Row {
    const char* label;
    bool delta, reuse;
    const char* fileContent;  // of the main data file (reload) or the delta file; null: absent
    bool result;
    std::vector<int> reports;  // 0 short last line, 1 duplicate, 2 old data deleted, 3 one field, 4 short line 3
    std::string content;
    bool vanishes = false;        // the file goes after its check, before the cache opens it
    bool reloadFailed = false;    // a reload without reuse failed before the delta load
  };
  const char* const shortLast = "030700001 20200101000000 NEW1\n030700002 20200101000000\n";
  const char* const duplicateLast = "030700001 20200101000000 NEW1\n+4930700001 20200101000000 NEW2\n";
  const Row rows[] = {
      {"reload, short last line, no reuse: old data stays", false, false, shortLast, false, {0}, initialDump},
      {"reload, short last line, reuse: new data", false, true, shortLast, true, {0, 0, 2}, newDump},
      {"reload, a duplicate last line counts as good", false, false, duplicateLast, true, {1, 1, 2}, newDump},
      // The second tree's reports repeat the first's in line order, kinds mixed.
      {"reload, a duplicate then a short line, reuse", false, true,
       "030700001 20200101000000 NEW1\n+4930700001 20200101000000 NEW2\n030700002 20200101000000\n", true,
       {1, 4, 1, 4, 2}, newDump},
      {"reload, empty file, no reuse", false, false, "", false, {}, initialDump},
      {"reload, empty file, reuse: both trees end empty", false, true, "", true, {2}, ""},
      {"reload, file check fails, reuse", false, true, nullptr, false, {}, initialDump},
      {"reload, file vanishes after the check", false, false, shortLast, false, {}, initialDump, true},
      {"delta load, rejections in both passes", true, false, duplicateLast, true, {1, 1}, initialDump + newDump},
      {"delta load, every line rejected: rewritten all the same", true, false, "bad\n", true, {3, 3}, initialDump},
      {"delta load, missing file: nothing rewritten", true, false, nullptr, false, {}, initialDump},
      {"delta load after a failed reload", true, false, shortLast, true, {0, 0}, initialDump + newDump, false, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    Cache c;
    if (row.reloadFailed) {
      NpTest::writeText(c.data, "030700009 20200101000000 GONE\nbroken\n");
      ASSERT_FALSE(c.cache.cacheReload(false));
      c.owner.take();
    }
    const std::string file = row.delta ? c.dir.path("delta.txt") : c.data;
    if (row.fileContent) NpTest::writeText(file, row.fileContent);
    else std::filesystem::remove(file);
    if (row.vanishes) c.owner.afterCheckM = [](const std::string& name) { std::filesystem::remove(name); };
    EXPECT_EQ(row.delta ? c.cache.cacheDeltaLoad(BAS::String(file)) : c.cache.cacheReload(row.reuse), row.result);
    const Report possible[] = {NpTest::rejected("ERR_NUMBER_OF_FIELDS_IN_RECORD", file, 2, {"2", "3", "030700002 20200101000000"}),
                               NpTest::rejected("ERR_DUPLICATE_NUMPORTDATA", file, 2, {"004930700001", "20200101000000"}),
                               {"INF_DELETE_OLD_DATA", 1, {"NumberPortability"}},
                               NpTest::rejected("ERR_NUMBER_OF_FIELDS_IN_RECORD", file, 1, {"1", "3", "bad"}),
                               NpTest::rejected("ERR_NUMBER_OF_FIELDS_IN_RECORD", file, 3, {"2", "3", "030700002 20200101000000"})};
    Reports expected;
    for (int i : row.reports) expected.push_back(possible[i]);
    EXPECT_EQ(c.owner.take(), expected);
    c.owner.afterCheckM = nullptr;
    const std::string mainFile = NpTest::readText(c.data);
    EXPECT_EQ(c.bothTrees(), row.content);
    if (!row.delta) continue;
    EXPECT_EQ(mainFile, row.result ? row.content : std::string(initialData));
    Cache again(NpTest::readText(c.data));  // the rewritten main file loads without a rejection
    EXPECT_EQ(again.loadReports, (Reports{{"INF_FILE_EOF", 1, {again.data}}}));
    EXPECT_EQ(again.content(), row.content);
  }
}

// Lines are read in blocks, parsed on two threads and inserted a chunk at a time, each chunk
// sorted by number: a line lost or counted twice at a block's or a chunk's edge, a report out
// of line order or naming the wrong line, or a later record of a date winning over the first
// would show here against what inserting the lines one by one gives.
// Thousands of reports: the first that differs, rather than both lists whole.
void expectSameReports(const Reports& actual, const Reports& expected) {
  const auto [differs, wanted] = std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
  if (differs == actual.end() && wanted == expected.end()) return;
  ADD_FAILURE() << "report " << (differs - actual.begin()) << " of " << actual.size() << " (expected " << expected.size()
                << "): " << (differs == actual.end() ? std::string("none") : testing::PrintToString(*differs))
                << ", expected " << (wanted == expected.end() ? std::string("none") : testing::PrintToString(*wanted));
}

TEST(CacheManager, ManyBlocksAndChunksGiveTheReportsAndRecordsOfSingleInsertsInLineOrder) {
  std::mt19937 random(5);
  const std::string file = NpTest::TempDirectory().path("np.txt");  // the name only, for the reports
  std::string text;
  std::vector<std::string> numbers;
  Reports reports;  // of one pass over the lines, in line order
  DAT::NumberPortability::NumberPortabilityTree reference;
  for (unsigned long line = 1; line <= 70000; ++line) {
    if (random() % 500 == 0) {
      text += "bad" + std::to_string(line) + "\n";
      reports.push_back(NpTest::rejected("ERR_NUMBER_OF_FIELDS_IN_RECORD", "", line, {"1", "3", "bad" + std::to_string(line)}));
      continue;
    }
    // Mostly new numbers; now and then an earlier number again, with one of two dates, so that
    // histories grow and a date already stored is refused.
    const bool again = !numbers.empty() && random() % 8 == 0;
    const std::string number = again ? numbers[random() % numbers.size()] : "004930" + std::to_string(random() % 10000000);
    if (!again) numbers.push_back(number);
    const std::string date = random() % 2 == 0 ? "20200101000000" : "20210101000000";
    const std::string op = "OP" + std::to_string(line % 97);
    text += number + " " + date + " " + op + "\n";
    const DAT::NumberPortability::NumberPortabilityData record{BAS::DateTime(std::string_view(date)),
                                                               BAS::SimpleString(std::string_view(op))};
    if (!reference.insert(BAS::String(number), record, true)) {
      reports.push_back(NpTest::rejected("ERR_DUPLICATE_NUMPORTDATA", "", line, {number, date}));
    }
  }
  ASSERT_GT(reports.size(), 1000U);
  std::ostringstream referenceDump;
  reference.printTree(referenceDump, false);
  // The reports name the file of the cache at hand.
  const auto in = [](Reports list, const std::string& data) {
    for (Report& report : list) {
      std::string& where = report.id == "ERR_DUPLICATE_NUMPORTDATA" ? report.args.front() : report.args.back();
      where.replace(where.find("''"), 2, "'" + data + "'");
    }
    return list;
  };

  // The last quarter of the lines as a delta file: every line of it a duplicate of loaded data
  // or rejected, each reported in the first pass and again, numbered from 1, in the second.
  const std::size_t deltaFrom = text.find('\n', text.size() * 3 / 4) + 1;
  const std::string deltaText = text.substr(deltaFrom);
  Reports deltaOnce;
  {
    std::istringstream lines(deltaText);
    std::string line;
    for (unsigned long number = 1; std::getline(lines, line); ++number) {
      const std::string fields[] = {line.substr(0, line.find(' ')), line.substr(line.find(' ') + 1, 14)};
      deltaOnce.push_back(line.starts_with("bad")
                              ? NpTest::rejected("ERR_NUMBER_OF_FIELDS_IN_RECORD", "", number, {"1", "3", line})
                              : NpTest::rejected("ERR_DUPLICATE_NUMPORTDATA", "", number, {fields[0], fields[1]}));
    }
  }

  // The whole file in one chunk; a block per chunk; a chunk of a block and one line; chunks
  // that end inside a block.
  for (const std::size_t chunkLines : {std::size_t{1} << 24, std::size_t{1}, std::size_t{16385}, std::size_t{30000}}) {
    SCOPED_TRACE(chunkLines);
    Cache c(text, chunkLines);
    Reports twice;  // a load reports each line once per tree
    for (const Report& report : in(reports, c.data)) twice.insert(twice.end(), {report, report});
    twice.push_back({"INF_FILE_EOF", 1, {c.data}});
    expectSameReports(c.loadReports, twice);
    EXPECT_TRUE(c.bothTrees() == referenceDump.str()) << "the trees differ from single inserts";

    // A reload reports each line in a first pass, then again for the other tree. (The delta
    // load of bothTrees rewrote the file.)
    NpTest::writeText(c.data, text);
    c.owner.take();
    ASSERT_TRUE(c.cache.cacheReload(false));
    const Reports once = in(reports, c.data);
    Reports again = once;
    again.insert(again.end(), once.begin(), once.end());
    again.push_back({"INF_DELETE_OLD_DATA", 1, {"NumberPortability"}});
    expectSameReports(c.owner.take(), again);
    EXPECT_TRUE(c.bothTrees() == referenceDump.str()) << "the trees differ from single inserts";

    const std::string delta = NpTest::writeText(c.dir.path("delta.txt"), deltaText);
    c.owner.take();
    ASSERT_TRUE(c.cache.cacheDeltaLoad(BAS::String(delta)));
    const Reports deltaReports = in(deltaOnce, delta);
    Reports deltaTwice = deltaReports;
    deltaTwice.insert(deltaTwice.end(), deltaReports.begin(), deltaReports.end());
    expectSameReports(c.owner.take(), deltaTwice);
    EXPECT_TRUE(NpTest::readText(c.data) == referenceDump.str()) << "the rewritten file differs from single inserts";
    EXPECT_TRUE(c.bothTrees() == referenceDump.str()) << "the trees differ from single inserts";
  }
}

// A chunk is inserted while the next one is read: a failure of the insert fails the operation
// wherever the reading has got to, the data in service stays, and the next reload works.
TEST(CacheManager, AChunkInsertThatFailsWhileTheNextChunkIsReadFailsTheOperationAndTheOldDataStays) {
  using DAT::NumberPortability::LoadOperation;
  // A chunk takes one to four blocks of 16384 lines, as the parsing thread keeps up: three
  // chunks at least.
  constexpr int lines = 10 * 16384 + 100;
  std::string text;
  for (int i = 0; i < lines; ++i) text += "0301" + std::to_string(1000000 + i) + " 20200101000000 NEW\n";
  for (const long fills : {0L, 1L}) {  // the first chunk, one in between
    SCOPED_TRACE(fills);
    Cache c(initialData, 16384);
    for (const bool reload : {true, false}) {
      SCOPED_TRACE(reload ? "reload" : "delta load");
      const std::string file = reload ? c.data : c.dir.path("delta.txt");
      NpTest::writeText(file, text);
      LoadOperation::failTreeFillAfterForTesting(fills);
      EXPECT_THROW(reload ? c.cache.cacheReload(true) : c.cache.cacheDeltaLoad(BAS::String(file)), std::bad_alloc);
      LoadOperation::failTreeFillAfterForTesting(-1);
      EXPECT_TRUE(c.content() == initialDump) << "the data in service changed";
      EXPECT_EQ(c.cache.publishedRecords(), 3U);
    }
    NpTest::writeText(c.data, text);
    c.owner.take();
    ASSERT_TRUE(c.cache.cacheReload(false));
    EXPECT_EQ(c.cache.publishedRecords(), static_cast<std::uint32_t>(lines));
    EXPECT_EQ(c.lookup("004930" + std::to_string(11000000 + lines - 1)), "NEW");
  }
}

// Every answer comes from one complete data set, the old or the new, never from a tree that is
// being emptied or filled.
TEST(CacheManager, LookupsDuringReloadsSeeTheOldOrTheNewDataWhole) {
  const auto version = [](char name) {
    std::string text;
    for (int i = 0; i < 20000; ++i) text += "0301" + std::to_string(100000 + i) + " 20200101000000 " + name + "\n";
    return text;
  };
  Cache c(version('A'));
  std::atomic<bool> reloading{true};
  std::atomic<int> faults{0};
  std::vector<std::thread> readers;
  for (unsigned t = 0; t < 2 * std::max(2u, std::thread::hardware_concurrency()); ++t) {
    readers.emplace_back([&, t] {
      for (int i = static_cast<int>(t); reloading.load() || i < 2000; ++i) {
        const std::string op = c.lookup("004930" + std::to_string(1100000 + i % 20000));
        faults.fetch_add(op != "A" && op != "B" ? 1 : 0);
      }
    });
  }
  for (int round = 0; round < 10; ++round) {
    NpTest::writeText(c.data, version(round % 2 ? 'A' : 'B'));
    EXPECT_TRUE(c.cache.cacheReload(false));
  }
  reloading = false;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(faults.load(), 0);
  EXPECT_EQ(c.lookup("0049301119999"), "A");
}

}  // namespace
