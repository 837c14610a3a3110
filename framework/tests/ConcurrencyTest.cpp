// The framework's waiting and waking: condition variable, signal, readers-writer lock and
// threads. A wake-up that never comes shows as a hang, which the watchdog turns into a failure.
#include "BAS/BinarySemaphore.h"
#include "BAS/CapacityExceeded.h"
#include "BAS/Framework.h"
#include "BAS/LongReadLocker.h"
#include "BAS/MemoryLogSink.h"
#include "BAS/MutexLocker.h"
#include "BAS/ReadLocker.h"
#include "BAS/Thread.h"
#include "BAS/WriteLocker.h"
#include "testing/EndsWithoutHanging.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using NpTest::endsWithoutHanging;

using namespace std::chrono_literals;


struct Shared {
  BAS::Mutex mutex;
  BAS::ConditionVariable condition;
  bool waiting GUARDED_BY(mutex) = false;
  bool go GUARDED_BY(mutex) = false;
};

TEST(ConditionVariable, NotifyWakesAWaiterAndWaitUntilAnswersFalseWhenItsDeadlinePassed) {
  Shared s;
  std::atomic<bool> notified{false};
  std::thread waiter([&s, &notified] {
    BAS::MutexLocker locker(s.mutex);
    s.waiting = true;  // and waits under the same hold of the mutex
    while (!s.go) notified = s.condition.waitUntil(s.mutex, BAS::ConditionVariable::Clock::now() + 1h);
  });
  for (bool waiting = false; !waiting; std::this_thread::yield()) {
    BAS::MutexLocker locker(s.mutex);
    s.go = waiting = s.waiting;
  }
  s.condition.notifyAll();
  endsWithoutHanging([&] { waiter.join(); });
  EXPECT_TRUE(notified);
  BAS::MutexLocker locker(s.mutex);
  EXPECT_FALSE(s.condition.waitUntil(s.mutex, BAS::ConditionVariable::Clock::now() + 1ms));
}

// 'g' gives; 't' is a tryTake that must succeed, 'f' one that must fail. Then each take must wait
// for the partner's give and be woken by it, or a count goes wrong or the ping-pong hangs.
TEST(BinarySemaphore, TryTakeSucceedsOnlyOnAFreeSignalGivesDoNotAddUpAndPingPongLosesNoSignal) {
  for (const std::string ops : {"tf", "tgtf", "ggtf", "tggtf", "gtgtgtf"}) {
    BAS::BinarySemaphore semaphore;
    for (std::size_t i = 0; i < ops.size(); ++i) {
      if (ops[i] == 'g') semaphore.give();
      else EXPECT_EQ(semaphore.tryTake(), ops[i] == 't') << ops << " at " << i;
    }
  }
  BAS::BinarySemaphore ping, pong;
  ping.take(), pong.take();
  int seenByPartner = 0, mismatches = 0;  // handed over by the semaphores alone
  std::thread partner([&] {
    for (int i = 0; i < 20000; ++i) ping.take(), ++seenByPartner, pong.give();
  });
  endsWithoutHanging([&] {
    for (int i = 0; i < 20000; ++i) ping.give(), pong.take(), mismatches += seenByPartner != i + 1;
  });
  partner.join();
  EXPECT_EQ(mismatches, 0);
}

// Neither a reader nor another writer may find a writer inside. One writer holds on long enough
// that readers go to sleep and must be woken.
TEST(RWLock, WritersExcludeReadersAndEachOtherAndWakeSleepingReaders) {
  BAS::RWLock lock;
  std::atomic<int> writersInside{0};
  std::atomic<long> overlaps{0};
  std::vector<std::thread> threads;
  for (unsigned reader = 0; reader < 4 * std::max(2u, std::thread::hardware_concurrency()); ++reader) {
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; ++i) {
        BAS::ReadLocker locker(lock);
        overlaps += writersInside != 0;
      }
    });
  }
  for (int writer = 0; writer < 3; ++writer) {
    threads.emplace_back([&, writer] {
      for (int i = 0; i < 500; ++i) {
        BAS::WriteLocker locker(lock);
        overlaps += writersInside++ != 0;
        if (writer == 0 && i % 50 == 0) std::this_thread::sleep_for(2ms);
        std::this_thread::yield();
        --writersInside;
      }
    });
  }
  endsWithoutHanging([&] {
    for (std::thread& thread : threads) thread.join();
  });
  EXPECT_EQ(overlaps, 0);
}

// Once a writer waits, a reader that comes later waits behind it: the writer waits only for the
// readers that were inside, so no stream of readers can keep it out. A dump holds the read side
// for as long as its reader takes: a writer waits for it without shutting lookups out meanwhile,
// and a dump that comes later waits behind the writer.
TEST(RWLock, AWriterWaitsForTheReaderInsideAndALaterReaderOfItsKindWaitsBehindIt) {
  struct Case {
    const char* inside;
    void (BAS::RWLock::*hold)();
    void (BAS::RWLock::*release)();
    bool isLong;  // a dump: lookups pass the waiting writer, the later reader is a dump too
  };
  for (const Case& c : {Case{"a reader", &BAS::RWLock::readLock, &BAS::RWLock::readUnlock, false},
                        Case{"a long reader", &BAS::RWLock::longReadLock, &BAS::RWLock::longReadUnlock, true}}) {
    SCOPED_TRACE(c.inside);
    BAS::RWLock lock;
    std::atomic<bool> writerWaiting{false}, writerIn{false}, laterIn{false}, laterSawWriter{false};
    (lock.*c.hold)();
    std::thread writer([&] {
      writerWaiting = true;
      BAS::WriteLocker locker(lock);
      writerIn = true;
      std::this_thread::sleep_for(5ms);
    });
    while (!writerWaiting) std::this_thread::yield();
    std::this_thread::sleep_for(50ms);  // lets the writer close the gate and wait
    std::thread later([&] {
      const auto enter = [&] { laterSawWriter = writerIn.load(), laterIn = true; };
      if (c.isLong) {
        BAS::LongReadLocker locker(lock);
        enter();
      } else {
        BAS::ReadLocker locker(lock);
        enter();
      }
    });
    if (c.isLong) {
      endsWithoutHanging([&] {
        std::vector<std::thread> lookups;
        for (int t = 0; t < 4; ++t) {
          lookups.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) BAS::ReadLocker locker(lock);
          });
        }
        for (std::thread& lookup : lookups) lookup.join();
      });
    }
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(writerIn) << "the writer got in while " << c.inside << " was inside";
    EXPECT_FALSE(laterIn) << "a later reader passed a waiting writer";
    (lock.*c.release)();
    endsWithoutHanging([&] { writer.join(), later.join(); });
    EXPECT_TRUE(laterSawWriter);
  }
}

