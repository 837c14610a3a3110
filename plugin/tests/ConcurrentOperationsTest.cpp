// Registry updates and probe requests arriving at the same time, with lookups going on: the
// cache operations must not overlap, every lookup must find the data that is always there,
// and afterwards both trees and the main data file must hold the same complete data.
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

constexpr int recordsPerFile = 600;

std::string number(int group, int index) { return "004930" + std::to_string(group) + std::to_string(10000 + index); }

std::string records(int group, const std::string& operatorPrefix) {
  std::string text;
  for (int i = 0; i < recordsPerFile; ++i) {
    text += number(group, i) + " 20200101000000 " + operatorPrefix + std::to_string(i) + "\n";
  }
  return text;
}

bool update(DAT::NumberPortability::PlugIn& plugIn, const std::string& key, const std::string& value) {
  BAS::RegistryEntry entry(BAS::String("NumberPortability"));
  entry.add(BAS::String(key), BAS::String(value));
  BAS::ProtectedBool taken;
  return plugIn.registryUpdate(&entry, taken);
}

TEST(ConcurrentOperations, UpdatesAndProbeRequestsNeverOverlapOnTheCache) {
  TestEnvironment env;
  env.framework.setEventHandlerName(BAS::String("EventHandler"));
  const std::string file = env.configureData(records(1, "BASE"));
  DAT::NumberPortability::PlugIn& plugIn = env.start();
  const std::string probeDelta = env.writeFile("probe-delta.txt", records(2, "P"));
  const std::string updateDelta = env.writeFile("update-delta.txt", records(3, "U"));
  const std::string probePrint = env.path("probe-print.txt");
  BAS::InstrumentationProbeValueIf* deltaProbe = env.probe("deltaLoad");
  BAS::InstrumentationProbeValueIf* printProbe = env.probe("printData");
  BAS::InstrumentationProbeValueIf* reloadProbe = env.probe("reload");
  ASSERT_TRUE(deltaProbe && printProbe && reloadProbe);

  std::atomic<bool> busy{true};
  std::mutex faultsMutex;
  std::vector<std::string> faults;
  auto fault = [&](const std::string& text) {
    std::lock_guard<std::mutex> guard(faultsMutex);
    if (faults.size() < 20) faults.push_back(text);
  };

  auto reader = [&](int seed) {
    int step = seed;
    while (busy.load()) {
      step = (step * 7 + 3) % (3 * recordsPerFile);
      const int group = 1 + step / recordsPerFile;
      const int index = step % recordsPerFile;
      const std::string expected = (group == 1 ? "BASE" : group == 2 ? "P" : "U") + std::to_string(index);
      const std::optional<std::string> answer = TestEnvironment::lookupIn(plugIn, number(group, index));
      // The base records are in every version of the data; the delta records once loaded.
      if ((group == 1 && answer != expected) || (answer && *answer != expected)) {
        fault(number(group, index) + " -> " + answer.value_or("<none>"));
      }
    }
  };

  std::atomic<int> failedUpdates{0};
  std::thread updater([&] {
    for (int round = 0; round < 24; ++round) {
      const bool ok = round % 2 == 0 ? update(plugIn, "Reload", "") : update(plugIn, "AdditionalNumPortData", updateDelta);
      if (!ok) ++failedUpdates;
    }
  });
  std::thread poster([&] {
    for (int round = 0; round < 48; ++round) {
      switch (round % 3) {
        case 0: deltaProbe->setValue(BAS::String(probeDelta)); break;
        case 1: printProbe->setValue(BAS::String(probePrint)); break;
        case 2: reloadProbe->setValue(BAS::String("TRUE")); break;
      }
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) readers.emplace_back(reader, i + 1);

  updater.join();
  poster.join();
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

  EXPECT_EQ(failedUpdates.load(), 0);
  EXPECT_TRUE(faults.empty()) << "first inconsistent answer: " << (faults.empty() ? "" : faults.front());
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
    for (int group = 1; group <= 3; ++group) {
      const char* prefix = group == 1 ? "BASE" : group == 2 ? "P" : "U";
      for (int i = 0; i < recordsPerFile; ++i) {
        ASSERT_EQ(env.lookup(number(group, i)), prefix + std::to_string(i)) << number(group, i);
      }
    }
    ASSERT_TRUE(update(plugIn, "AdditionalNumPortData", empty));
  }
  EXPECT_EQ(NpTest::readText(file), allRecords);
}

}  // namespace
