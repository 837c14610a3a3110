#include "BAS/ReadLocker.h"
#include "BAS/RWLock.h"
#include "BAS/WriteLocker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iostream>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// More threads than processors, so that readers inside the lock get preempted while others
// want in: the case in which a lock that lets new readers pass a waiting writer starves it.
unsigned manyThreads() { return 4 * std::max(2u, std::thread::hardware_concurrency()); }

// Readers check that they never see a half-done change; writers change two values that must
// stay equal. Some writers hold on long enough that readers go to sleep and must be woken.
TEST(RWLock, WritersExcludeReadersAndEachOtherAndWakeSleepingReaders) {
  BAS::RWLock lock;
  long first = 0;
  long second = 0;
  std::atomic<bool> torn{false};
  std::atomic<long> reads{0};
  std::vector<std::thread> threads;
  const unsigned readers = manyThreads();
  for (unsigned reader = 0; reader < readers; ++reader) {
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; ++i) {
        BAS::ReadLocker locker(lock);
        if (first != second) torn = true;
        reads.fetch_add(1, std::memory_order_relaxed);
      }
    });
  }
  for (int writer = 0; writer < 2; ++writer) {
    threads.emplace_back([&, writer] {
      for (int i = 0; i < 500; ++i) {
        BAS::WriteLocker locker(lock);
        ++first;
        if (writer == 0 && i % 50 == 0) std::this_thread::sleep_for(2ms);
        std::this_thread::yield();
        ++second;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(torn);
  EXPECT_EQ(first, 1000);
  EXPECT_EQ(second, 1000);
  EXPECT_EQ(reads.load(), 5000L * readers);
}

// Once a writer waits, a reader that comes later waits behind it: the writer waits only for the
// readers that were inside, so no stream of readers can keep it out.
TEST(RWLock, ReadersThatComeAfterAWaitingWriterWaitBehindIt) {
  BAS::RWLock lock;
  std::atomic<bool> writerWaiting{false};
  std::atomic<bool> writerIn{false};
  std::atomic<bool> laterReaderIn{false};
  std::atomic<bool> laterReaderSawWriter{false};

  lock.readLock();
  std::thread writer([&] {
    writerWaiting = true;
    BAS::WriteLocker locker(lock);
    writerIn = true;
    std::this_thread::sleep_for(5ms);
  });
  while (!writerWaiting) std::this_thread::yield();
  std::this_thread::sleep_for(20ms);  // the writer has raised its flag by now
  std::thread laterReader([&] {
    BAS::ReadLocker locker(lock);
    laterReaderSawWriter = writerIn.load();
    laterReaderIn = true;
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(laterReaderIn.load()) << "a reader passed a waiting writer";
  EXPECT_FALSE(writerIn.load()) << "the writer got in while a reader was inside";
  lock.readUnlock();
  writer.join();
  laterReader.join();
  EXPECT_TRUE(laterReaderSawWriter.load());
}

// Readers loop without pause on more threads than processors, each holding the lock for about
// a microsecond; a writer must still get in, every time, within the bound that the lock states:
// the readers inside at that moment. The bound asserted is far above what that takes, even
// under a sanitizer, and far below the minutes that a starving lock kept a writer out.
TEST(RWLock, AWriterGetsInWithinTheBoundUnderEndlessReadersOnMoreThreadsThanProcessors) {
  BAS::RWLock lock;
  std::atomic<bool> stop{false};
  std::atomic<long> reads{0};
  std::atomic<long> sink{0};  // keeps the readers' work from being optimised away
  long guarded = 0;
  std::vector<std::thread> readers;
  for (unsigned i = 0; i < manyThreads(); ++i) {
    readers.emplace_back([&] {
      long seen = 0;
      while (!stop.load(std::memory_order_relaxed)) {
        BAS::ReadLocker locker(lock);
        const auto until = Clock::now() + 1us;
        while (Clock::now() < until) seen += guarded;
        reads.fetch_add(1, std::memory_order_relaxed);
      }
      sink.fetch_add(seen, std::memory_order_relaxed);
    });
  }
  while (reads.load() < 1000) std::this_thread::yield();

  Clock::duration longest{};
  for (int round = 0; round < 200; ++round) {
    const auto asked = Clock::now();
    {
      BAS::WriteLocker locker(lock);
      longest = std::max(longest, Clock::now() - asked);
      ++guarded;
    }
    std::this_thread::sleep_for(100us);
  }
  stop = true;
  for (std::thread& reader : readers) reader.join();
  std::cout << "longest wait of a writer for the lock: "
            << std::chrono::duration_cast<std::chrono::microseconds>(longest).count() << " us, " << reads.load()
            << " reads by " << manyThreads() << " threads\n";
  EXPECT_LT(longest, 2s);
  EXPECT_EQ(guarded, 200);
}

}  // namespace
