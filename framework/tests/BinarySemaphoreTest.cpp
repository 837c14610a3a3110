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
  semaphore.take();  // a fresh semaphore is free
  expectTakeWaitsForGive(semaphore);

  semaphore.give();
  semaphore.give();
  semaphore.take();
  EXPECT_FALSE(semaphore.tryTake());
  expectTakeWaitsForGive(semaphore);
}

TEST(BinarySemaphoreTest, GiveOnAFreeSemaphoreChangesNothing) {
  BAS::BinarySemaphore semaphore;
  semaphore.give();
  EXPECT_TRUE(semaphore.tryTake());
  EXPECT_FALSE(semaphore.tryTake());
}

TEST(BinarySemaphoreTest, PingPongLosesNoSignal) {
  BAS::BinarySemaphore ping;
  BAS::BinarySemaphore pong;
  ping.take();
  pong.take();
  constexpr int roundsCM = 20000;
  int seenByPartner = 0;  // handed over by the semaphores alone
  int mismatches = 0;
  std::thread partner([&] {
    for (int i = 0; i < roundsCM; ++i) {
      ping.take();
      ++seenByPartner;
      pong.give();
    }
  });
  for (int i = 0; i < roundsCM; ++i) {
    ping.give();
    pong.take();
    if (seenByPartner != i + 1) ++mismatches;
  }
  partner.join();
  EXPECT_EQ(mismatches, 0);
}

}  // namespace
