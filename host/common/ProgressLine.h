// Host::ProgressLine is the one line of progress that `nphost run` keeps on standard error while
// it is a terminal: first the data file's load, then the records. It is also the log's sink in
// front of the log's own one, so that a log line never lands inside the progress line: the line
// is erased before the log line and drawn again after it. The host session attaches it to the
// log; the run session shows and clears it.
// Thread-safe: show and clear from any thread, write from whichever thread logs.
#pragma once

#include "BAS/LogSink.h"
#include "BAS/Mutex.h"

#include <memory>
#include <string>

namespace Host {

class ProgressLine : public BAS::LogSink {
public:
  // `inner` writes the log lines (not null); `innerOnTerminal` tells whether it writes them to
  // standard error.
  ProgressLine(std::shared_ptr<BAS::LogSink> inner, bool innerOnTerminal);

  // Whether standard error is a terminal: a log file or a pipe gets no progress line.
  static bool onTerminal();

  // Replaces the line shown with `text` (one line, no line end); an empty text clears it.
  void show(std::string text) EXCLUDES(mutexM);
  void clear() { show(std::string()); }

  void write(const BAS::LogRecord& record, const std::string& line) override EXCLUDES(mutexM);

private:
  void draw() REQUIRES(mutexM);
  void erase() REQUIRES(mutexM);

  // No lock: set at construction, then only read.
  const std::shared_ptr<BAS::LogSink> innerM;
  const bool innerOnTerminalM;
  BAS::Mutex mutexM;  // also keeps a log line and a redraw from interleaving
  std::string textM GUARDED_BY(mutexM);  // shown while not empty
};

}  // namespace Host
