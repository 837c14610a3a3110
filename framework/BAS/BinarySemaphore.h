// BAS::BinarySemaphore is a two-state signal, free or taken, that any thread may give:
// take() waits while it is taken, give() frees it and wakes one waiting taker, and giving a
// free signal leaves it free, so several gives before the next take count as one.
// Thread-safe. It guards no data; it orders a poster's writes before the taker's reads.
#pragma once

#include "BAS/Export.h"

#include <condition_variable>
#include <mutex>

namespace BAS {

class BAS_EXPORT BinarySemaphore {
public:
  BinarySemaphore() = default;
  BinarySemaphore(const BinarySemaphore&) = delete;
  BinarySemaphore& operator=(const BinarySemaphore&) = delete;

  void take();
  void give();
  // Takes the signal only if it is free; true when taken.
  bool tryTake();

private:
  std::mutex mutexM;
  std::condition_variable freedM;
  bool takenM = false;  // guarded by mutexM
};

}  // namespace BAS
