// DAT::NumberPortability::HelperThread is a second thread that a load, reload, delta load or
// dump keeps for its duration, to run one job at a time beside its own work on the machine's
// other processor: parsing blocks of lines, inserting a chunk while the next one is read,
// formatting half of a dump. The operation that owns it is its only client. start() and finish() are called by that
// one thread; the job runs on the helper.
#pragma once

#include "BAS/ConditionVariable.h"
#include "BAS/Mutex.h"
#include "BAS/ThreadAnnotations.h"
#include "store/BothJobs.h"

#include <exception>
#include <functional>
#include <thread>

namespace DAT::NumberPortability {

class HelperThread {
public:
  HelperThread();
  // Waits for a job still running, then ends the thread.
  ~HelperThread();
  HelperThread(const HelperThread&) = delete;
  HelperThread& operator=(const HelperThread&) = delete;

  // Hands `job` to the helper and returns at once. REQUIRES: the job before was finished.
  void start(std::function<void()> job) EXCLUDES(mutexM);
  // Waits until the job given to start has ended; rethrows what it threw. Returns at once when
  // no job was given.
  void finish() EXCLUDES(mutexM);
  // Whether the job given to start is still running.
  bool busy() EXCLUDES(mutexM);
  // Runs two jobs at once, the second on this helper, and returns once both have ended,
  // passing on what either threw. REQUIRES: no job of start() is running; the helper
  // outlives the result.
  PBC::BothJobs bothJobs();

private:
  void run() EXCLUDES(mutexM);

  BAS::Mutex mutexM;
  BAS::ConditionVariable changedM;  // notified when any field that mutexM guards changes
  std::function<void()> jobM GUARDED_BY(mutexM);
  bool busyM GUARDED_BY(mutexM) = false;  // a job was given and has not ended
  bool stopM GUARDED_BY(mutexM) = false;
  std::exception_ptr failureM GUARDED_BY(mutexM);
  std::thread threadM;  // started by the constructor, joined by the destructor: no lock
};

}  // namespace DAT::NumberPortability
