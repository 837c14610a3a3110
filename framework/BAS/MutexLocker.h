// BAS::MutexLocker holds a BAS::Mutex for the lifetime of a scope, exceptions included.
#pragma once

#include "BAS/Mutex.h"

namespace BAS {

class SCOPED_CAPABILITY MutexLocker {
public:
  explicit MutexLocker(Mutex& mutex) ACQUIRE(mutex) : mutexM(mutex) { mutexM.acquire(); }
  ~MutexLocker() RELEASE() { mutexM.release(); }
  MutexLocker(const MutexLocker&) = delete;
  MutexLocker& operator=(const MutexLocker&) = delete;

private:
  Mutex& mutexM;
};

}  // namespace BAS
