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
  std::mutex& native() { return mutexM; }

private:
  std::mutex mutexM;
};

}  // namespace BAS
