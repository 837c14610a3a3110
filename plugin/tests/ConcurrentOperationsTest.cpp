// Lookups on several threads for a few seconds while reloads, delta loads and prints arrive
// through registry updates and through probes at the same time. The cache operations must not
// overlap, every answer must come from one complete version of the data (never from a tree
// that is still being filled), nothing may deadlock, and afterwards both trees and the main
// data file must hold the same complete data. NP_STRESS_SECONDS lengthens the run.
#include "plugin/tests/TestEnvironment.h"

#include "BAS/ProtectedBool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using NpTest::TestEnvironment;
using Clock = std::chrono::steady_clock;

constexpr int recordsPerFile = 600;

std::string number(int group, int index) { return "004930" + std::to_string(group) + std::to_string(10000 + index); }

std::string records(int group, const char* date, const std::string& operatorPrefix) {
  std::string text;
  for (int i = 0; i < recordsPerFile; ++i) {
    text += number(group, i) + " " + date + " " + operatorPrefix + std::to_string(i) + "\n";
  }
  return text;
}

bool update(DAT::NumberPortability::PlugIn& plugIn, const std::string& key, const std::string& value) {
  BAS::RegistryEntry entry(BAS::String("NumberPortability"));
  entry.add(BAS::String(key), BAS::String(value));
  BAS::ProtectedBool taken;
  return plugIn.registryUpdate(&entry, taken);
}

std::chrono::milliseconds stressDuration() {
  const char* seconds = std::getenv("NP_STRESS_SECONDS");
  return std::chrono::milliseconds(seconds != nullptr ? std::atoi(seconds) * 1000 : 3000);
}

// Collects the first few faults that the threads find.
class Faults {
public:
  void add(const std::string& text) {
    std::lock_guard<std::mutex> guard(mutexM);
    if (faultsM.size() < 20) faultsM.push_back(text);
  }
  std::string first() const {
    std::lock_guard<std::mutex> guard(mutexM);
    return faultsM.empty() ? std::string() : faultsM.front();
  }

private:
  mutable std::mutex mutexM;
  std::vector<std::string> faultsM;
};

