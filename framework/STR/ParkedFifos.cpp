#include "STR/ParkedFifos.h"

#include "BAS/Mutex.h"
#include "BAS/MutexLocker.h"

#include <unistd.h>
#include <vector>

namespace STR {

namespace {

struct Parked {
  int descriptorM;
  dev_t deviceM;
  ino_t inodeM;
  std::chrono::steady_clock::time_point untilM;
};

struct Parking {
  BAS::Mutex mutexM;
  std::vector<Parked> parkedM GUARDED_BY(mutexM);

  // Under the lock: close(2) of a FIFO reader does not block.
  void closeExpired(std::chrono::steady_clock::time_point now) REQUIRES(mutexM) {
    std::erase_if(parkedM, [now](const Parked& parked) {
      if (parked.untilM > now) return false;
      ::close(parked.descriptorM);
      return true;
    });
  }
};

// Never destroyed: a library keeps no global with a destructor.
Parking& parking() {
  static Parking* const instance = new Parking;
  return *instance;
}

}  // namespace

void ParkedFifos::park(int descriptor, dev_t device, ino_t inode) {
  const auto now = std::chrono::steady_clock::now();
  Parking& place = parking();
  BAS::MutexLocker locker(place.mutexM);
  place.closeExpired(now);
  place.parkedM.push_back(Parked{descriptor, device, inode, now + keepCM});
}

int ParkedFifos::take(dev_t device, ino_t inode) {
  Parking& place = parking();
  BAS::MutexLocker locker(place.mutexM);
  place.closeExpired(std::chrono::steady_clock::now());
  for (auto parked = place.parkedM.begin(); parked != place.parkedM.end(); ++parked) {
    if (parked->deviceM == device && parked->inodeM == inode) {
      const int descriptor = parked->descriptorM;
      place.parkedM.erase(parked);
      return descriptor;
    }
  }
  return -1;
}

void ParkedFifos::closeExpired() {
  Parking& place = parking();
  BAS::MutexLocker locker(place.mutexM);
  if (!place.parkedM.empty()) place.closeExpired(std::chrono::steady_clock::now());
}

}  // namespace STR
