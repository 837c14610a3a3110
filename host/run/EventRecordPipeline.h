// Host::EventRecordPipeline is the main job of `nphost run`: it reads event records (one a
// line: number, date-time, further fields), looks up the operator of each through
// PlugIn::search as a processing module would, and writes every line back with the operator
// appended, in input order. A reader thread cuts the input into batches of whole lines, worker
// threads look up whole batches, a writer thread writes them in sequence and reports rejected
// lines to the framework log. The run session starts it, polls totals() for its progress line
// and waits for it; start, wait and the destructor belong to that one thread.
#pragma once

#include "BAS/DateTime.h"
#include "BAS/String.h"
#include "store/NumberPortabilityData.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace BAS {
class Log;
}
namespace DAT::NumberPortability {
class PlugIn;
}

namespace Host {

class EventRecordPipeline {
public:
  struct Settings {
    int inputDescriptor = 0;   // not owned
    int outputDescriptor = 1;  // not owned
    std::string inputName = "-";
    std::string outputName = "-";
    unsigned threads = 1;
    char delimiter = ';';
    // Readable when the run is to end early (the signal watcher); -1 for none. Not owned.
    int stopDescriptor = -1;
  };

  // Counts of the records written so far; each is read on its own, so a snapshot taken while
  // the writer runs may be a batch apart between fields.
  struct Totals {
    std::uint64_t records = 0;
    std::uint64_t found = 0;
    std::uint64_t notFound = 0;
    std::uint64_t rejected = 0;
    std::uint64_t bytes = 0;  // input bytes whose records are written
  };

  // Identifiers of the messages about rejected input lines (severity 2), with the arguments
  // line number, input name and the line (fields), or the date-time field (date-time).
  static constexpr const char* tooFewFieldsIdCM = "ERR_EVENT_RECORD_FIELDS";
  static constexpr const char* invalidDateTimeIdCM = "ERR_EVENT_RECORD_DATETIME";
  // The reporting object named in those messages.
  static constexpr const char* reporterNameCM = "nphost";

  // A batch is handed to the workers at this many bytes of whole lines, or when its first line
  // has waited longestHoldCM for more input: a slow or never-ending input still flows.
  static constexpr std::size_t batchBytesCM = 256 * 1024;
  static constexpr std::chrono::milliseconds longestHoldCM{50};

  // Neither is owned; both must outlive the pipeline.
  EventRecordPipeline(DAT::NumberPortability::PlugIn& plugIn, BAS::Log& log, Settings settings);
  // Asks the threads to stop, as stop() does, and joins them.
  ~EventRecordPipeline();
  EventRecordPipeline(const EventRecordPipeline&) = delete;
  EventRecordPipeline& operator=(const EventRecordPipeline&) = delete;

  // Starts the threads. False with failure() set when the wake-up pipe cannot be made.
  bool start();
  // Stops reading; the records read so far are still looked up and written. Any thread.
  void stop();
  // Waits up to `timeout` for the end: input read to its end (or stopped) and everything
  // written, or writing failed. True once ended.
  bool waitUntilDone(std::chrono::milliseconds timeout);

  Totals totals() const;
  // One sentence (without "nphost: ") when reading the input or writing the output failed;
  // empty otherwise. Read after waitUntilDone returned true.
  std::string failure() const;

private:
  enum class Rejection : std::uint8_t { TOO_FEW_FIELDS, INVALID_DATE_TIME };
  struct RejectedLine {
    std::uint32_t lineIndex;  // within the batch
    Rejection reason;
    std::uint32_t offset;  // of the line in the batch's input
    std::uint32_t length;
  };
  // Buffers keep their capacity from batch to batch, so the hot path allocates nothing once the
  // pool has warmed up.
  struct Batch {
    std::uint64_t sequence = 0;
    std::vector<char> input;
    std::size_t size = 0;  // bytes of input that form this batch's lines
    std::string output;
    std::uint64_t records = 0;
    std::uint64_t found = 0;
    std::vector<RejectedLine> rejected;
    bool last = false;
  };

  void readLoop();
  void workLoop();
  void writeLoop();
  // Hands `batch` (its first `complete` bytes) to the workers and returns a fresh batch holding
  // the bytes after them; null when the pipeline stopped meanwhile.
  Batch* handOver(Batch* batch, std::size_t complete, std::size_t used, bool last);
  Batch* takeFree();
  // Lines looked up together; a few batches of the plug-in's searchMany.
  static constexpr std::size_t groupCM = 64;

  // One lookup thread's room for a group of lines: kept from group to group, so that the hot
  // path does not allocate.
  struct Lookups {
    struct Line {
      std::string_view content;  // without line end
      bool carriageReturn;
      bool searched;  // well-formed: its number and date-time are in the arrays below
    };
    std::vector<Line> lines;
    std::vector<std::string_view> numbers;
    std::vector<BAS::DateTime> dateTimes;
    using Record = DAT::NumberPortability::NumberPortabilityData;
    std::vector<Record> results = std::vector<Record>(groupCM);
    std::unique_ptr<bool[]> found = std::make_unique<bool[]>(groupCM);
  };
  void lookUp(Batch& batch, Lookups& lookups) const;
  // Cuts the line at `line` into `lookups` (or records its rejection in `batch`); returns the
  // start of the next line.
  const char* cut(const char* line, const char* end, Batch& batch, Lookups& lookups) const;
  void report(const Batch& batch, std::uint64_t firstLine) const;
  void finishWith(std::string failure);
  bool writeAll(const std::string& text);

  DAT::NumberPortability::PlugIn& plugInM;
  BAS::Log& logM;
  const Settings settingsM;
  std::vector<std::unique_ptr<Batch>> poolM;  // fixed after the constructor; owns every batch
  int wakeReadM = -1;                          // the reader polls it; stop() writes wakeWriteM
  int wakeWriteM = -1;

  mutable std::mutex mutexM;
  std::condition_variable freeChangedM;
  std::condition_variable workChangedM;
  std::condition_variable readyChangedM;
  std::condition_variable doneChangedM;
  std::vector<Batch*> freeM;     // guarded by mutexM
  std::deque<Batch*> workM;      // guarded by mutexM
  std::vector<Batch*> readyM;    // guarded by mutexM; slot sequence % pool size
  bool readingDoneM = false;     // guarded by mutexM: no batch will be added to workM
  bool doneM = false;            // guarded by mutexM
  std::string failureM;          // guarded by mutexM
  std::atomic<bool> stopM{false};  // atomic: set by any thread, polled by the reader

  // Written by the writer thread only, read by the session's progress line.
  std::atomic<std::uint64_t> recordsM{0}, foundM{0}, notFoundM{0}, rejectedM{0}, bytesM{0};

  std::thread readerM;
  std::vector<std::thread> workersM;
  std::thread writerM;
};

}  // namespace Host
