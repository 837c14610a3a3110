// Host::EventRecordPipeline is the main job of `nphost run`: it reads event records (one a
// line: number, date-time, further fields), looks up the operator of each through the
// plug-in library's lookup interface (PortabilityLookup), a batch of lines per call, and writes every line back with the operator
// appended, in input order. A reader thread cuts the input into batches of whole lines, worker
// threads look up whole batches, a writer thread writes them in sequence and reports rejected
// lines to the framework log. The run session starts it, polls totals() for its progress line
// and waits for it; start, wait and the destructor belong to that one thread.
#pragma once

#include "BAS/ConditionVariable.h"
#include "BAS/DateTime.h"
#include "BAS/Mutex.h"
#include "BAS/String.h"
#include "host/common/RecordFields.h"
#include "host/common/SelfPipe.h"
#include "plugin/PortabilityLookup.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace BAS {
class Log;
}

namespace Host {

class MetricsRegistry;

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
    // Numbers are looked up in the stored form that the plug-in's normalisation gives them;
    // the output keeps them as they came.
    bool normalize = false;
    // Added to once per batch with the lookups made and the records written; null for none.
    // Not owned.
    MetricsRegistry* metrics = nullptr;
    // A longer line (without its line end) is passed on in pieces as it is read, never held
    // whole, with the delimiter and an empty operator at its end, and counted as rejected.
    std::size_t maxLineBytes = std::size_t{1} << 20;
    // Appended to each line, in order, each after the delimiter; the operator alone by default.
    std::vector<RecordField> fields{RecordField::OPERATOR};
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
  // A line over the limit: line number, input name and the limit.
  static constexpr const char* tooLongIdCM = "ERR_EVENT_RECORD_TOO_LONG";
  // The reporting object named in those messages.
  static constexpr const char* reporterNameCM = "nphost";

  // A batch is handed to the workers at this many bytes of whole lines, or when its first line
  // has waited longestHoldCM for more input: a slow or never-ending input still flows.
  static constexpr std::size_t batchBytesCM = 256 * 1024;
  static constexpr std::chrono::milliseconds longestHoldCM{50};

  // Neither is owned; both must outlive the pipeline.
  EventRecordPipeline(DAT::NumberPortability::PortabilityLookup& lookup, BAS::Log& log, Settings settings);
  // Asks the threads to stop, as stop() does, and joins them.
  ~EventRecordPipeline();
  EventRecordPipeline(const EventRecordPipeline&) = delete;
  EventRecordPipeline& operator=(const EventRecordPipeline&) = delete;

  // Starts the threads. False with failure() set when the wake-up pipe cannot be made.
  bool start() EXCLUDES(mutexM);
  // Stops reading; the records read so far are still looked up and written. Any thread.
  void stop() EXCLUDES(mutexM);
  // Waits up to `timeout` for the end: input read to its end (or stopped) and everything
  // written, or writing failed. True once ended.
  bool waitUntilDone(std::chrono::milliseconds timeout) EXCLUDES(mutexM);

  Totals totals() const;
  // One sentence (without "nphost: ") when reading the input or writing the output failed;
  // empty otherwise. Read after waitUntilDone returned true.
  std::string failure() const EXCLUDES(mutexM);

private:
  enum class Rejection : std::uint8_t { TOO_FEW_FIELDS, INVALID_DATE_TIME, TOO_LONG };
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
    // A piece holds part of a line over the limit, passed on as it is; the piece that ends the
    // line (at its line end, the input's end or a stop) gets the empty operator.
    bool piece = false;
    bool endsLine = false;
    std::vector<char> input;
    std::size_t size = 0;  // bytes of input that form this batch's lines
    std::string output;
    std::uint64_t records = 0;
    std::uint64_t found = 0;
    std::vector<RejectedLine> rejected;
    bool last = false;
  };

  void readLoop() EXCLUDES(mutexM);
  void workLoop() EXCLUDES(mutexM);
  void writeLoop() EXCLUDES(mutexM);
  // Hands `batch` (its first `complete` bytes) to the workers and returns a fresh batch holding
  // the bytes after them; null when the pipeline stopped meanwhile.
  Batch* handOver(Batch* batch, std::size_t complete, std::size_t used, bool last) EXCLUDES(mutexM);
  Batch* takeFree() EXCLUDES(mutexM);
  // Lines looked up together, in one call of the lookup interface.
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
    // With normalisation: the stored forms of the group's numbers, which `numbers` then view;
    // their capacity is kept from group to group.
    std::vector<std::string> normalized = std::vector<std::string>(groupCM);
    std::vector<BAS::DateTime> dateTimes;
    using Answer = DAT::NumberPortability::PortabilityLookup::Answer;
    std::vector<Answer> results = std::vector<Answer>(groupCM);
    std::unique_ptr<bool[]> found = std::make_unique<bool[]>(groupCM);
    // The generation field as last written: a group's answers come from one generation, so it
    // is formatted once per change, not per record.
    DAT::NumberPortability::PortabilityLookup::Generation generation;
    std::string generationText;
  };
  void lookUp(Batch& batch, Lookups& lookups) const;
  // Appends the chosen fields, each after the delimiter, for one line: the answer `search` of the
  // group when the line was looked up (`searched`), empty fields for a rejected line.
  void appendFields(std::string& output, Lookups& lookups, std::size_t search, bool searched) const;
  void passOn(Batch& batch) const;
  // Cuts the line at `line` into `lookups` (or records its rejection in `batch`); returns the
  // start of the next line.
  const char* cut(const char* line, const char* end, Batch& batch, Lookups& lookups) const;
  void report(const Batch& batch, std::uint64_t firstLine) const;
  void finishWith(std::string failure) EXCLUDES(mutexM);
  bool writeAll(const std::string& text) EXCLUDES(mutexM);

  // No lock for these: set in the constructor and start(), before the threads exist, and only
  // read by them (the lookup interface takes any number of threads at once).
  DAT::NumberPortability::PortabilityLookup& lookupM;
  BAS::Log& logM;  // thread-safe itself
  const Settings settingsM;
  std::vector<std::unique_ptr<Batch>> poolM;  // owns every batch; a batch's contents belong to
                                              // the one thread whose queue it was taken from
  SelfPipe wakeM;                             // the reader polls it; stop() notifies it

  mutable BAS::Mutex mutexM;
  BAS::ConditionVariable freeChangedM;
  BAS::ConditionVariable workChangedM;
  BAS::ConditionVariable readyChangedM;
  BAS::ConditionVariable doneChangedM;
  std::vector<Batch*> freeM GUARDED_BY(mutexM);
  std::deque<Batch*> workM GUARDED_BY(mutexM);
  std::vector<Batch*> readyM GUARDED_BY(mutexM);  // slot sequence % pool size
  bool readingDoneM GUARDED_BY(mutexM) = false;    // no batch will be added to workM
  bool doneM GUARDED_BY(mutexM) = false;
  std::string failureM GUARDED_BY(mutexM);
  std::atomic<bool> stopM{false};  // atomic: set by any thread, polled by the reader

  // Written by the writer thread only, read by the session's progress line.
  std::atomic<std::uint64_t> recordsM{0}, foundM{0}, notFoundM{0}, rejectedM{0}, bytesM{0};

  // The owner's thread only: started in start(), joined in the destructor.
  std::thread readerM;
  std::vector<std::thread> workersM;
  std::thread writerM;
};

}  // namespace Host
