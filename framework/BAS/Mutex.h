// BAS::Mutex is the framework's mutual exclusion lock, annotated so that clang can check
// which fields it guards. Not recursive. Use BAS::MutexLocker to hold it for a scope.
#pragma once

#include "BAS/Export.h"
#include "BAS/ThreadAnnotations.h"

#include <mutex>

namespace BAS {

class CAPABILITY("mutex") BAS_EXPORT Mutex {
public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void acquire() ACQUIRE() { mutexM.lock(); }
  void release() RELEASE() { mutexM.unlock(); }

private:
  // Only the condition variable reaches the mutex underneath, to wait on it; anyone else
  // locking it directly would do so behind the analysis's back.
  friend class ConditionVariable;
  std::mutex& native() { return mutexM; }

  std::mutex mutexM;
};

}  // namespace BAS
