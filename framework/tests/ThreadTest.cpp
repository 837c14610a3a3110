#include "BAS/BinarySemaphore.h"
#include "BAS/Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

namespace {

using namespace std::chrono_literals;

// Fails at once when `action` has not returned after a generous time: a hang is a failure.
template <typename Action>
void endsWithoutHanging(Action action) {
  auto done = std::async(std::launch::async, action);
  if (done.wait_for(10s) != std::future_status::ready) {
    ADD_FAILURE() << "did not end within 10 s";
    std::_Exit(EXIT_FAILURE);
  }
}

void workerLoop(unsigned sleepMs = 500) {
  while (true) {
    BAS::Thread::serviceInterrupt();
    BAS::Thread::serviceCancel();
    BAS::Thread::sleepMs(sleepMs);
  }
}

struct CountOnDestruction {
  std::atomic<int>& count;
  ~CountOnDestruction() { ++count; }
};

TEST(ThreadTest, StartRunsTheBodyOnItsOwnThreadOnce) {
  BAS::Thread thread(nullptr);
  std::atomic<BAS::Thread*> seenCurrent{nullptr};
  std::atomic<bool> onOtherThread{false};
  BAS::BinarySemaphore release;
  release.take();
  ASSERT_TRUE(thread.start([&, caller = std::this_thread::get_id()] {
    seenCurrent = BAS::Thread::current();
    onOtherThread = std::this_thread::get_id() != caller;
    release.take();
  }));
  EXPECT_TRUE(thread.isRunning());
  EXPECT_FALSE(thread.start([] {}));
  EXPECT_EQ(BAS::Thread::current(), nullptr);
  release.give();
  endsWithoutHanging([&] { thread.stop(); });
  EXPECT_EQ(seenCurrent.load(), &thread);
  EXPECT_TRUE(onOtherThread);
  EXPECT_FALSE(thread.isRunning());
  EXPECT_FALSE(thread.start([] {}));
}

// The destructor stops the same way; the ownerless release below goes through it.
TEST(ThreadTest, StopCutsALongSleepShortUnwindingTheBodyAndDroppingIt) {
  BAS::Thread thread(nullptr);
  std::atomic<int> unwound{0};
  auto captured = std::make_shared<int>(0);
  ASSERT_TRUE(thread.start([&unwound, captured] {
    CountOnDestruction guard{unwound};
    workerLoop(3600 * 1000);
  }));
  std::this_thread::sleep_for(20ms);  // lets the loop reach its sleep
  endsWithoutHanging([&] { thread.stop(); });
  EXPECT_EQ(unwound, 1);
  EXPECT_FALSE(thread.isRunning());
  EXPECT_EQ(captured.use_count(), 1);  // the thread let go of its body
  endsWithoutHanging([&] { thread.stop(); });
}

TEST(ThreadTest, InterruptSuspendsUntilResumeAndStopEndsASuspendedThread) {
  BAS::Thread thread(nullptr);
  BAS::BinarySemaphore go;
  BAS::BinarySemaphore passed;
  go.take();
  passed.take();
  ASSERT_TRUE(thread.start([&] {
    go.take();
    BAS::Thread::serviceInterrupt();
    passed.give();
    workerLoop();
  }));
  thread.interrupt();
  go.give();
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(passed.tryTake());
  thread.resume();
  endsWithoutHanging([&] { passed.take(); });

  thread.interrupt();
  endsWithoutHanging([&] { thread.stop(); });
}

TEST(ThreadTest, AFailingBodyEndsOnlyItsThreadAndServicePointsElsewhereDoNothing) {
  BAS::Thread thread(nullptr);
  ASSERT_TRUE(thread.start([] { throw std::runtime_error("body failed"); }));
  endsWithoutHanging([&] { thread.stop(); });
  EXPECT_FALSE(thread.isRunning());

  // Outside a framework thread the service points are no-ops; a never-started thread stops.
  BAS::Thread::serviceInterrupt();
  BAS::Thread::serviceCancel();
  BAS::Thread(nullptr).stop();
}

TEST(ThreadTest, ReleaseOwnerlessStopsAndDeletesOwnerlessThreads) {
  // Deleted by its maker: it must have left the list, or it would be deleted a second time.
  delete new BAS::Thread(nullptr);
  std::atomic<int> unwound{0};
  auto captured = std::make_shared<int>(0);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE((new BAS::Thread(nullptr))->start([&unwound, captured] {
      CountOnDestruction guard{unwound};
      workerLoop();
    }));
  }
  endsWithoutHanging([] { BAS::Thread::releaseOwnerless(); });
  EXPECT_EQ(unwound, 3);
  EXPECT_EQ(captured.use_count(), 1);
}

}  // namespace
