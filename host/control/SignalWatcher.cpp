#include "host/control/SignalWatcher.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <utility>

namespace Host {

namespace {

// Touched by the handler, so only lock-free atomics and a descriptor written before the
// handler is installed.
std::atomic<int> signalCountG{0};
int writeEndG = -1;
struct sigaction previousIntG {};
struct sigaction previousTermG {};

void onSignal(int number) {
  // Only async-signal-safe calls: an atomic increment, write and _exit.
  if (signalCountG.fetch_add(1) > 0) _exit(SignalWatcher::exitOffsetCM + number);
  const char byte = 's';
  [[maybe_unused]] const ssize_t ignored = write(writeEndG, &byte, 1);
}

}  // namespace

bool SignalWatcher::install() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  readEndM = ends[0];
  writeEndG = ends[1];
  signalCountG = 0;

  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  // Restarted system calls keep the threads that do not poll the pipe from seeing EINTR.
  action.sa_flags = SA_RESTART;
  if (sigaction(SIGINT, &action, &previousIntG) != 0) {
    close(std::exchange(readEndM, -1));
    close(std::exchange(writeEndG, -1));
    return false;
  }
  if (sigaction(SIGTERM, &action, &previousTermG) != 0) {
    sigaction(SIGINT, &previousIntG, nullptr);
    close(std::exchange(readEndM, -1));
    close(std::exchange(writeEndG, -1));
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
  if (readEndM >= 0) close(readEndM);
  if (writeEndG >= 0) close(std::exchange(writeEndG, -1));
}

}  // namespace Host
