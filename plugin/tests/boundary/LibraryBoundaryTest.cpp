// Lookups compiled into this program, the way a host's processing modules compile the plug-in's
// inline lookup path, against writers inside other libraries: the real plug-in library, loaded
// as a host loads it, and a library built the same way that holds the write side long enough for
// the readers here to fall asleep. A wake-up that goes to another binary's copy of a waiting
// place leaves these readers asleep for good; the watchdog turns that into a failure.
#include "BAS/Framework.h"
#include "BAS/ProtectedBool.h"
#include "BAS/ReadLocker.h"
#include "BAS/RegistryEntry.h"
#include "BAS/RWLock.h"
#include "BAS/String.h"
#include "plugin/NumberPortabilityPlugIn.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Runs `work`; a hang is reported and ends the program, since the stuck threads still use the
// test's objects.
void finishesWithin(const std::function<void()>& work, std::chrono::seconds limit) {
  std::packaged_task<void()> task(work);
  std::future<void> done = task.get_future();
  std::thread(std::move(task)).detach();
  if (done.wait_for(limit) == std::future_status::ready) return;
  ADD_FAILURE() << "still waiting after " << limit.count() << " s: a reader was not woken";
  std::fflush(stdout);
  std::_Exit(EXIT_FAILURE);
}

void* openLibrary(const char* path) {
  void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  EXPECT_NE(handle, nullptr) << dlerror();
  return handle;
}

unsigned readerThreads() { return 4 * std::max(2u, std::thread::hardware_concurrency()); }

TEST(LibraryBoundary, ReadersHereAreWokenByAWriterInAnotherLibrary) {
  void* library = openLibrary(NP_LOCK_WRITER_LIBRARY);
  ASSERT_NE(library, nullptr);
  using Hold = void (*)(BAS::RWLock*, int);
  auto hold = reinterpret_cast<Hold>(dlsym(library, "npHoldWriteLock"));
  ASSERT_NE(hold, nullptr);

  BAS::RWLock lock;
  std::atomic<bool> stop{false};
  std::atomic<long> reads{0};
  finishesWithin(
      [&] {
        std::vector<std::thread> readers;
        for (unsigned i = 0; i < readerThreads(); ++i) {
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
          const long before = reads.load();
          while (reads.load() < before + 100) std::this_thread::yield();
        }
        stop = true;
        for (std::thread& reader : readers) reader.join();
      },
      60s);
  EXPECT_GT(reads.load(), 2000);
  dlclose(library);
}

TEST(LibraryBoundary, LookupsHereGoOnWhileThePlugInLibraryReloads) {
  char folderPattern[] = "/tmp/np-boundary.XXXXXX";
  ASSERT_NE(mkdtemp(folderPattern), nullptr);
  const std::filesystem::path folder = folderPattern;
  {
    std::ofstream data(folder / "np.txt");
    for (int i = 0; i < 20'000; ++i) data << "004930" << 100'000 + i << "  20200101000000  OP" << i % 50 << "\n";
  }

  void* library = openLibrary(NP_PLUGIN_LIBRARY);
  ASSERT_NE(library, nullptr);
  using EntryPoint = PLG::DataPlugIn* (*)(const BAS::String&);
  auto entryPoint = reinterpret_cast<EntryPoint>(dlsym(library, "DAT_NumberPortabilityModuleStart"));
  ASSERT_NE(entryPoint, nullptr);
  {
    BAS::Framework framework;
    framework.setProbeDirectory(NP_PROBE_DIRECTORY);
    BAS::RegistryEntry& subtree = framework.registry().child("NumberPortability");
    subtree.add("FileName", (folder / "np.txt").string());
    subtree.add("CountryCode", "49");
    subtree.add("NationalAccessCode", "0");
    // A host knows the class of the object its entry point made; its type information is not
    // exported, hence no dynamic_cast.
    std::unique_ptr<PLG::DataPlugIn> object(entryPoint("NumberPortability"));
    auto* plugIn = static_cast<DAT::NumberPortability::PlugIn*>(object.get());
    ASSERT_TRUE(plugIn->init());

    std::atomic<bool> stop{false};
    std::atomic<long> found{0}, missed{0};
    finishesWithin(
        [&] {
          std::vector<std::thread> lookups;
          for (unsigned t = 0; t < readerThreads(); ++t) {
            lookups.emplace_back([&, t] {
              const BAS::DateTime when(BAS::String("20240101000000"));
              DAT::NumberPortability::NumberPortabilityData result;
              for (unsigned i = t; !stop.load(); i += 7) {
                const BAS::String number("004930" + std::to_string(100'000 + i % 20'000));
                (plugIn->search(number, when, result) ? found : missed).fetch_add(1);
              }
            });
          }
          for (int round = 0; round < 10; ++round) {
            BAS::RegistryEntry update("NumberPortability");
            update.child("Reload").setValue("TRUE");
            BAS::ProtectedBool taken(false);
            EXPECT_TRUE(plugIn->registryUpdate(&update, taken));
            EXPECT_TRUE(taken.get());
          }
          const long before = found.load();
          while (found.load() < before + 1000) std::this_thread::yield();
          stop = true;
          for (std::thread& lookup : lookups) lookup.join();
        },
        60s);
    EXPECT_EQ(missed.load(), 0);
    plugIn->shutdown();
  }
  dlclose(library);
  std::filesystem::remove_all(folder);
}

}  // namespace
