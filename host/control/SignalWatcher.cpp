#include "host/control/SignalWatcher.h"

#include <unistd.h>

#include <atomic>
#include <csignal>

namespace Host {

namespace {

// Touched by the handler, so only lock-free atomics and a descriptor written before the
// handler is installed and cleared after it is removed.
std::atomic<int> signalCountG{0};
int writeEndG = -1;
struct sigaction previousIntG {};
struct sigaction previousTermG {};

void onSignal(int number) {
  // Only async-signal-safe calls: an atomic increment, write and _exit.
  if (signalCountG.fetch_add(1) > 0) _exit(SignalWatcher::exitOffsetCM + number);
  SelfPipe::notify(writeEndG);
}

}  // namespace

bool SignalWatcher::install() {
  if (!pipeM.open()) return false;
  writeEndG = pipeM.writeEnd();
  signalCountG = 0;

  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  // Restarted system calls keep the threads that do not poll the pipe from seeing EINTR.
  action.sa_flags = SA_RESTART;
  if (sigaction(SIGINT, &action, &previousIntG) != 0) {
    writeEndG = -1;
    pipeM = SelfPipe();
    return false;
  }
  if (sigaction(SIGTERM, &action, &previousTermG) != 0) {
    sigaction(SIGINT, &previousIntG, nullptr);
    writeEndG = -1;
    pipeM = SelfPipe();
    return false;
  }
  installedM = true;
  return true;
}

SignalWatcher::~SignalWatcher() {
  if (installedM) {
    sigaction(SIGINT, &previousIntG, nullptr);
    sigaction(SIGTERM, &previousTermG, nullptr);
  }
  // The pipe closes after this, once no handler can write to it.
  writeEndG = -1;
}

}  // namespace Host
