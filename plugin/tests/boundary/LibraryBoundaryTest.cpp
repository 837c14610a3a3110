// The plug-in library as a host uses it: loaded at run time, objects made by its entry points
// and looked up through its lookup interface, so that none of the cache's code is compiled into
// this program. Beside it, readers here woken by a writer inside another library built the same
// way: a wake-up that went to another binary's copy of a waiting place leaves them asleep.
#include "BAS/Framework.h"
#include "BAS/InstrumentationProbeAttribute.h"
#include "BAS/InstrumentationProbeGroup.h"
#include "BAS/InstrumentationProbeList.h"
#include "BAS/LogRecord.h"
#include "BAS/MemoryLogSink.h"
#include "BAS/ProtectedBool.h"
#include "BAS/ReadLocker.h"
#include "BAS/RegistryEntry.h"
#include "BAS/RWLock.h"
#include "PLG/DataPlugIn.h"
#include "plugin/PortabilityLookup.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

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

unsigned threadsBeyondCores() { return 4 * std::max(2u, std::thread::hardware_concurrency()); }

TEST(LibraryBoundary, ReadersHereAreWokenByAWriterInAnotherLibrary) {
  void* library = dlopen(NP_LOCK_WRITER_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  auto hold = reinterpret_cast<void (*)(BAS::RWLock*, int)>(dlsym(library, "npHoldWriteLock"));
  ASSERT_NE(hold, nullptr);
  BAS::RWLock lock;
  std::atomic<bool> stop{false};
  std::atomic<long> reads{0};
  finishesWithin([&] {
    std::vector<std::thread> readers;
    for (unsigned i = 0; i < threadsBeyondCores(); ++i) {
      readers.emplace_back([&] {
        while (!stop.load()) {
          BAS::ReadLocker locker(lock);
          reads.fetch_add(1, std::memory_order_relaxed);
        }
      });
    }
    // Each hold is far longer than a reader looks before it sleeps.
    for (int round = 0; round < 20; ++round) {
      hold(&lock, 10);
      for (const long before = reads.load(); reads.load() < before + 100;) std::this_thread::yield();
    }
    stop = true;
    for (std::thread& reader : readers) reader.join();
  });
  dlclose(library);
}

std::string records(const char* group, const char* date, const char* op) {
  std::string text;
  for (int i = 0; i < 600; ++i) text += "004930" + std::string(group) + std::to_string(10000 + i) + " " + date + " " + op + "\n";
  return text;
}

// The library's entry points make a valid and an invalid plug-in. Lookups through its lookup
// interface, on more threads than cores, always find the records that every version holds,
// while reloads, delta loads and prints arrive through registry updates and probes at once;
// the operations neither overlap nor deadlock, and a stop during a reload ends cleanly.
TEST(LibraryBoundary, LookupsThroughTheEntryPointGoOnWhileBothRoadsChangeTheData) {
  void* library = dlopen(NP_PLUGIN_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  auto start = reinterpret_cast<PLG::DataPlugIn* (*)(const BAS::String&)>(dlsym(library, "DAT_NumberPortabilityModuleStart"));
  auto startDefault = reinterpret_cast<PLG::DataPlugIn* (*)()>(dlsym(library, "ModuleStartNL"));
  auto lookupEntry = reinterpret_cast<PortabilityLookup::EntryPoint>(dlsym(library, PortabilityLookup::entryPointNameCM));
  ASSERT_TRUE(start && startDefault && lookupEntry);
  char folder[] = "/tmp/np-boundary.XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const auto file = [&folder](const char* name, const std::string& content) {
    std::ofstream(std::string(folder) + "/" + name) << content;
    return std::string(folder) + "/" + name;
  };
  // Group 1 is in every version; the update road's delta gives it a later record and adds
  // group 3, the probe road's delta adds group 2.
  const std::string data = file("np.txt", records("1", "20200101000000", "BASE"));
  const std::string updateDelta = file("u.txt", records("1", "20250101000000", "NEW") + records("3", "20200101000000", "U"));
  const std::string probeDelta = file("p.txt", records("2", "20200101000000", "P"));
  {
    BAS::Framework framework;
    auto sink = std::make_shared<BAS::MemoryLogSink>();
    framework.log().addSink(sink);
    framework.setProbeDirectory(NP_PROBE_DIRECTORY);
    BAS::RegistryEntry& subtree = framework.registry().child("NumberPortability");
    subtree.add("FileName", data);
    subtree.add("CountryCode", "49");
    subtree.add("NationalAccessCode", "0");
    std::unique_ptr<PLG::DataPlugIn> invalid(startDefault()), plugIn(start("NumberPortability"));
    EXPECT_FALSE(invalid->isUsable() || invalid->init());
    EXPECT_EQ(sink->withId("ERR_OBJ_NOT_INITIALIZED").at(0).args, std::vector<BAS::String>{"DAT::NumberPortability::PlugIn"});
    ASSERT_TRUE(plugIn->isUsable() && plugIn->version() == BAS::String("10008") && plugIn->init());
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
    // Group 1 at a date before the delta and after it, groups 2 and 3; "-" where none holds.
    const auto answers = [lookups](int index) {
      const std::string numbers[] = {"0049301", "0049301", "0049302", "0049303"};
      std::string_view keys[4];
      std::string text[4];
      for (int i = 0; i < 4; ++i) keys[i] = text[i] = numbers[i] + std::to_string(10000 + index);
      const BAS::DateTime then(BAS::String("20210101000000")), later(BAS::String("20300101000000"));
      const BAS::DateTime dates[] = {then, later, later, later};
      PortabilityLookup::Answer found[4];
      bool hit[4] = {};
      lookups->lookUp(keys, dates, 4, found, hit);
      std::string result;
      for (int i = 0; i < 4; ++i) result += hit[i] ? std::string(found[i].networkOperator.view()) + " " : "- ";
      return result;
    };

    std::atomic<bool> busy{true};
    std::atomic<long> lookupsDone{0}, faults{0};
    finishesWithin([&] {
      std::vector<std::thread> threads;
      for (unsigned t = 0; t < threadsBeyondCores(); ++t) {
        threads.emplace_back([&, t] {
          for (unsigned step = t; busy.load(); step += 7, lookupsDone.fetch_add(1)) faults += !answers(step % 600).starts_with("BASE ");
        });
      }
      std::thread poster([&] {
        for (int round = 0; round < 9; ++round) {
          if (round % 3 == 0) post("deltaLoad", probeDelta);
          else post(round % 3 == 1 ? "printData" : "reload", round % 3 == 1 ? std::string(folder) + "/print.txt" : "TRUE");
        }
      });
      for (int round = 0; round < 9; ++round) {
        EXPECT_TRUE(round % 3 == 0   ? update("Reload", "")
                    : round % 3 == 1 ? update("AdditionalNumPortData", updateDelta)
                                     : update("PrintData", std::string(folder) + "/print.txt"));
      }
      poster.join();
      // Both deltas once more, so that the final data is known whatever the worker merged, and
      // a last probe request: once it is reported, the worker has nothing left to do.
      EXPECT_TRUE(update("AdditionalNumPortData", probeDelta) && update("AdditionalNumPortData", updateDelta));
      post("printData", std::string(folder) + "/last.txt");
      const BAS::String last("File : " + std::string(folder) + "/last.txt");
      while (sink->withId("INF_NUM_PORT_PRINT_DATA").empty() || sink->withId("INF_NUM_PORT_PRINT_DATA").back().args[1] != last) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
      busy = false;
      for (std::thread& thread : threads) thread.join();
    });
    EXPECT_GT(lookupsDone.load(), 100);
    EXPECT_EQ(faults.load(), 0);
    for (const char* error : {"ERR_NUM_PORT_RELOAD", "ERR_NUM_PORT_DELTALOAD", "ERR_CLOSE_NP_FILE", "ERR_FILE_NOT_FOUND",
                              "EVT::RELOAD_FAILED", "EVT::ADD_NUM_PORT_DATA_FAILED"}) {
      EXPECT_EQ(sink->count(error), 0u) << error;
    }
    // Both trees hold every record: a delta load of an empty file publishes the other one.
    for (int pass = 0; pass < 2; ++pass) {
      for (int i = 0; i < 600; ++i) {
        ASSERT_EQ(answers(i), "BASE NEW P U ") << "pass " << pass << " number " << i;
      }
      ASSERT_TRUE(update("AdditionalNumPortData", file("empty.txt", "")));
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
  dlclose(library);
  std::filesystem::remove_all(folder);
}

}  // namespace
