// BAS::Thread is the framework's thread object. start() runs a functor on a new thread and
// returns once that thread runs; stop() requests cancellation and waits for the thread to end.
// Cancellation is cooperative: a thread ends at its next serviceCancel(); a sleepMs() or a
// suspension in serviceInterrupt() in progress is cut short so that it gets there promptly.
// A body that fails (an exception other than the cancellation) ends its thread only: the
// failure is reported to the framework log as "ERR_THREAD_FAILED" with the thread's name and
// the cause in words, and isRunning() is false from then on.
// Threads made with no owner belong to the framework, which stops and releases them when it
// ends (releaseOwnerless).
// start() and stop() are called by one controlling thread; the static operations act on the
// calling thread.
#pragma once

#include "BAS/ConditionVariable.h"
#include "BAS/Export.h"
#include "BAS/Mutex.h"
#include "BAS/String.h"

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace BAS {

class RegisteredObject;

class BAS_EXPORT Thread {
public:
  // `name` names the thread in the framework's messages about it; empty: "unnamed".
  explicit Thread(RegisteredObject* owner, const String& name = String());
  ~Thread();  // stops the thread if it still runs
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // False when the thread was started before.
  bool start(std::function<void()> body) EXCLUDES(mutexM);
  // Requests cancellation (and resumes an interrupted thread), then joins. Idempotent. Must not
  // be called from the thread itself (there it only requests cancellation).
  void stop() EXCLUDES(mutexM);
  bool isRunning() const { return runningM.load(); }
  const String& name() const { return nameM; }

  // Asks the thread to suspend at its next serviceInterrupt(); resume() lets it go on.
  void interrupt() EXCLUDES(mutexM);
  void resume() EXCLUDES(mutexM);

  // The thread object of the calling thread; null on threads that BAS::Thread did not start.
  static Thread* current();
  // Service points, to be called on a thread that BAS::Thread started (no-ops elsewhere).
  // serviceInterrupt() stays suspended while an interrupt is pending; serviceCancel() ends the
  // thread (it does not return) when cancellation was requested.
  static void serviceInterrupt();
  static void serviceCancel();
  // Sleeps; on a BAS::Thread a cancellation request cuts the sleep short.
  static void sleepMs(unsigned milliseconds);

  // Stops and deletes every thread object that was made with no owner. The framework calls it
  // when it ends; owner-less thread objects are never deleted by the code that made them.
  static void releaseOwnerless();

private:
  void runBody() EXCLUDES(mutexM);
  // Writes "ERR_THREAD_FAILED" with `cause` (empty: it could not be put into words) to the
  // framework log, on the failed thread.
  void reportFailure(const std::string& cause) const noexcept;

  RegisteredObject* ownerM;  // set at construction, then only read
  const String nameM;        // set at construction, then only read
  // Written by start() before the thread exists (making the thread orders it before the
  // thread's reads), then read and reset by the thread alone: no lock.
  std::function<void()> bodyM;
  std::thread threadM;    // touched by the controlling thread only: no lock
  bool startedM = false;  // touched by the controlling thread only: no lock
  Mutex mutexM;
  ConditionVariable changedM;  // notified when any field below that mutexM guards changes
  bool enteredM GUARDED_BY(mutexM) = false;  // the new thread has begun to run
  bool cancelRequestedM GUARDED_BY(mutexM) = false;
  bool interruptRequestedM GUARDED_BY(mutexM) = false;
  // Set by start(), cleared by the thread as it ends; atomic, read by any thread without a lock.
  std::atomic<bool> runningM{false};
};

}  // namespace BAS
