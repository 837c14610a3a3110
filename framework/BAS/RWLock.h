// BAS::RWLock is the framework's readers-writer lock: any number of readers, or one writer.
// Readers are the hot path (one lookup, or one batch of lookups, each), so taking the read side
// must stay cheap. Use BAS::ReadLocker, BAS::LongReadLocker and BAS::WriteLocker to hold it for a
// scope.
//
// Design: each reader counts itself in one of slotCountCM counters, each on its own cache line,
// chosen per thread; so readers on different cores never write the same line, where one shared
// count would bounce between the cores on every lookup. A writer raises writingM and waits until
// every counter is zero. A reader announces itself (increment) before it looks at writingM, and
// the writer raises writingM before it looks at the counters; both with sequentially consistent
// operations, so at least one of them sees the other, and a reader that sees a writer steps back
// and waits. Writers take turns through a binary semaphore, which one writer takes and the
// same writer gives back on unlock. Not recursive on either side.
//
// A reader that holds the read side for long (a dump, which writes as fast as whoever reads it)
// takes it as a long reader, counted apart in longReadersM. A writer whose turn has come first
// closes longGateM, so that no further long reader enters, and waits for the long readers inside
// to leave, with writingM still lowered: the short readers (lookups) go on entering all the
// while. Only then does it raise writingM and wait for the short readers, as above. Long readers
// and the writer meet on longReadersM and longGateM as short readers and the writer do on the
// counters and writingM: each changes its own word before it looks at the other's.
//
// Every wait and every wake-up happens out of line, in the framework library, on the lock's own
// word through the kernel (futex): a reader compiled into a host program and a writer compiled
// into a plug-in library meet on the same address whatever binary each was built into. Nothing
// the lock relies on lives in a function-local static of inline code, of which each binary would
// keep a copy of its own.
//
// Bounds, for any number of reader threads, more than there are processors included:
// - A short reader never waits for a long reader. It waits only while a writer has raised
//   writingM, which happens once no long reader is inside, so only for that writer's wait for
//   the short readers and its hold (for the cache, the exchange of two pointers), and again for
//   each writer queued right behind it.
// - A writer waits for the writers queued before it, then for the long readers inside when it
//   closed the gate (for the cache, the dump in progress: as long as its output takes), then
//   for the short readers that were inside when it raised writingM: no reader enters after
//   that. That last wait is the longest remaining hold of those readers: one search or one
//   batch of searches for the cache's lookups (microseconds of work), plus, where more threads
//   want to run than there are processors, the time the scheduler keeps a reader that it
//   preempted inside off a processor (one scheduling period, milliseconds; npbench's crowded
//   latency run shows it).
// - A long reader that comes while a writer has its turn waits for that writer's waits and its
//   hold, so dumps one after another cannot keep a writer out.
#pragma once

#include "BAS/BinarySemaphore.h"
#include "BAS/Export.h"
#include "BAS/ThreadAnnotations.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace BAS {

class CAPABILITY("rwlock") BAS_EXPORT RWLock {
public:
  RWLock() = default;
  RWLock(const RWLock&) = delete;
  RWLock& operator=(const RWLock&) = delete;

  // The lock's own operations: clang leaves the body of a function that acquires or releases
  // the object it belongs to out of the analysis, which checks their callers instead.
  void readLock() ACQUIRE_SHARED() {
    std::atomic<long>& readers = slotsM[slotOfThisThread()].readersM;
    readers.fetch_add(1, std::memory_order_seq_cst);
    if (writingM.load(std::memory_order_seq_cst) == 0) [[likely]] return;
    readLockBehindWriter(readers);
  }

  void readUnlock() RELEASE_SHARED() { slotsM[slotOfThisThread()].readersM.fetch_sub(1, std::memory_order_release); }

  // The read side for a long hold; see the design above. Out of line: not the hot path.
  void longReadLock() ACQUIRE_SHARED();
  void longReadUnlock() RELEASE_SHARED();

  void writeLock() ACQUIRE();
  void writeUnlock() RELEASE();

private:
  static constexpr std::size_t slotCountCM = 16;

  struct alignas(64) Slot {
    std::atomic<long> readersM{0};  // readers of the threads mapped to this slot; atomic, no lock
  };

  // The slot of the calling thread. Out of line, so that a thread uses the same slot whichever
  // binary takes and leaves the lock: threads take slots in turn, so up to slotCountCM threads
  // never share a counter.
  static std::size_t slotOfThisThread() noexcept;
  // The read side's slow path: steps back out of `readers`, waits until no writer is raised and
  // counts itself in again, until it finds no writer after counting itself.
  void readLockBehindWriter(std::atomic<long>& readers) noexcept;
  bool noReaders() const noexcept;

  Slot slotsM[slotCountCM];
  // 1 while a writer holds or is about to take the lock, else 0; atomic, read by every reader,
  // and the word that sleeping readers wait on. 32 bits, the size the kernel waits on.
  alignas(64) std::atomic<std::uint32_t> writingM{0};
  BinarySemaphore writersM;  // taken while a writer holds the lock or waits for readers
  // Long readers inside; atomic, and the word a writer sleeps on until they have left. 32 bits,
  // as writingM. On a line of its own, away from writingM, which every lookup reads.
  alignas(64) std::atomic<std::uint32_t> longReadersM{0};
  // 1 from the moment a writer's turn has come until it unlocks, else 0: long readers that come
  // meanwhile step back and sleep on it. Atomic, no lock.
  std::atomic<std::uint32_t> longGateM{0};
};

}  // namespace BAS
