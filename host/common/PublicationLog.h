// Host::PublicationLog writes INF_NPHOST_GENERATION, one line for each publication of the data
// (the start-up load, a reload or a delta load, whoever asked: an update, a probe, a script),
// so that the log names the data behind every generation: its file, size, modification time
// and the XXH3-128 digest of the bytes read or written. It learns of a publication as a sink of
// the framework log: the plug-in reports the end of each load, reload and delta load on the
// thread that did it, under its operation lock, so the generation published and the digests the
// framework kept are that operation's when the report passes. A sink cannot write to the log
// that calls it, so the line is queued; a thread of its own writes it, and flush() writes it at
// once for a caller that answers only after it (an update, the end of init).
// Thread contract: the log calls write() from any thread; flush() from any thread; start() and
// close() from the session's thread, which owns the object.
#pragma once

#include "BAS/ConditionVariable.h"
#include "BAS/LogSink.h"
#include "BAS/Mutex.h"

#include <cstdint>
#include <deque>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace BAS {
class Log;
}
namespace DAT::NumberPortability {
class PortabilityLookup;
}

namespace Host {

class PublicationLog : public BAS::LogSink {
public:
  // Arguments: the generation, the operation ("load", "reload", "delta"), the data file as the
  // registry names it, its size and modification time after the operation (a delta load's
  // rewrite included), the digest of its content (the bytes a load or reload read, those a delta
  // load's rewrite wrote; empty when the reading stopped short or the rewrite failed); a delta
  // load adds the delta file and the digest of the bytes read from it.
  static constexpr const char* idCM = "INF_NPHOST_GENERATION";

  // Neither is owned; the lookup interface must outlive close(), the log this object.
  PublicationLog(DAT::NumberPortability::PortabilityLookup& lookup, BAS::Log& log);
  ~PublicationLog() override;
  PublicationLog(const PublicationLog&) = delete;
  PublicationLog& operator=(const PublicationLog&) = delete;

  // Starts the thread that writes queued lines. False when it cannot be started.
  bool start() EXCLUDES(queueM, writingM);
  void write(const BAS::LogRecord& record, const std::string& line) override EXCLUDES(queueM);
  // Writes every line queued so far before it returns. Never from a sink of the log.
  void flush() EXCLUDES(queueM, writingM);
  // Writes what is queued and ends the thread; reports after it are ignored, so that the lookup
  // interface may go. Idempotent.
  void close() EXCLUDES(queueM, writingM);

private:
  using Arguments = std::vector<std::string>;
  // The line for a publication by `operation`; `deltaFile` is the file a delta load read.
  Arguments describe(const char* operation, const std::string& deltaFile) const;
  void writeLoop() EXCLUDES(queueM, writingM);

  DAT::NumberPortability::PortabilityLookup& lookupM;  // thread-safe itself
  BAS::Log& logM;                                       // thread-safe itself
  const std::string dataFileM;                          // set in the constructor, read only

  BAS::Mutex queueM;
  BAS::ConditionVariable queuedM;
  std::deque<Arguments> pendingM GUARDED_BY(queueM);
  // The last publication queued: a failed operation that published nothing reports the same one.
  std::uint64_t queuedPublicationM GUARDED_BY(queueM) = 0;
  // The file each thread last reported opened: a delta load opens its delta file last.
  std::unordered_map<std::thread::id, std::string> openedM GUARDED_BY(queueM);
  bool closedM GUARDED_BY(queueM) = false;
  // Held while lines are taken from the queue and written, so that the thread and a flush never
  // write two publications out of order. Taken before queueM, never inside a sink.
  BAS::Mutex writingM ACQUIRED_BEFORE(queueM);

  std::thread threadM;  // the owner's thread starts and joins it
};

}  // namespace Host
