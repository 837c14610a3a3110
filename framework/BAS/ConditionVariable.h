// BAS::ConditionVariable lets a thread that holds a BAS::Mutex sleep until another thread
// changes what the mutex guards and notifies. It lives beside BAS::Mutex so that every wait in
// the project is made with a lock the thread-safety analysis knows: the caller holds the mutex
// before and after each wait, and tests its condition in a loop of its own, where the analysis
// sees the guarded fields read under the lock. Used by the framework, the host and its tests.
#pragma once

#include "BAS/Export.h"
#include "BAS/Mutex.h"

#include <chrono>
#include <condition_variable>

namespace BAS {

class BAS_EXPORT ConditionVariable {
public:
  using Clock = std::chrono::steady_clock;

  ConditionVariable() = default;
  ConditionVariable(const ConditionVariable&) = delete;
  ConditionVariable& operator=(const ConditionVariable&) = delete;

  // Releases `mutex`, sleeps until notified (or woken spuriously) and takes `mutex` again.
  void wait(Mutex& mutex) REQUIRES(mutex);
  // As wait, but gives up at `deadline`; false when the deadline had passed on waking.
  bool waitUntil(Mutex& mutex, Clock::time_point deadline) REQUIRES(mutex);

  void notifyOne();
  void notifyAll();

private:
  std::condition_variable conditionM;  // has its own synchronisation
};

}  // namespace BAS
