// BAS::WriteLocker holds the write side of a BAS::RWLock for a scope, exceptions included.
#pragma once

#include "BAS/RWLock.h"

namespace BAS {

class SCOPED_CAPABILITY WriteLocker {
public:
  explicit WriteLocker(RWLock& lock) ACQUIRE(lock) : lockM(lock) { lockM.writeLock(); }
  ~WriteLocker() RELEASE() { lockM.writeUnlock(); }
  WriteLocker(const WriteLocker&) = delete;
  WriteLocker& operator=(const WriteLocker&) = delete;

private:
  RWLock& lockM;
};

}  // namespace BAS
