#include "host/control/SignalWatcher.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstddef>

namespace Host {

namespace {

// Touched by the handlers, so only lock-free atomics and a descriptor written before the
// handlers are installed and cleared after they are removed.
std::atomic<int> signalCountG{0};
std::atomic<bool> hangUpG{false};
std::atomic<int> firstSignalG{0};  // the number of the signal that asked the run to end
int writeEndG = -1;

static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void onEnd(int number) {
  // Only async-signal-safe calls: an atomic increment, write and _exit.
  if (signalCountG.fetch_add(1) > 0) _exit(SignalWatcher::exitOffsetCM + number);
  firstSignalG.store(number);
  SelfPipe::notify(writeEndG);
}

void onHangUp(int) { hangUpG.store(true); }

struct Handled {
  int number;
  void (*handler)(int);
  struct sigaction previous;
};
// Installed and restored by the one watcher of the process, on one thread.
Handled handledG[] = {{SIGINT, onEnd, {}}, {SIGTERM, onEnd, {}}, {SIGHUP, onHangUp, {}}};

void restore(std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) sigaction(handledG[i].number, &handledG[i].previous, nullptr);
}

}  // namespace

bool SignalWatcher::takeHangUp() { return hangUpG.exchange(false); }

const char* SignalWatcher::firstSignalName() {
  switch (firstSignalG.load()) {
    case SIGINT: return "SIGINT";
    case SIGTERM: return "SIGTERM";
    default: return "";
  }
}

bool SignalWatcher::install() {
  if (!pipeM.open()) return false;
  writeEndG = pipeM.writeEnd();
  signalCountG = 0;
  hangUpG = false;
  firstSignalG = 0;

  for (std::size_t i = 0; i < std::size(handledG); ++i) {
    struct sigaction action {};
    action.sa_handler = handledG[i].handler;
    sigemptyset(&action.sa_mask);
    // Restarted system calls keep the threads that do not poll the pipe from seeing EINTR.
    action.sa_flags = SA_RESTART;
    if (sigaction(handledG[i].number, &action, &handledG[i].previous) != 0) {
      restore(i);
      writeEndG = -1;
      pipeM = SelfPipe();
      return false;
    }
  }
  installedM = true;
  return true;
}

SignalWatcher::~SignalWatcher() {
  if (installedM) restore(std::size(handledG));
  // The pipe closes after this, once no handler can write to it.
  writeEndG = -1;
}

}  // namespace Host
