#include "BAS/RWLock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <thread>

namespace BAS {

namespace {

using Clock = std::chrono::steady_clock;

// A reader that finds a writer looks again for this long before it sleeps: the writer usually
// holds the lock for a pointer exchange, and waking a sleeping thread can take a virtual machine
// a millisecond or more. Short, because with more readers than processors every waiting reader
// that spins keeps a processor from the readers inside, whom the writer waits for.
constexpr std::chrono::microseconds readerPatienceCM{50};
// A writer yields the processor between looks at the counters for this long (readers inside
// leave within microseconds, sooner when they get the processor), then naps between looks.
constexpr std::chrono::microseconds writerYieldingCM{1000};
constexpr long writerNapNanosecondsCM = 20'000;

void pause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// The kernel parks the caller only while the word still holds `expected`, so a wake-up between
// the caller's last look and its sleep is never lost.
void sleepWhileEqual(std::atomic<std::uint32_t>& word, std::uint32_t expected) noexcept {
  static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t), "the kernel waits on a plain 32-bit word");
  syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAIT_PRIVATE, expected, nullptr, nullptr, 0);
}

void wakeAll(std::atomic<std::uint32_t>& word) noexcept {
  syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

}  // namespace

std::size_t RWLock::slotOfThisThread() noexcept {
  static std::atomic<std::size_t> nextSlot{0};
  // Constant-initialised, so reading it costs no guard; slotCountCM marks a thread without one.
  static thread_local std::size_t slot = slotCountCM;
  if (slot == slotCountCM) [[unlikely]] slot = nextSlot.fetch_add(1, std::memory_order_relaxed) % slotCountCM;
  return slot;
}

void RWLock::readLockBehindWriter(std::atomic<long>& readers) noexcept {
  do {
    // Out of the count, so that the writer, which waits for the counters to reach zero, gets in.
    readers.fetch_sub(1, std::memory_order_seq_cst);
    const auto deadline = Clock::now() + readerPatienceCM;
    while (writingM.load(std::memory_order_seq_cst) != 0) {
      if (Clock::now() < deadline) {
        for (int spin = 0; spin < 16 && writingM.load(std::memory_order_relaxed) != 0; ++spin) pause();
      } else {
        sleepWhileEqual(writingM, 1);
      }
    }
    readers.fetch_add(1, std::memory_order_seq_cst);
    // Another writer may have raised the word between our look and our count: look again.
  } while (writingM.load(std::memory_order_seq_cst) != 0);
}

bool RWLock::noReaders() const noexcept {
  for (const Slot& slot : slotsM) {
    if (slot.readersM.load(std::memory_order_seq_cst) != 0) return false;
  }
  return true;
}

void RWLock::longReadLock() {
  for (;;) {
    longReadersM.fetch_add(1, std::memory_order_seq_cst);
    if (longGateM.load(std::memory_order_seq_cst) == 0) return;
    // A writer has its turn: out of the count, so that it does not wait for us, and wait for it.
    if (longReadersM.fetch_sub(1, std::memory_order_seq_cst) == 1) wakeAll(longReadersM);
    while (longGateM.load(std::memory_order_seq_cst) != 0) sleepWhileEqual(longGateM, 1);
  }
}

void RWLock::longReadUnlock() {
  // The last long reader out wakes a writer that waits for it; one that closed the gate after
  // this look sees the count already down.
  if (longReadersM.fetch_sub(1, std::memory_order_seq_cst) == 1 && longGateM.load(std::memory_order_seq_cst) != 0) {
    wakeAll(longReadersM);
  }
}

void RWLock::writeLock() {
  writersM.take();
  // The long readers first, with short readers still let in: a dump may hold its side for as
  // long as its output takes, and lookups must not queue behind this writer meanwhile.
  longGateM.store(1, std::memory_order_seq_cst);
  for (std::uint32_t inside; (inside = longReadersM.load(std::memory_order_seq_cst)) != 0;) {
    sleepWhileEqual(longReadersM, inside);
  }
  writingM.store(1, std::memory_order_seq_cst);
  // From here no reader enters; only those inside are waited for.
  for (int spin = 0; spin < 64; ++spin) {
    if (noReaders()) return;
    pause();
  }
  const auto yieldUntil = Clock::now() + writerYieldingCM;
  while (!noReaders()) {
    if (Clock::now() < yieldUntil) {
      // Gives a reader inside that was preempted, on this processor, the chance to finish.
      std::this_thread::yield();
    } else {
      const timespec nap{0, writerNapNanosecondsCM};
      nanosleep(&nap, nullptr);
    }
  }
}

void RWLock::writeUnlock() {
  writingM.store(0, std::memory_order_seq_cst);
  wakeAll(writingM);
  longGateM.store(0, std::memory_order_seq_cst);
  wakeAll(longGateM);
  writersM.give();
}

}  // namespace BAS
