#include "host/run/EventRecordPipeline.h"

#include "host/metrics/MetricsRegistry.h"

#include "BAS/MutexLocker.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

namespace Host {

namespace {

// A read never asks for less, so a batch's buffer grows once to its working size.
constexpr std::size_t readChunkCM = 64 * 1024;

}  // namespace

EventRecordPipeline::EventRecordPipeline(DAT::NumberPortability::PortabilityLookup& lookup, BAS::Log& log,
                                         Settings settings)
    : lookupM(lookup), logM(log), settingsM(std::move(settings)) {
  // Two batches per worker keep every worker busy while the reader fills and the writer
  // empties one each.
  const std::size_t poolSize = 2 * static_cast<std::size_t>(std::max(1u, settingsM.threads)) + 2;
  for (std::size_t i = 0; i < poolSize; ++i) {
    poolM.push_back(std::make_unique<Batch>());
    poolM.back()->input.resize(batchBytesCM + readChunkCM);
    freeM.push_back(poolM.back().get());
  }
  readyM.assign(poolSize, nullptr);
}

EventRecordPipeline::~EventRecordPipeline() {
  stop();
  if (readerM.joinable()) readerM.join();
  for (auto& worker : workersM)
    if (worker.joinable()) worker.join();
  if (writerM.joinable()) writerM.join();
}

bool EventRecordPipeline::start() {
  if (!wakeM.open()) {
    finishWith(std::string("cannot create a pipe: ") + std::strerror(errno));
    return false;
  }
  writerM = std::thread([this] { writeLoop(); });
  for (unsigned i = 0; i < std::max(1u, settingsM.threads); ++i) workersM.emplace_back([this] { workLoop(); });
  readerM = std::thread([this] { readLoop(); });
  return true;
}

void EventRecordPipeline::stop() {
  if (stopM.exchange(true)) return;
  wakeM.notify();
  // A reader waiting for a free batch must see the flag too.
  BAS::MutexLocker locker(mutexM);
  freeChangedM.notifyAll();
}

bool EventRecordPipeline::waitUntilDone(std::chrono::milliseconds timeout) {
  const auto deadline = BAS::ConditionVariable::Clock::now() + timeout;
  BAS::MutexLocker locker(mutexM);
  while (!doneM) {
    if (!doneChangedM.waitUntil(mutexM, deadline)) return doneM;
  }
  return true;
}

EventRecordPipeline::Totals EventRecordPipeline::totals() const {
  return Totals{recordsM.load(), foundM.load(), notFoundM.load(), rejectedM.load(), bytesM.load()};
}

std::string EventRecordPipeline::failure() const {
  BAS::MutexLocker locker(mutexM);
  return failureM;
}

void EventRecordPipeline::finishWith(std::string failure) {
  {
    BAS::MutexLocker locker(mutexM);
    if (failureM.empty()) failureM = std::move(failure);
  }
  stop();
}

EventRecordPipeline::Batch* EventRecordPipeline::takeFree() {
  BAS::MutexLocker locker(mutexM);
  while (freeM.empty() && !stopM.load()) freeChangedM.wait(mutexM);
  if (freeM.empty()) return nullptr;
  Batch* batch = freeM.back();
  freeM.pop_back();
  return batch;
}

EventRecordPipeline::Batch* EventRecordPipeline::handOver(Batch* batch, std::size_t complete, std::size_t used,
                                                          bool last) {
  Batch* next = last ? nullptr : takeFree();
  if (next != nullptr) {
    const std::size_t carried = used - complete;
    if (next->input.size() < carried + readChunkCM) next->input.resize(carried + readChunkCM);
    std::memcpy(next->input.data(), batch->input.data() + complete, carried);
    next->size = carried;
    next->piece = false;
    next->endsLine = false;
  }
  batch->size = complete;
  // Without a fresh batch the reader cannot go on: this one is the last.
  batch->last = last || next == nullptr;
  {
    BAS::MutexLocker locker(mutexM);
    workM.push_back(batch);
    if (batch->last) readingDoneM = true;
  }
  workChangedM.notifyAll();
  return next;
}

void EventRecordPipeline::readLoop() {
  std::uint64_t sequence = 0;
  Batch* batch = takeFree();
  if (batch == nullptr) {
    BAS::MutexLocker locker(mutexM);
    readingDoneM = true;
    doneM = true;  // nothing was handed over, so the writer waits for nothing
    workChangedM.notifyAll();
    readyChangedM.notifyAll();
    doneChangedM.notifyAll();
    return;
  }
  batch->size = 0;
  batch->piece = false;
  batch->endsLine = false;
  batch->sequence = sequence++;
  std::size_t used = 0;      // bytes read into the batch
  std::size_t complete = 0;  // bytes of whole lines among them
  auto holdStart = std::chrono::steady_clock::time_point::max();

  const auto pass = [&](bool last) {
    batch = handOver(batch, complete, used, last);
    if (batch == nullptr) return false;
    batch->sequence = sequence++;
    used = batch->size;
    complete = 0;
    holdStart = std::chrono::steady_clock::time_point::max();
    return true;
  };
  // A line over the limit leaves in pieces: the batch then holds bytes of that line only.
  bool longLine = false;
  const auto passPiece = [&](std::size_t size, bool endsLine, bool last) {
    batch->piece = true;
    batch->endsLine = endsLine;
    complete = size;
    if (!pass(last)) return false;
    if (endsLine) {
      longLine = false;
      // The bytes after the line's end may hold whole lines already.
      if (const void* end = memrchr(batch->input.data(), '\n', used)) {
        complete = static_cast<std::size_t>(static_cast<const char*>(end) - batch->input.data()) + 1;
        holdStart = std::chrono::steady_clock::now();
      }
    }
    return true;
  };
  // Passes on what the batch holds of a line over the limit; false when the pipeline stopped.
  const auto passLongLine = [&]() {
    const char* const data = batch->input.data();
    if (const void* newline = std::memchr(data, '\n', used))
      return passPiece(static_cast<std::size_t>(static_cast<const char*>(newline) - data) + 1, true, false);
    // A carriage return stays with the next piece: it may be the one before the line end.
    const std::size_t size = used > 0 && data[used - 1] == '\r' ? used - 1 : used;
    return size == 0 || passPiece(size, false, false);
  };

  pollfd waits[3] = {{settingsM.inputDescriptor, POLLIN, 0}, {wakeM.readEnd(), POLLIN, 0}, {settingsM.stopDescriptor, POLLIN, 0}};
  const nfds_t waitCount = settingsM.stopDescriptor >= 0 ? 3 : 2;
  for (;;) {
    if (stopM.load()) {
      // Whole lines read so far are still enriched; a line cut short by the stop is not, but
      // one over the limit, partly written already, is ended as a rejected line.
      if (longLine) {
        passPiece(used, true, true);
      } else {
        pass(true);
      }
      return;
    }
    int timeout = -1;
    if (complete > 0) {
      const auto held = std::chrono::steady_clock::now() - holdStart;
      timeout = static_cast<int>(std::max<std::chrono::milliseconds::rep>(
          0, (longestHoldCM - std::chrono::duration_cast<std::chrono::milliseconds>(held)).count()));
    }
    const int ready = poll(waits, waitCount, timeout);
    if (ready < 0 && errno != EINTR) {
      finishWith(std::string("cannot wait for the input: ") + std::strerror(errno));
      continue;
    }
    if (ready == 0) {
      if (!pass(false)) return;
      continue;
    }
    if (ready < 0) continue;
    if ((waitCount == 3 && waits[2].revents != 0) || waits[1].revents != 0) {
      stop();
      continue;
    }
    if (waits[0].revents == 0) continue;

    if (batch->input.size() < used + readChunkCM) batch->input.resize(std::max(2 * batch->input.size(), used + readChunkCM));
    const ssize_t n = read(settingsM.inputDescriptor, batch->input.data() + used, batch->input.size() - used);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      finishWith("cannot read the input '" + settingsM.inputName + "': " + std::strerror(errno));
      continue;
    }
    if (n == 0) {
      // The last line needs no line end to count.
      if (longLine) {
        passPiece(used, true, true);
      } else {
        complete = used;
        pass(true);
      }
      return;
    }
    const char* fresh = batch->input.data() + used;
    used += static_cast<std::size_t>(n);
    if (!longLine) {
      if (const void* end = memrchr(fresh, '\n', static_cast<std::size_t>(n))) {
        if (complete == 0) holdStart = std::chrono::steady_clock::now();
        complete = static_cast<std::size_t>(static_cast<const char*>(end) - batch->input.data()) + 1;
      }
      // The unfinished line has passed the limit: the whole lines before it go on as a batch,
      // the line itself in pieces from now on, so that no buffer ever holds it whole.
      if (used - complete > settingsM.maxLineBytes) {
        if (complete > 0 && !pass(false)) return;
        longLine = true;
      } else {
        if (complete >= batchBytesCM && !pass(false)) return;
        continue;
      }
    }
    if (!passLongLine()) return;
  }
}

