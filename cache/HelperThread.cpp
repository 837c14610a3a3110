#include "cache/HelperThread.h"

#include "BAS/MutexLocker.h"

#include <utility>

namespace DAT::NumberPortability {

HelperThread::HelperThread() : threadM([this] { run(); }) {}

HelperThread::~HelperThread() {
  {
    BAS::MutexLocker locker(mutexM);
    stopM = true;
  }
  changedM.notifyAll();
  threadM.join();
}

void HelperThread::start(std::function<void()> job) {
  {
    BAS::MutexLocker locker(mutexM);
    jobM = std::move(job);
    busyM = true;
  }
  changedM.notifyAll();
}

void HelperThread::finish() {
  std::exception_ptr failure;
  {
    BAS::MutexLocker locker(mutexM);
    while (busyM) changedM.wait(mutexM);
    failure = std::exchange(failureM, nullptr);
  }
  if (failure) std::rethrow_exception(failure);
}

bool HelperThread::busy() {
  BAS::MutexLocker locker(mutexM);
  return busyM;
}

PBC::BothJobs HelperThread::bothJobs() {
  return [this](const std::function<void()>& first, const std::function<void()>& second) {
    start(second);
    try {
      first();
    } catch (...) {
      // The second job may still use what the first one's failure is about to unwind.
      finish();
      throw;
    }
    finish();
  };
}

void HelperThread::run() {
  for (;;) {
    std::function<void()> job;
    {
      BAS::MutexLocker locker(mutexM);
      // A job given before the stop still runs, so that finish() never waits for ever.
      while (!busyM && !stopM) changedM.wait(mutexM);
      if (!busyM) return;
      job = std::move(jobM);
    }
    std::exception_ptr failure;
    try {
      job();
    } catch (...) {
      failure = std::current_exception();
    }
    {
      BAS::MutexLocker locker(mutexM);
      failureM = failure;
      busyM = false;
    }
    changedM.notifyAll();
  }
}

}  // namespace DAT::NumberPortability