TEST(ConcurrentOperations, LookupsSeeOnlyCompleteVersionsWhileBothRoadsChangeTheData) {
  TestEnvironment env;
  env.framework.setEventHandlerName(BAS::String("EventHandler"));
  // Group 1 is in every version. The update road's delta gives group 1 a later operator and
  // adds group 3; the probe road's delta adds group 2.
  const std::string file = env.configureData(records(1, "20200101000000", "BASE"));
  DAT::NumberPortability::PlugIn& plugIn = env.start();
  const std::string updateDelta =
      env.writeFile("update-delta.txt", records(1, "20250101000000", "NEW") + records(3, "20200101000000", "U"));
  const std::string probeDelta = env.writeFile("probe-delta.txt", records(2, "20200101000000", "P"));
  BAS::InstrumentationProbeValueIf* deltaProbe = env.probe("deltaLoad");
  BAS::InstrumentationProbeValueIf* printProbe = env.probe("printData");
  BAS::InstrumentationProbeValueIf* reloadProbe = env.probe("reload");
  ASSERT_TRUE(deltaProbe && printProbe && reloadProbe);

  const Clock::time_point end = Clock::now() + stressDuration();
  std::atomic<bool> busy{true};
  std::atomic<long> lookups{0};
  Faults faults;

  // Every version is a superset of the one before it, and a delta reaches all of its numbers
  // in one exchange of trees. So once a reader has seen a change on one number it must see it
  // on every number it asks about later: a partly filled tree breaks that at once.
  auto reader = [&](int seed) {
    unsigned step = static_cast<unsigned>(seed) * 7919u;
    bool sawNew = false, sawP = false, sawU = false;
    long done = 0;
    while (busy.load(std::memory_order_relaxed)) {
      step = step * 1103515245u + 12345u;
      const int index = static_cast<int>((step >> 8) % recordsPerFile);
      const std::string i = std::to_string(index);
      const std::string base = TestEnvironment::lookupIn(plugIn, number(1, index), "20210101000000").value_or("-");
      const std::string late = TestEnvironment::lookupIn(plugIn, number(1, index)).value_or("-");
      const std::string p = TestEnvironment::lookupIn(plugIn, number(2, index)).value_or("-");
      const std::string u = TestEnvironment::lookupIn(plugIn, number(3, index)).value_or("-");
      // An answer is the new one, or the old one as long as the new one has not been seen.
      auto check = [&](const std::string& what, const std::string& answer, const std::string& before,
                       const std::string& after, bool& changed) {
        if (answer != after && (changed || answer != before)) {
          faults.add(what + " -> " + answer + (changed ? " after the change was seen" : ""));
        }
        changed = changed || answer == after;
      };
      if (base != "BASE" + i) faults.add("before the change " + number(1, index) + " -> " + base);
      check(number(1, index), late, "BASE" + i, "NEW" + i, sawNew);
      check(number(2, index), p, "-", "P" + i, sawP);
      check(number(3, index), u, "-", "U" + i, sawU);
      ++done;
    }
    lookups += done;
  };

  std::atomic<int> failedUpdates{0};
  std::atomic<int> updateRounds{0};  // for the failure message
  std::thread updater([&] {
    const std::string print = env.path("update-print.txt");
    // Two cycles of each operation at least, however slow a sanitizer build makes them.
    for (int round = 0; round < 6 || Clock::now() < end; ++round, ++updateRounds) {
      const bool ok = round % 3 == 0   ? update(plugIn, "Reload", "")
                      : round % 3 == 1 ? update(plugIn, "AdditionalNumPortData", updateDelta)
                                       : update(plugIn, "PrintData", print);
      if (!ok) ++failedUpdates;
    }
  });
  std::thread poster([&] {
    const std::string print = env.path("probe-print.txt");
    for (int round = 0; round < 6 || Clock::now() < end; ++round) {
      switch (round % 3) {
        case 0: deltaProbe->setValue(BAS::String(probeDelta)); break;
        case 1: printProbe->setValue(BAS::String(print)); break;
        case 2: reloadProbe->setValue(BAS::String("TRUE")); break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) readers.emplace_back(reader, i + 1);

  ASSERT_TRUE(NpTest::finishesWithin([&] {
    updater.join();
    poster.join();
  }, stressDuration() + NpTest::waitLimit));
  // Both deltas once more, so that the final data is known whatever the worker merged.
  EXPECT_TRUE(update(plugIn, "AdditionalNumPortData", probeDelta));
  EXPECT_TRUE(update(plugIn, "AdditionalNumPortData", updateDelta));
  // A last probe request: once it is reported, the worker has nothing left to do.
  const std::string finalPrint = env.path("final-print.txt");
  printProbe->setValue(BAS::String(finalPrint));
  ASSERT_TRUE(NpTest::waitUntil([&] {
    for (const auto& args : env.argsOf("INF_NUM_PORT_PRINT_DATA")) {
      if (args.size() == 2 && args[1] == "File : " + finalPrint) return true;
    }
    return false;
  }));
  busy = false;
  for (std::thread& t : readers) t.join();

  EXPECT_GT(lookups.load(), 100);
  EXPECT_EQ(failedUpdates.load(), 0) << "of " << updateRounds.load();
  EXPECT_EQ(faults.first(), "");
  for (const char* error : {"ERR_NUM_PORT_RELOAD", "ERR_NUM_PORT_DELTALOAD", "ERR_NUM_PORT_PRINT_DATA",
                            "ERR_CLOSE_NP_FILE", "ERR_FILE_NOT_FOUND", "ERR_OPEN_FILE_FAILED", "EVT::RELOAD_FAILED",
                            "EVT::ADD_NUM_PORT_DATA_FAILED"}) {
    EXPECT_EQ(env.count(error), 0u) << error;
  }
  EXPECT_TRUE(plugIn.isUsable());

  // The published data, the main data file and the other tree all hold every record.
  const std::string allRecords = NpTest::readText(file);
  EXPECT_EQ(NpTest::readText(finalPrint), NpTest::dumpBanner + allRecords);
  const std::string empty = env.writeFile("empty.txt", "");
  for (int pass = 0; pass < 2; ++pass) {
    SCOPED_TRACE(pass == 0 ? "active tree" : "other tree");
    for (int i = 0; i < recordsPerFile; ++i) {
      const std::string index = std::to_string(i);
      ASSERT_EQ(env.lookup(number(1, i), "20210101000000"), "BASE" + index);
      ASSERT_EQ(env.lookup(number(1, i)), "NEW" + index);
      ASSERT_EQ(env.lookup(number(2, i)), "P" + index);
      ASSERT_EQ(env.lookup(number(3, i)), "U" + index);
    }
    ASSERT_TRUE(update(plugIn, "AdditionalNumPortData", empty));
  }
  EXPECT_EQ(NpTest::readText(file), allRecords);
}

// A reload that is still reading when the plug-in is stopped and destroyed, once started by a
// probe (the worker's thread) and once by a registry update (the caller's thread).
TEST(ConcurrentOperations, ShutdownAndDestructionDuringAReloadEndCleanly) {
  std::string bigFile;
  for (int i = 0; i < 60000; ++i) bigFile += "0049301" + std::to_string(1000000 + i) + " 20200101000000 OP" + std::to_string(i % 97) + "\n";

  for (const bool byProbe : {true, false}) {
    SCOPED_TRACE(byProbe ? "reload by probe" : "reload by registry update");
    TestEnvironment env;
    env.configureData(bigFile);
    DAT::NumberPortability::PlugIn& plugIn = env.start();
    std::thread caller;
    if (byProbe) {
      env.post("reload", "TRUE");
    } else {
      caller = std::thread([&] { update(plugIn, "Reload", ""); });
    }
    // Init checked the file once; the reload's own check is the second.
    ASSERT_TRUE(env.waitFor("INF_FILE_OPENED", 2));
    ASSERT_TRUE(NpTest::finishesWithin([&] {
      EXPECT_TRUE(plugIn.shutdown());
      if (caller.joinable()) caller.join();
      env.destroyPlugIn();
    }, NpTest::waitLimit));
    // The reload either finished before the stop or was never reported as finished; it never
    // failed half-way.
    EXPECT_EQ(env.count("ERR_NUM_PORT_RELOAD"), 0u);
    EXPECT_EQ(env.count("EVT::RELOAD_FAILED"), 0u);
  }
}

}  // namespace
