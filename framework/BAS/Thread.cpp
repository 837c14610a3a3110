#include "BAS/Thread.h"

#include "BAS/FailureText.h"
#include "BAS/Framework.h"
#include "BAS/Log.h"
#include "BAS/MutexLocker.h"
#include "BAS/RegisteredObject.h"
#include "BAS/Status.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cxxabi.h>
#include <string>
#include <system_error>
#include <vector>

namespace BAS {

namespace {

// Thrown by serviceCancel() and caught by the trampoline only. Cancellation must end the body
// from deep inside plug-in code while running the destructors of everything it holds (locks,
// open files), as a thread library's cancellation unwinds a thread; an exception is the one
// mechanism of the language that does this, so it is the framework's single use of one. It
// deliberately derives from nothing, so that a body's catch of std::exception lets it pass.
struct CancelRequest {};

// Each thread's own: no lock.
thread_local Thread* currentThread = nullptr;

// The owner-less thread objects of the process. Made on first use and never destroyed, so
// that a thread object released late in process exit still finds it.
struct OwnerlessList {
  Mutex mutexM;
  std::vector<Thread*> threadsM GUARDED_BY(mutexM);
};

OwnerlessList& ownerless() {
  static OwnerlessList* list = new OwnerlessList;
  return *list;
}

}  // namespace

Thread::Thread(RegisteredObject* owner, const String& name) : ownerM(owner), nameM(name) {
  if (ownerM == nullptr) {
    OwnerlessList& list = ownerless();
    MutexLocker locker(list.mutexM);
    list.threadsM.push_back(this);
  }
}

Thread::~Thread() {
  stop();
  if (ownerM == nullptr) {
    OwnerlessList& list = ownerless();
    MutexLocker locker(list.mutexM);
    std::erase(list.threadsM, this);
  }
}

bool Thread::start(std::function<void()> body) {
  if (startedM || !body) return false;
  startedM = true;
  bodyM = std::move(body);
  runningM.store(true);
  try {
    threadM = std::thread([this] { runBody(); });
  } catch (const std::system_error&) {
    // No thread could be made: report it as a failed start rather than let it escape.
    bodyM = nullptr;
    runningM.store(false);
    return false;
  }
  MutexLocker locker(mutexM);
  while (!enteredM) changedM.wait(mutexM);
  return true;
}

void Thread::stop() {
  {
    MutexLocker locker(mutexM);
    cancelRequestedM = true;
    interruptRequestedM = false;
  }
  changedM.notifyAll();
  // Joining itself would never return; the thread ends at its next serviceCancel() instead.
  if (currentThread == this || !threadM.joinable()) return;
  threadM.join();
}

void Thread::interrupt() {
  MutexLocker locker(mutexM);
  interruptRequestedM = true;
}

void Thread::resume() {
  {
    MutexLocker locker(mutexM);
    interruptRequestedM = false;
  }
  changedM.notifyAll();
}

Thread* Thread::current() { return currentThread; }

void Thread::serviceInterrupt() {
  Thread* self = currentThread;
  if (self == nullptr) return;
  MutexLocker locker(self->mutexM);
  while (self->interruptRequestedM && !self->cancelRequestedM) self->changedM.wait(self->mutexM);
}

void Thread::serviceCancel() {
  Thread* self = currentThread;
  if (self == nullptr) return;
  bool cancelled;
  {
    MutexLocker locker(self->mutexM);
    cancelled = self->cancelRequestedM;
  }
  if (cancelled) throw CancelRequest{};
}

void Thread::sleepMs(unsigned milliseconds) {
  Thread* self = currentThread;
  if (self == nullptr) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    return;
  }
  MutexLocker locker(self->mutexM);
  const auto deadline = ConditionVariable::Clock::now() + std::chrono::milliseconds(milliseconds);
  while (!self->cancelRequestedM) {
    if (!self->changedM.waitUntil(self->mutexM, deadline)) return;
  }
}

void Thread::releaseOwnerless() {
  OwnerlessList& list = ownerless();
  // A thread being stopped may itself make owner-less threads, so take turns until none is left.
  while (true) {
    std::vector<Thread*> threads;
    {
      MutexLocker locker(list.mutexM);
      threads.swap(list.threadsM);
    }
    if (threads.empty()) return;
    // Deleted outside the lock: each destructor takes it to remove itself (and finds nothing).
    for (Thread* thread : threads) delete thread;
  }
}

void Thread::runBody() {
  // Runs on every way out, also when the thread is ended by a forced unwind we must let pass.
  // The body is dropped here, on the thread itself, so that once the thread has ended nothing
  // refers to the code of a plug-in library that may be unloaded next.
  struct EndOfThread {
    Thread* self;
    ~EndOfThread() {
      self->bodyM = nullptr;
      currentThread = nullptr;
      self->runningM.store(false);
    }
  };

  currentThread = this;
  {
    MutexLocker locker(mutexM);
    enteredM = true;
  }
  changedM.notifyAll();

  bool failed = false;
  std::string cause;
  {
    EndOfThread end{this};
    try {
      bodyM();
    } catch (const CancelRequest&) {
      // The requested end.
    } catch (const abi::__forced_unwind&) {
      // pthread_exit or a thread library's cancellation: swallowing it would abort the process.
      throw;
    } catch (...) {
      // A body that fails ends its thread only; the process and its other threads go on. Put
      // into words here, while the failure's code (perhaps a plug-in's) is surely still loaded.
      failed = true;
      try {
        cause = failureText(std::current_exception());
      } catch (...) {
        // Left empty: reportFailure says what it can.
      }
    }
  }
  // Said once the thread counts as ended, so that whoever reads the report finds it stopped.
  // Nobody else sees the failure, so the log must say it.
  if (failed) reportFailure(cause);
}

void Thread::reportFailure(const std::string& cause) const noexcept {
  try {
    Status status;
    status.set(ownerM != nullptr ? ownerM->lockedName() : String(), "ERR_THREAD_FAILED", Status::CRITICAL,
               std::vector<String>{nameM.empty() ? String("unnamed") : nameM,
                                   cause.empty() ? String("memory ran out while the failure was put into words") : String(cause)});
    if (Framework* framework = Framework::current()) {
      framework->log().writeStatus(status);
    } else {
      const std::string line = Log::formatLine(Log::statusRecord(status), Log::Format::TEXT);
      std::fprintf(stderr, "%s\n", line.c_str());
    }
  } catch (...) {
    // Memory ran out again while the failure was being said: nothing is left to say it with,
    // and the thread must still end rather than take the process with it.
  }
}

}  // namespace BAS
