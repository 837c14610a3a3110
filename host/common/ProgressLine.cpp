#include "host/common/ProgressLine.h"

#include "BAS/MutexLocker.h"

#include <unistd.h>

#include <string_view>

namespace Host {

namespace {

// Straight to the descriptor: the log's stream and std::cerr buffer separately, and a partial
// line left in a buffer would be drawn over.
void writeStandardError(std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = ::write(STDERR_FILENO, text.data(), text.size());
    if (n <= 0) return;  // a terminal that went away; the run does not depend on it
    text.remove_prefix(static_cast<std::size_t>(n));
  }
}

}  // namespace

ProgressLine::ProgressLine(std::shared_ptr<BAS::LogSink> inner, bool innerOnTerminal)
    : innerM(std::move(inner)), innerOnTerminalM(innerOnTerminal) {}

bool ProgressLine::onTerminal() { return isatty(STDERR_FILENO) == 1; }

void ProgressLine::show(std::string text) {
  BAS::MutexLocker locker(mutexM);
  if (text.empty() && textM.empty()) return;
  textM = std::move(text);
  if (textM.empty()) {
    erase();
  } else {
    draw();
  }
}

void ProgressLine::write(const BAS::LogRecord& record, const std::string& line) {
  BAS::MutexLocker locker(mutexM);
  const bool shown = innerOnTerminalM && !textM.empty();
  if (shown) erase();
  innerM->write(record, line);
  if (shown) draw();
}

void ProgressLine::draw() { writeStandardError("\r" + textM + "\x1b[K"); }

void ProgressLine::erase() { writeStandardError("\r\x1b[K"); }

}  // namespace Host
