// BAS::RWLock is the framework's readers-writer lock: any number of readers, or one writer.
// Readers are the hot path (one lookup each), so taking the read side must stay cheap.
// Use BAS::ReadLocker and BAS::WriteLocker to hold it for a scope.
#pragma once

#include "BAS/Export.h"
#include "BAS/ThreadAnnotations.h"

#include <shared_mutex>

namespace BAS {

class CAPABILITY("rwlock") BAS_EXPORT RWLock {
public:
  RWLock() = default;
  RWLock(const RWLock&) = delete;
  RWLock& operator=(const RWLock&) = delete;

  void readLock() ACQUIRE_SHARED() { lockM.lock_shared(); }
  void readUnlock() RELEASE_SHARED() { lockM.unlock_shared(); }
  void writeLock() ACQUIRE() { lockM.lock(); }
  void writeUnlock() RELEASE() { lockM.unlock(); }

private:
  std::shared_mutex lockM;
};

}  // namespace BAS
