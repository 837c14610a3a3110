#include "BAS/ReadLocker.h"
#include "BAS/RWLock.h"
#include "BAS/WriteLocker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Readers on several threads check that they never see a half-done change; writers change
// two values that must stay equal.
TEST(RWLock, WritersExcludeReadersAndEachOther) {
  BAS::RWLock lock;
  long first = 0;
  long second = 0;
  std::atomic<bool> torn{false};
  std::atomic<long> reads{0};
  std::vector<std::thread> threads;
  for (int reader = 0; reader < 3; ++reader) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        BAS::ReadLocker locker(lock);
        if (first != second) torn = true;
        reads.fetch_add(1, std::memory_order_relaxed);
      }
    });
  }
  for (int writer = 0; writer < 2; ++writer) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        BAS::WriteLocker locker(lock);
        ++first;
        std::this_thread::yield();
        ++second;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(torn);
  EXPECT_EQ(first, 4000);
  EXPECT_EQ(second, 4000);
  EXPECT_EQ(reads.load(), 60000);
}

// A reader that holds on (a data dump) must not make the others queue behind a waiting writer:
// a second reader gets in while the writer waits, and the writer gets in after both left.
TEST(RWLock, AWaitingWriterDoesNotHoldUpReadersBehindALongReader) {
  BAS::RWLock lock;
  std::atomic<bool> secondReaderIn{false};
  std::atomic<bool> writerIn{false};
  std::atomic<bool> writerInBeforeSecondReader{false};

  lock.readLock();  // the long reader
  std::thread writer([&] {
    BAS::WriteLocker locker(lock);
    writerInBeforeSecondReader = !secondReaderIn.load();
    writerIn = true;
  });
  std::this_thread::sleep_for(20ms);  // the writer is waiting by now
  std::thread secondReader([&] {
    BAS::ReadLocker locker(lock);
    secondReaderIn = true;
  });
  for (int i = 0; i < 5000 && !secondReaderIn; ++i) std::this_thread::sleep_for(1ms);
  EXPECT_TRUE(secondReaderIn.load());
  EXPECT_FALSE(writerIn.load());
  lock.readUnlock();
  secondReader.join();
  writer.join();
  EXPECT_TRUE(writerIn.load());
  EXPECT_FALSE(writerInBeforeSecondReader.load());
}

}  // namespace
