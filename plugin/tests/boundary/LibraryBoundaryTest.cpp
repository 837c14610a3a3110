// The plug-in library as a host uses it: loaded at run time, objects made by its entry points,
// lookups through its lookup interface (so that none of the cache's code, nor the lock that
// guards it, is compiled into this program), operations through registry updates and probes.
#include "BAS/Framework.h"
#include "BAS/InstrumentationProbeAttribute.h"
#include "BAS/InstrumentationProbeGroup.h"
#include "BAS/InstrumentationProbeList.h"
#include "BAS/LogRecord.h"
#include "BAS/MemoryLogSink.h"
#include "BAS/ProtectedBool.h"
#include "BAS/RegistryEntry.h"
#include "PLG/DataPlugIn.h"
#include "plugin/PortabilityLookup.h"
#include "testing/TempDirectory.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <thread>

namespace {

using DAT::NumberPortability::PortabilityLookup;

// Runs `work`; a hang is reported and ends the program, since the stuck threads still use the
// test's objects.
void finishesWithin(const std::function<void()>& work) {
  std::packaged_task<void()> task(work);
  std::future<void> done = task.get_future();
  std::thread(std::move(task)).detach();
  if (done.wait_for(std::chrono::seconds(60)) == std::future_status::ready) return;
  ADD_FAILURE() << "still waiting after 60 s";
  std::_Exit(EXIT_FAILURE);
}

std::string number(int group, int index) { return "004930" + std::to_string(group * 10000 + index); }

std::string records(int group, const char* date, const char* op) {
  std::string text;
  for (int i = 0; i < 600; ++i) text += number(group, i) + " " + date + " " + op + "\n";
  return text;
}

// The entry points make a valid and an invalid plug-in. Lookups through the lookup interface,
// on more threads than cores, always find the records that every version holds, while reloads,
// delta loads and prints arrive through registry updates and probes at once; the operations
// neither overlap nor deadlock, and a stop during a reload ends cleanly.
TEST(LibraryBoundary, LookupsThroughTheEntryPointGoOnWhileBothRoadsChangeTheData) {
  // Closed last: the framework destroys the probes that the library's code made.
  std::unique_ptr<void, int (*)(void*)> library(dlopen(NP_PLUGIN_LIBRARY, RTLD_NOW | RTLD_LOCAL), dlclose);
  ASSERT_NE(library, nullptr) << dlerror();
  auto start = reinterpret_cast<PLG::DataPlugIn* (*)(const BAS::String&)>(dlsym(library.get(), "DAT_NumberPortabilityModuleStart"));
  auto startDefault = reinterpret_cast<PLG::DataPlugIn* (*)()>(dlsym(library.get(), "ModuleStartNL"));
  auto lookupEntry = reinterpret_cast<PortabilityLookup::EntryPoint>(dlsym(library.get(), PortabilityLookup::entryPointNameCM));
  ASSERT_TRUE(start && startDefault && lookupEntry);
  NpTest::TempDirectory dir;
  // Group 1 is in every version; the update road's delta gives it a later record and adds
  // group 3, the probe road's delta adds group 2.
  const std::string updateDelta =
      NpTest::writeText(dir.path("u.txt"), records(1, "20250101000000", "NEW") + records(3, "20200101000000", "U"));
  const std::string probeDelta = NpTest::writeText(dir.path("p.txt"), records(2, "20200101000000", "P"));
  BAS::Framework framework;
  auto sink = std::make_shared<BAS::MemoryLogSink>();
  framework.log().addSink(sink);
  framework.setProbeDirectory(NP_PROBE_DIRECTORY);
  BAS::RegistryEntry& subtree = framework.registry().child("NumberPortability");
  subtree.add("FileName", NpTest::writeText(dir.path("np.txt"), records(1, "20200101000000", "BASE")));
  subtree.add("CountryCode", "49");
  subtree.add("NationalAccessCode", "0");
  std::unique_ptr<PLG::DataPlugIn> invalid(startDefault()), plugIn(start("NumberPortability"));
  EXPECT_FALSE(invalid->isUsable() || invalid->init());
  EXPECT_EQ(sink->withId("ERR_OBJ_NOT_INITIALIZED").at(0).args, std::vector<BAS::String>{"DAT::NumberPortability::PlugIn"});
  ASSERT_TRUE(plugIn->isUsable() && plugIn->version() == BAS::String("10008") && plugIn->init());
  EXPECT_EQ(sink->withId("INF_NUM_NPORT_LOADED").at(0).args, std::vector<BAS::String>{"600"});
  PortabilityLookup* lookups = lookupEntry(plugIn.get());
  BAS::InstrumentationProbeList groups;
  plugIn->getInstrumentationProbe(groups);
  ASSERT_TRUE(lookups != nullptr && groups.size() == 1 && groups[0]->info().name == BAS::String("numberPortabilityGroup"));
  const auto post = [&groups](const char* probe, const std::string& value) {
    groups[0]->find(BAS::String(probe))->value()->setValue(BAS::String(value));
  };
  const auto update = [&plugIn](const char* key, const std::string& value) {
    BAS::RegistryEntry entry("NumberPortability");
    entry.add(key, value);
    BAS::ProtectedBool taken(false);
    return plugIn->registryUpdate(&entry, taken);
  };
  // The operators that answer for numbers of group 1 at a date before the delta's records.
  const BAS::DateTime then(BAS::String("20210101000000")), later(BAS::String("20300101000000"));
  const auto answers = [&](const std::vector<std::string>& numbers, const BAS::DateTime& date) {
    const std::vector<std::string_view> keys(numbers.begin(), numbers.end());
    const std::vector<BAS::DateTime> dates(numbers.size(), date);
    std::vector<PortabilityLookup::Answer> found(numbers.size());
    std::unique_ptr<bool[]> hit(new bool[numbers.size()]);
    lookups->lookUp(keys.data(), dates.data(), numbers.size(), found.data(), hit.get());
    std::string result;
    for (std::size_t i = 0; i < numbers.size(); ++i) result += hit[i] ? std::string(found[i].networkOperator.view()) + " " : "- ";
    return result;
  };

  std::atomic<bool> busy{true};
  std::atomic<long> lookupsDone{0}, faults{0};
  finishesWithin([&] {
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4 * std::max(2u, std::thread::hardware_concurrency()); ++t) {
      threads.emplace_back([&, t] {
        for (int i = static_cast<int>(t); busy.load(); i += 7, ++lookupsDone) {
          faults += answers({number(1, i % 600), number(1, (i + 1) % 600)}, then) != "BASE BASE ";
        }
      });
    }
    std::thread poster([&] {
      for (int round = 0; round < 9; ++round) {
        if (round % 3 == 0) post("deltaLoad", probeDelta);
        else post(round % 3 == 1 ? "printData" : "reload", round % 3 == 1 ? dir.path("print.txt") : "TRUE");
      }
    });
    for (int round = 0; round < 9; ++round) {
      EXPECT_TRUE(round % 3 == 0   ? update("Reload", "")
                  : round % 3 == 1 ? update("AdditionalNumPortData", updateDelta)
                                   : update("PrintData", dir.path("print.txt")));
    }
    poster.join();
    // Both deltas once more, so that the final data is known whatever the worker merged, and
    // a last probe request: once it is reported, the worker has nothing left to do.
    EXPECT_TRUE(update("AdditionalNumPortData", probeDelta) && update("AdditionalNumPortData", updateDelta));
    post("printData", dir.path("last.txt"));
    while (sink->withId("INF_NUM_PORT_PRINT_DATA").empty() ||
           sink->withId("INF_NUM_PORT_PRINT_DATA").back().args[1] != "File : " + dir.path("last.txt")) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    busy = false;
    for (std::thread& thread : threads) thread.join();
  });
  EXPECT_TRUE(lookupsDone.load() > 100 && faults.load() == 0) << lookupsDone.load() << " lookups, " << faults.load() << " wrong";
  for (const char* error : {"ERR_NUM_PORT_RELOAD", "ERR_NUM_PORT_DELTALOAD", "ERR_CLOSE_NP_FILE", "ERR_FILE_NOT_FOUND",
                            "EVT::RELOAD_FAILED", "EVT::ADD_NUM_PORT_DATA_FAILED"}) EXPECT_EQ(sink->count(error), 0u) << error;
  // Every record answers, from both trees (a delta load of an empty file publishes the other).
  std::vector<std::string> numbers;
  std::string expected;
  for (const auto& [group, op] : {std::pair{1, "NEW "}, {2, "P "}, {3, "U "}}) {
    for (int i = 0; i < 600; ++i) numbers.push_back(number(group, i)), expected += op;
  }
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_EQ(answers(numbers, later), expected) << "pass " << pass;
    EXPECT_TRUE(update("AdditionalNumPortData", NpTest::writeText(dir.path("empty.txt"), "")));
  }
  // A stop while the worker's reload is reading.
  const std::size_t opened = sink->count("INF_FILE_OPENED");
  post("reload", "TRUE");
  ASSERT_TRUE(sink->waitFor(BAS::String("INF_FILE_OPENED"), opened + 1, std::chrono::seconds(60)));
  finishesWithin([&] {
    EXPECT_TRUE(plugIn->shutdown());
    plugIn.reset();
  });
  EXPECT_EQ(sink->count("ERR_NUM_PORT_RELOAD"), 0u);
}

}  // namespace
