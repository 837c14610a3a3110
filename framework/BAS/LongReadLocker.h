// BAS::LongReadLocker holds the read side of a BAS::RWLock for a scope as a long reader (a dump
// that writes as fast as its reader takes it), exceptions included: lookups keep entering while
// it is held, also once a writer waits for it.
#pragma once

#include "BAS/RWLock.h"

namespace BAS {

class SCOPED_CAPABILITY LongReadLocker {
public:
  explicit LongReadLocker(RWLock& lock) ACQUIRE_SHARED(lock) : lockM(lock) { lockM.longReadLock(); }
  ~LongReadLocker() RELEASE_GENERIC() { lockM.longReadUnlock(); }
  LongReadLocker(const LongReadLocker&) = delete;
  LongReadLocker& operator=(const LongReadLocker&) = delete;

private:
  RWLock& lockM;
};

}  // namespace BAS
