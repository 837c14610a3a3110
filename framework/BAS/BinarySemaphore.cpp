#include "BAS/BinarySemaphore.h"

#include "BAS/MutexLocker.h"

namespace BAS {

void BinarySemaphore::take() {
  MutexLocker locker(mutexM);
  while (takenM) freedM.wait(mutexM);
  takenM = true;
}

void BinarySemaphore::give() {
  // Notified with the lock held: a taker woken early may return and destroy the semaphore as
  // soon as the lock is free, which must not happen before the notification is done.
  MutexLocker locker(mutexM);
  takenM = false;
  freedM.notifyOne();
}

bool BinarySemaphore::tryTake() {
  MutexLocker locker(mutexM);
  if (takenM) return false;
  takenM = true;
  return true;
}

}  // namespace BAS