// A body that holds a share of `held` while it services its points; cancellation must unwind it
// and the thread must let go of the body, or the count stays up.
std::function<void()> worker(const std::shared_ptr<int>& held, unsigned sleepMs) {
  return [held, sleepMs] {
    const std::shared_ptr<int> inside = held;
    while (true) BAS::Thread::serviceInterrupt(), BAS::Thread::serviceCancel(), BAS::Thread::sleepMs(sleepMs);
  };
}

TEST(Thread, RunsItsBodyOnceOnItsOwnThreadStopCutsAnHourLongSleepShortAndAFailingBodyEndsOnlyItsThread) {
  BAS::Thread thread(nullptr), failing(nullptr);
  std::atomic<BAS::Thread*> seenCurrent{nullptr};
  const auto held = std::make_shared<int>();
  auto body = worker(held, 3600 * 1000);
  ASSERT_TRUE(thread.start([&seenCurrent, body = std::move(body)] { seenCurrent = BAS::Thread::current(), body(); }));
  EXPECT_TRUE(thread.isRunning() && !thread.start([] {}) && BAS::Thread::current() == nullptr);
  std::this_thread::sleep_for(20ms);  // lets the loop reach its sleep
  endsWithoutHanging([&] { thread.stop(), thread.stop(); });
  EXPECT_TRUE(seenCurrent == &thread && held.use_count() == 1 && !thread.isRunning() && !thread.start([] {}));
  ASSERT_TRUE(failing.start([] { throw std::runtime_error("body failed"); }));
  endsWithoutHanging([&] { failing.stop(); });
  EXPECT_FALSE(failing.isRunning());
  // Outside a framework thread the service points are no-ops; a never-started thread stops.
  BAS::Thread::serviceInterrupt(), BAS::Thread::serviceCancel(), BAS::Thread(nullptr).stop();
}

// A body that fails ends its thread only, and the log says which thread and why in words.
TEST(Thread, AFailingBodyIsReportedWithTheThreadsNameAndTheCauseAndEndsItsThread) {
  BAS::Framework framework;
  const auto sink = std::make_shared<BAS::MemoryLogSink>();
  framework.log().addSink(sink);
  const struct {
    const char* name;
    std::function<void()> body;
    std::string cause;
  } rows[] = {
      {"loader", [] { throw BAS::CapacityExceeded("more than 3 things"); }, "more than 3 things"},
      {"", [] { throw std::bad_alloc(); }, "memory ran out (std::bad_alloc)"},
      {"worker", [] { throw std::runtime_error("disk on fire"); }, "std::runtime_error: disk on fire"},
      {"odd", [] { throw 7; }, "an exception of an unknown type"},
  };
  for (const auto& row : rows) {
    sink->clear();
    BAS::Thread thread(nullptr, row.name);
    ASSERT_TRUE(thread.start(row.body));
    ASSERT_TRUE(sink->waitFor("ERR_THREAD_FAILED", 1, 30s)) << row.cause;
    const BAS::LogRecord record = sink->withId("ERR_THREAD_FAILED").at(0);
    EXPECT_EQ(record.args, (std::vector<BAS::String>{*row.name ? row.name : "unnamed", row.cause}));
    EXPECT_EQ(record.severity, 5);
    endsWithoutHanging([&] { thread.stop(); });
    EXPECT_FALSE(thread.isRunning());
  }
  // Its own cancellation is no failure.
  sink->clear();
  BAS::Thread cancelled(nullptr, "cancelled");
  ASSERT_TRUE(cancelled.start(worker(std::make_shared<int>(), 10)));
  endsWithoutHanging([&] { cancelled.stop(); });
  EXPECT_EQ(sink->count("ERR_THREAD_FAILED"), 0u);
}

TEST(Thread, InterruptSuspendsUntilResumeAndTheFrameworkStopsAndReleasesOwnerlessThreads) {
  BAS::BinarySemaphore go, passed;
  go.take(), passed.take();
  const auto held = std::make_shared<int>();
  auto* thread = new BAS::Thread(nullptr);  // owner-less: the release below deletes it
  auto body = worker(held, 500);
  ASSERT_TRUE(thread->start([&go, &passed, body = std::move(body)] {
    go.take(), BAS::Thread::serviceInterrupt(), passed.give(), body();
  }));
  thread->interrupt();
  go.give();
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(passed.tryTake());
  thread->resume();
  endsWithoutHanging([&] { passed.take(); });
  thread->interrupt();
  delete new BAS::Thread(nullptr);  // deleted by its maker, so it must have left the list
  for (int i = 0; i < 2; ++i) ASSERT_TRUE((new BAS::Thread(nullptr))->start(worker(held, 500)));
  endsWithoutHanging([] { BAS::Thread::releaseOwnerless(); });
  EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
