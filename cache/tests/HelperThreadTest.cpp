// The loaders' helper thread: a job runs on another thread and is over when finish() returns,
// a job's failure reaches the caller of finish() instead of vanishing with the thread, and a
// helper that is destroyed while a job runs waits for it.
#include "cache/HelperThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <new>
#include <thread>

namespace DAT::NumberPortability {
namespace {

TEST(HelperThread, RunsEachJobElsewhereAndPassesItsFailureToFinish) {
  HelperThread helper;
  for (int round = 0; round < 100; ++round) {
    std::thread::id ranOn;
    int result = 0;
    helper.start([&] {
      ranOn = std::this_thread::get_id();
      result = round;
    });
    helper.finish();
    EXPECT_NE(ranOn, std::this_thread::get_id());
    EXPECT_EQ(result, round);
  }
  helper.start([] { throw std::bad_alloc(); });
  EXPECT_THROW(helper.finish(), std::bad_alloc);
  helper.finish();  // nothing given since: returns at once
  bool ran = false;
  helper.start([&] { ran = true; });
  helper.finish();
  EXPECT_TRUE(ran) << "a failed job must not stop the helper";
}

TEST(HelperThread, DestructionWaitsForTheJobThatRuns) {
  std::atomic<bool> started{false};
  std::atomic<bool> ended{false};
  {
    HelperThread helper;
    helper.start([&] {
      started = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      ended = true;
    });
    while (!started) std::this_thread::yield();
  }
  EXPECT_TRUE(ended);
}

}  // namespace
}  // namespace DAT::NumberPortability