void EventRecordPipeline::workLoop() {
  Lookups lookups;  // reused for every batch of this thread
  for (;;) {
    Batch* batch = nullptr;
    {
      BAS::MutexLocker locker(mutexM);
      while (workM.empty() && !readingDoneM) workChangedM.wait(mutexM);
      if (workM.empty()) return;
      batch = workM.front();
      workM.pop_front();
    }
    lookUp(*batch, lookups);
    {
      BAS::MutexLocker locker(mutexM);
      readyM[batch->sequence % readyM.size()] = batch;
    }
    readyChangedM.notifyAll();
  }
}

void EventRecordPipeline::writeLoop() {
  std::uint64_t sequence = 0;
  bool failed = false;
  for (;;) {
    Batch* batch = nullptr;
    {
      BAS::MutexLocker locker(mutexM);
      const std::size_t slot = sequence % readyM.size();
      while (readyM[slot] == nullptr && !doneM) readyChangedM.wait(mutexM);
      if (readyM[slot] == nullptr) return;  // the reader ended before handing anything over
      batch = std::exchange(readyM[slot], nullptr);
    }
    // After a failed write the batches still pass through, so that the reader and the workers
    // are never left waiting for a free one.
    if (!failed) {
      failed = !writeAll(batch->output);
      report(*batch, recordsM.load() + 1);
      recordsM += batch->records;
      foundM += batch->found;
      rejectedM += batch->rejected.size();
      notFoundM += batch->records - batch->found - batch->rejected.size();
      if (settingsM.metrics != nullptr) {
        const std::uint64_t rejected = batch->rejected.size();
        settingsM.metrics->addLookups(batch->found, batch->records - batch->found - rejected);
        settingsM.metrics->addEventRecords(batch->records - rejected, rejected);
      }
      bytesM += batch->size;
    }
    const bool last = batch->last;
    {
      BAS::MutexLocker locker(mutexM);
      freeM.push_back(batch);
      if (last) doneM = true;
    }
    freeChangedM.notifyAll();
    if (last) {
      doneChangedM.notifyAll();
      return;
    }
    ++sequence;
  }
}

bool EventRecordPipeline::writeAll(const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t n = write(settingsM.outputDescriptor, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      const int code = n < 0 ? errno : EIO;
      finishWith(settingsM.outputName == "-" ? std::string("cannot write the standard output: ") + std::strerror(code)
                                             : "cannot write the output file '" + settingsM.outputName +
                                                   "': " + std::strerror(code));
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace Host
