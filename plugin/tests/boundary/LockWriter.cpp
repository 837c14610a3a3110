// A library built as the plug-in library is (hidden visibility, one exported function): the
// writer side of a BAS::RWLock compiled into a binary other than the readers'.
#include "BAS/WriteLocker.h"

#include <chrono>
#include <thread>

extern "C" __attribute__((visibility("default"))) void npHoldWriteLock(BAS::RWLock* lock, int milliseconds) {
  BAS::WriteLocker locker(*lock);
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}
