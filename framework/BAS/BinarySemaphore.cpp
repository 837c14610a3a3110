#include "BAS/BinarySemaphore.h"

namespace BAS {

void BinarySemaphore::take() {
  std::unique_lock<std::mutex> lock(mutexM);
  freedM.wait(lock, [this] { return !takenM; });
  takenM = true;
}

void BinarySemaphore::give() {
  // Notified with the lock held: a taker woken early may return and destroy the semaphore as
  // soon as the lock is free, which must not happen before the notification is done.
  std::lock_guard<std::mutex> lock(mutexM);
  takenM = false;
  freedM.notify_one();
}

bool BinarySemaphore::tryTake() {
  std::lock_guard<std::mutex> lock(mutexM);
  if (takenM) return false;
  takenM = true;
  return true;
}

}  // namespace BAS
