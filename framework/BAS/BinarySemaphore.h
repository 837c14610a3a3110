// BAS::BinarySemaphore is a two-state signal, free or taken, that any thread may give:
// take() waits while it is taken, give() frees it and wakes one waiting taker, and giving a
// free signal leaves it free, so several gives before the next take count as one.
// Thread-safe. It guards no data; it orders a poster's writes before the taker's reads.
#pragma once

#include "BAS/ConditionVariable.h"
#include "BAS/Export.h"
#include "BAS/Mutex.h"

namespace BAS {

class BAS_EXPORT BinarySemaphore {
public:
  BinarySemaphore() = default;
  BinarySemaphore(const BinarySemaphore&) = delete;
  BinarySemaphore& operator=(const BinarySemaphore&) = delete;

  void take() EXCLUDES(mutexM);
  void give() EXCLUDES(mutexM);
  // Takes the signal only if it is free; true when taken.
  bool tryTake() EXCLUDES(mutexM);

private:
  Mutex mutexM;
  ConditionVariable freedM;
  bool takenM GUARDED_BY(mutexM) = false;
};

}  // namespace BAS
