// BAS::ReadLocker holds the read side of a BAS::RWLock for a scope, exceptions included.
#pragma once

#include "BAS/RWLock.h"

namespace BAS {

class SCOPED_CAPABILITY ReadLocker {
public:
  explicit ReadLocker(RWLock& lock) ACQUIRE_SHARED(lock) : lockM(lock) { lockM.readLock(); }
  ~ReadLocker() RELEASE_GENERIC() { lockM.readUnlock(); }
  ReadLocker(const ReadLocker&) = delete;
  ReadLocker& operator=(const ReadLocker&) = delete;

private:
  RWLock& lockM;
};

}  // namespace BAS
