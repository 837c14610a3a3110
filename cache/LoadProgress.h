// DAT::NumberPortability::LoadProgress tells how far the load, reload or delta load in progress
// has read its file, and how many data lines it took and rejected (once none runs: the last one).
// The cache manager's operation in progress writes it once per batch of lines; the plug-in reads
// it for a host's status and progress display, from any thread, while the load runs.
// Thread contract: one writer at a time (operations never overlap); readers in any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace DAT::NumberPortability {

struct LoadProgress {
  // No lock for any field: each is a relaxed atomic that a reader takes on its own, for a
  // display. A reader may see two fields a batch apart, never a torn value; the loader pays
  // one store per field and batch, not per line.
  std::atomic<bool> loadingM{false};          // an operation is reading its file
  std::atomic<std::uint64_t> fileBytesM{0};   // size of that file; 0 when not known
  std::atomic<std::uint64_t> bytesReadM{0};   // of it, read so far
  std::atomic<std::uint64_t> linesReadM{0};   // data lines read so far
  std::atomic<std::uint64_t> linesTakenM{0};  // of them, kept as a record (a duplicate counts as rejected)
  std::atomic<std::uint64_t> linesRejectedM{0};
  // How long the last load, reload or delta load that ended took from its file check to its
  // end (both readings of a reload, the rewrite of a delta load); 0 until one has ended.
  std::atomic<std::uint64_t> lastOperationNanosM{0};

  // Starts the figures of an operation that reads a file of `fileBytes` bytes.
  void begin(std::uint64_t fileBytes) {
    linesReadM.store(0, std::memory_order_relaxed);
    linesTakenM.store(0, std::memory_order_relaxed);
    linesRejectedM.store(0, std::memory_order_relaxed);
    bytesReadM.store(0, std::memory_order_relaxed);
    fileBytesM.store(fileBytes, std::memory_order_relaxed);
    loadingM.store(true, std::memory_order_relaxed);
  }
  // Adds one batch of lines, read up to byte `bytesRead` of the file.
  void addBatch(std::uint64_t taken, std::uint64_t rejected, std::uint64_t bytesRead) {
    linesTakenM.fetch_add(taken, std::memory_order_relaxed);
    linesRejectedM.fetch_add(rejected, std::memory_order_relaxed);
    linesReadM.fetch_add(taken + rejected, std::memory_order_relaxed);
    bytesReadM.store(bytesRead, std::memory_order_relaxed);
  }
  // Moves `lines` counted as taken to the rejected ones: duplicates, found once their lines
  // are inserted.
  void refuse(std::uint64_t lines) {
    linesTakenM.fetch_sub(lines, std::memory_order_relaxed);
    linesRejectedM.fetch_add(lines, std::memory_order_relaxed);
  }
  void end() { loadingM.store(false, std::memory_order_relaxed); }

  // Times one whole operation of the cache manager, on every way out of it.
  class OperationTimer {
  public:
    explicit OperationTimer(LoadProgress& progress) : progressM(progress), beginM(std::chrono::steady_clock::now()) {}
    ~OperationTimer() {
      const auto took = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - beginM);
      progressM.lastOperationNanosM.store(static_cast<std::uint64_t>(took.count()), std::memory_order_relaxed);
    }
    OperationTimer(const OperationTimer&) = delete;
    OperationTimer& operator=(const OperationTimer&) = delete;

  private:
    LoadProgress& progressM;
    std::chrono::steady_clock::time_point beginM;
  };
};

}  // namespace DAT::NumberPortability
