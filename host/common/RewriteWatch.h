// Host::RewriteWatch is the log's sink that sees whether the rewrite of the main data file after
// a delta load completed: the framework reports a rewrite that did not as "ERR_FILE_NOT_WRITTEN"
// with the file's name, on the thread that ran the delta load, while the plug-in's own answer
// stays a success. A command (an update) asks through a CommandScope whether its own thread saw
// one; `status` asks whether the last delta load is served but not in the file.
// Thread-safe: the log writes from any thread (one entry at a time) while commands ask.
#pragma once

#include "BAS/LogSink.h"
#include "BAS/Mutex.h"

#include <string>
#include <thread>
#include <unordered_set>

namespace Host {

class RewriteWatch : public BAS::LogSink {
public:
  // What became of the last delta load's records.
  enum class Delta {
    UNKNOWN,  // nothing seen that changes what the delta load events say
    UNSAVED,  // served, but the data file was not rewritten with them
    DROPPED,  // they were unsaved, and a reload read the file without them since
  };

  // The main data file as the registry names it, which the framework's message names. Until
  // it is given, nothing is watched.
  void watch(const std::string& dataFileName) EXCLUDES(mutexM);

  void write(const BAS::LogRecord& record, const std::string& line) override EXCLUDES(mutexM);

  Delta delta() const EXCLUDES(mutexM);

  // Watches the calling thread for as long as it lives: rewriteFailed() tells whether a rewrite
  // of the data file failed on this thread meanwhile. One scope per thread at a time.
  class CommandScope {
  public:
    explicit CommandScope(RewriteWatch& watch);
    ~CommandScope();
    CommandScope(const CommandScope&) = delete;
    CommandScope& operator=(const CommandScope&) = delete;
    bool rewriteFailed() const;

  private:
    RewriteWatch& watchM;
  };

private:
  static constexpr const char* notWrittenIdCM = "ERR_FILE_NOT_WRITTEN";

  mutable BAS::Mutex mutexM;
  std::string dataFileM GUARDED_BY(mutexM);
  // Threads whose rewrite of the data file failed since their last delta load or reload ended:
  // the delta load that ends next on such a thread is the one that was not saved. A delta load
  // runs on one thread from start to end (an update's, or the worker's).
  std::unordered_set<std::thread::id> failedOnM GUARDED_BY(mutexM);
  // Threads inside a CommandScope, and those of them that saw a failed rewrite.
  std::unordered_set<std::thread::id> scopedM GUARDED_BY(mutexM);
  std::unordered_set<std::thread::id> scopeFailedM GUARDED_BY(mutexM);
  Delta deltaM GUARDED_BY(mutexM) = Delta::UNKNOWN;
};

}  // namespace Host
