// The plug-in's wake-up signal: taken by the worker, given by any other thread.
#include "BAS/BinarySemaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

// Checks that a take on another thread waits until this thread gives.
void expectTakeWaitsForGive(BAS::BinarySemaphore& semaphore) {
  std::atomic<bool> taken{false};
  std::thread taker([&] {
    semaphore.take();
    taken = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(taken);
  semaphore.give();
  taker.join();
  EXPECT_TRUE(taken);
}

TEST(BinarySemaphoreTest, TakeWaitsWhileTakenAndGivesDoNotAddUp) {
  BAS::BinarySemaphore semaphore;
  EXPECT_TRUE(semaphore.tryTake()) << "a fresh semaphore is free";
  expectTakeWaitsForGive(semaphore);
  semaphore.give();
  semaphore.give();  // giving a free semaphore changes nothing
  EXPECT_TRUE(semaphore.tryTake());
  EXPECT_FALSE(semaphore.tryTake());
  expectTakeWaitsForGive(semaphore);
}

TEST(BinarySemaphoreTest, PingPongLosesNoSignal) {
  BAS::BinarySemaphore ping;
  BAS::BinarySemaphore pong;
  ping.take();
  pong.take();
  constexpr int rounds = 20000;
  int seenByPartner = 0;  // handed over by the semaphores alone
  int mismatches = 0;
  std::thread partner([&] {
    for (int i = 0; i < rounds; ++i) {
      ping.take();
      ++seenByPartner;
      pong.give();
    }
  });
  for (int i = 0; i < rounds; ++i) {
    ping.give();
    pong.take();
    mismatches += seenByPartner != i + 1 ? 1 : 0;
  }
  partner.join();
  EXPECT_EQ(mismatches, 0);
}

}  // namespace
