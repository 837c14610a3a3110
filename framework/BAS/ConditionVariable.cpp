#include "BAS/ConditionVariable.h"

#include <mutex>

namespace BAS {

// The mutex is already held by the caller: the unique_lock adopts it for the wait and gives it
// back, still held, without unlocking it on the way out.
void ConditionVariable::wait(Mutex& mutex) {
  std::unique_lock<std::mutex> lock(mutex.native(), std::adopt_lock);
  conditionM.wait(lock);
  lock.release();
}

bool ConditionVariable::waitUntil(Mutex& mutex, Clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(mutex.native(), std::adopt_lock);
  const bool notified = conditionM.wait_until(lock, deadline) == std::cv_status::no_timeout;
  lock.release();
  return notified || Clock::now() < deadline;
}

void ConditionVariable::notifyOne() { conditionM.notify_one(); }

void ConditionVariable::notifyAll() { conditionM.notify_all(); }

}  // namespace BAS
