#include "STR/FileIoTurbo.h"

#include "STR/ContentDigest.h"
#include "STR/FileDigests.h"
#include "STR/FileIdentity.h"
#include "STR/FilePaths.h"
#include "STR/FileReport.h"
#include "STR/ParkedFifos.h"
#include "STR/StagedFiles.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace STR {

namespace {

using namespace std::chrono_literals;

// Data files are read start to end once; a large buffer keeps the number of read calls small.
constexpr std::size_t bufferSizeCM = std::size_t{1} << 20;
// A data line is tens of bytes and an event record hundreds: a line of a mebibyte is no record
// but a damaged or foreign file (a binary, a file without line ends), and the limit keeps what
// one reader holds to its buffer and one such line.
constexpr std::size_t defaultLineLimitCM = std::size_t{1} << 20;
// A writer that feeds a FIFO opens it at once, or within a few seconds of a scheduler's start.
constexpr std::chrono::milliseconds defaultFifoWaitCM{10000};
// The longest that any wait goes without looking at stopWaiting().
constexpr std::chrono::milliseconds waitStepCM{100};

// Process-wide settings, each one atomic value: no lock.
std::atomic<std::size_t> lineLimitSetting{defaultLineLimitCM};
std::atomic<long long> fifoWaitSetting{defaultFifoWaitCM.count()};
std::atomic<bool> waitingStoppedSetting{false};

BAS::String typeOf(mode_t mode) {
  if (S_ISDIR(mode)) return "it is a directory";
  if (S_ISCHR(mode)) return "it is a character device";
  if (S_ISBLK(mode)) return "it is a block device";
  if (S_ISSOCK(mode)) return "it is a socket";
  return "it is not a regular file";
}

BAS::String causeOf(int error) { return BAS::String(std::strerror(error)); }

// "10 s", or "250 ms" for a wait that is no whole number of seconds.
std::string inWords(std::chrono::milliseconds wait) {
  return wait.count() % 1000 == 0 ? std::to_string(wait.count() / 1000) + " s" : std::to_string(wait.count()) + " ms";
}

}  // namespace

FileIoTurbo::FileIoTurbo() : digestM(std::make_unique<ContentDigest>()) {}

FileIoTurbo::~FileIoTurbo() { closeFile(); }

void FileIoTurbo::setLineLimit(std::size_t bytes) {
  // The buffer holds a line and its line end: the limit plus one must not overflow.
  lineLimitSetting.store(std::clamp<std::size_t>(bytes, 1, std::numeric_limits<std::size_t>::max() / 2));
}

std::size_t FileIoTurbo::lineLimit() { return lineLimitSetting.load(); }

void FileIoTurbo::setFifoWait(std::chrono::milliseconds wait) { fifoWaitSetting.store(wait.count()); }

std::chrono::milliseconds FileIoTurbo::fifoWait() { return std::chrono::milliseconds(fifoWaitSetting.load()); }

void FileIoTurbo::stopWaiting() { waitingStoppedSetting.store(true); }

bool FileIoTurbo::waitingStopped() { return waitingStoppedSetting.load(); }

void FileIoTurbo::resumeWaitingForTesting() { waitingStoppedSetting.store(false); }

bool FileIoTurbo::openFile(const BAS::String& name, long /*mode*/) {
  closeFile();
  fileNameM = name;
  failureM.clear();
  limitM = lineLimit();
  lineNumberM = 0;
  fifoM = readFromM = skippingM = endedM = false;
  struct stat status;
  // A file whose existence cannot be established (stat fails for any reason) counts as missing.
  if (::stat(name.c_str(), &status) != 0) {
    failureM = causeOf(errno);
    return false;
  }
  int descriptor = -1;
  if (S_ISREG(status.st_mode)) {
    descriptor = openRegular();
  } else if (S_ISFIFO(status.st_mode)) {
    descriptor = openFifo(status.st_dev, status.st_ino);
  } else {
    // A directory reads as nothing, a device such as /dev/zero as without end: neither is data.
    refuse(typeOf(status.st_mode));
  }
  if (descriptor < 0) return true;
  std::FILE* stream = ::fdopen(descriptor, "r");
  if (stream == nullptr) {
    const int error = errno;
    ::close(descriptor);
    refuse(causeOf(error));
    return true;
  }
  if (bufferM.size() < bufferSizeCM) bufferM.resize(bufferSizeCM);
  struct stat opened;
  if (::fstat(descriptor, &opened) == 0) {
    deviceM = opened.st_dev;
    inodeM = opened.st_ino;
  } else {
    deviceM = status.st_dev;
    inodeM = status.st_ino;
  }
  digestM->restart();
  streamM = stream;
  return true;
}

int FileIoTurbo::openRegular() {
  std::string target;
  std::string failure;
  // Before the first byte is read: a file whose rewrite was cut short is whole again, or refused.
  if (FilePaths::followLinks(fileNameM.str(), target) && !StagedFiles::tidy(target, fileNameM, failure)) {
    refuse(BAS::String(failure));
    return -1;
  }
  const int descriptor = ::open(fileNameM.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    refuse(causeOf(errno));
    return -1;
  }
  struct stat status;
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
    // Replaced between the look and the opening by something that is not a file.
    ::close(descriptor);
    refuse("it is not a regular file");
    return -1;
  }
  FileIdentity::remember(fileNameM.str(), FileIdentity::of(status));
  return descriptor;
}

int FileIoTurbo::openFifo(dev_t device, ino_t inode) {
  fifoM = true;
  fifoDeviceM = device;
  fifoInodeM = inode;
  int descriptor = ParkedFifos::take(device, inode);
  // Without O_NONBLOCK the opening itself would wait for a writer, beyond any limit.
  if (descriptor < 0) descriptor = ::open(fileNameM.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) {
    refuse(causeOf(errno));
    return -1;
  }
  BAS::String reason;
  if (!awaitFifo(descriptor, "no writer opened it within ", reason)) {
    ::close(descriptor);
    refuse(reason);
    return -1;
  }
  return descriptor;
}

bool FileIoTurbo::awaitFifo(int descriptor, const char* timedOut, BAS::String& reason) {
  const std::chrono::milliseconds wait = fifoWait();
  const auto deadline = std::chrono::steady_clock::now() + wait;
  for (;;) {
    if (waitingStopped()) {
      reason = "the wait for it was stopped, as the process is ending";
      return false;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    // A FIFO that never had a writer reports nothing, not even a hang-up: bytes or the end of
    // a writer that came are what ends the wait. One look even when no time is left.
    pollfd look{descriptor, POLLIN, 0};
    const int ready = ::poll(&look, 1, static_cast<int>(std::clamp(left, 0ms, waitStepCM).count()));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) {
      reason = causeOf(errno);
      return false;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      reason = BAS::String(timedOut + inWords(wait));
      return false;
    }
  }
}

void FileIoTurbo::refuse(const BAS::String& reason) {
  failureM = reason;
  FileReport::write("ERR_FILE_NOT_READ", BAS::Status::CRITICAL, {fileNameM, reason});
}

void FileIoTurbo::readingEnded(bool complete) {
  if (!complete) {
    FileDigests::readingEnded(fileNameM.str(), deviceM, inodeM, nullptr);
    return;
  }
  FileDigests::Record record;
  record.digest = digestM->digest();
  record.size = digestM->size();
  record.device = deviceM;
  record.inode = inodeM;
  struct stat status;
  if (::fstat(::fileno(streamM), &status) == 0) record.modified = status.st_mtim;
  FileDigests::readingEnded(fileNameM.str(), deviceM, inodeM, &record);
}

void FileIoTurbo::fail(const BAS::String& reason) {
  readingEnded(false);
  refuse(reason);
  beginM = endM = 0;
  endStream(true);
}

void FileIoTurbo::endStream(bool failed) {
  endedM = true;
  // The stream reads nothing else: one read through it sets its indicators. It is made to read
  // from a pipe without a writer (or, for the error, from the pipe's writing end), so that
  // neither a FIFO's next writer nor bytes appended meanwhile can keep the end from being seen.
  const int descriptor = ::fileno(streamM);
  int pipe[2];
  if (::pipe2(pipe, O_CLOEXEC) == 0) {
    if (failed && ::dup3(pipe[1], descriptor, O_CLOEXEC) >= 0) std::fgetc(streamM);
    ::close(pipe[1]);
    ::dup3(pipe[0], descriptor, O_CLOEXEC);
    ::close(pipe[0]);
    std::fgetc(streamM);
  }
#if defined(_IO_EOF_SEEN) && defined(_IO_ERR_SEEN)
  // Without a descriptor to spare, the C library's own flags: the loops that test them must end.
  if (!std::feof(streamM)) streamM->_flags |= _IO_EOF_SEEN | (failed ? _IO_ERR_SEEN : 0);
#endif
}

bool FileIoTurbo::refill() {
  // Keep the undelivered start of a line, moved to the front; grow when it fills the buffer,
  // up to room for the longest line that is delivered and its line end.
  const std::size_t pending = endM - beginM;
  if (pending != 0 && beginM != 0) std::memmove(bufferM.data(), bufferM.data() + beginM, pending);
  beginM = 0;
  endM = pending;
  if (endM == bufferM.size()) bufferM.resize(std::min(bufferM.size() * 2, limitM + 1));
  readFromM = true;
  const int descriptor = ::fileno(streamM);
  for (;;) {
    const ssize_t got = ::read(descriptor, bufferM.data() + endM, bufferM.size() - endM);
    if (got > 0) {
      // Hashed as it arrives, while the bytes are still in the processor's cache.
      digestM->add(bufferM.data() + endM, static_cast<std::size_t>(got));
      endM += static_cast<std::size_t>(got);
      return true;
    }
    if (got == 0) {
      // Before endStream, which takes the stream's descriptor away from the file.
      readingEnded(true);
      endStream(false);
      return false;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN && fifoM) {
      BAS::String reason;
      if (awaitFifo(descriptor, "no byte came from it for ", reason)) continue;
      fail(reason);
      return false;
    }
    fail(causeOf(errno));
    return false;
  }
}

bool FileIoTurbo::tooLong() {
  ++lineNumberM;
  failureM = BAS::String("line " + std::to_string(lineNumberM) + " is longer than " + std::to_string(limitM) + " bytes");
  FileReport::write("ERR_LINE_TOO_LONG", BAS::Status::CRITICAL,
                    {fileNameM, BAS::String::decimal(lineNumberM), BAS::String::decimal(limitM)});
  // The line's first limit + 1 bytes hold no line end; the rest of the buffer may.
  const std::size_t rest = beginM + limitM + 1;
  const void* const found = std::memchr(bufferM.data() + rest, '\n', endM - rest);
  if (found != nullptr) {
    beginM = static_cast<std::size_t>(static_cast<const char*>(found) - bufferM.data()) + 1;
  } else {
    beginM = endM = 0;
    skippingM = true;
  }
  return false;
}

bool FileIoTurbo::skipRestOfLine() {
  for (;;) {
    const void* const found = std::memchr(bufferM.data() + beginM, '\n', endM - beginM);
    if (found != nullptr) {
      beginM = static_cast<std::size_t>(static_cast<const char*>(found) - bufferM.data()) + 1;
      skippingM = false;
      return true;
    }
    beginM = endM = 0;
    if (!refill()) return false;
  }
}

bool FileIoTurbo::readLine(BAS::String& line) {
  std::string_view view;
  if (!readLine(view)) return false;
  line.assign(view.data(), view.size());
  return true;
}

bool FileIoTurbo::readLine(std::string_view& line) {
  if (streamM == nullptr || endedM) return false;
  if (skippingM && !skipRestOfLine()) return false;
  // Lines are taken from our own buffer, filled by read(2) on the stream's descriptor; the
  // stream itself is read only once nothing more can be read, so its end-of-file indicator is
  // set exactly by the read that reaches the end, as the reading rule of the header requires.
  std::size_t searched = beginM;
  for (;;) {
    // A line end further out than the limit allows ends a line that is too long anyway.
    const std::size_t window = std::min(endM, beginM + limitM + 1);
    const char* const start = bufferM.data() + beginM;
    const void* const found = searched < window ? std::memchr(bufferM.data() + searched, '\n', window - searched) : nullptr;
    if (found != nullptr) {
      const std::size_t length = static_cast<std::size_t>(static_cast<const char*>(found) - start);
      // The length found, not strlen: a line may hold NUL bytes.
      line = std::string_view(start, length);
      beginM += length + 1;
      ++lineNumberM;
      return true;
    }
    if (endM - beginM > limitM) return tooLong();
    const std::size_t scanned = endM - beginM;
    if (!refill()) {
      if (endM == beginM || std::ferror(streamM)) return false;
      // A last line without a line end, delivered with the end-of-file indicator set.
      line = std::string_view(bufferM.data() + beginM, endM - beginM);
      beginM = endM;
      ++lineNumberM;
      return true;
    }
    searched = beginM + scanned;
  }
}

bool FileIoTurbo::closeFile() {
  beginM = 0;
  endM = 0;
  skippingM = false;
  // A buffer grown by an unusually long line is given back rather than held for the life of the reader.
  if (bufferM.size() > bufferSizeCM) std::vector<char>().swap(bufferM);
  ParkedFifos::closeExpired();
  if (streamM == nullptr) return true;
  if (readFromM && !endedM) readingEnded(false);
  if (fifoM && !readFromM && !endedM) {
    // What a writer put in the pipe stays there for the next reader of this FIFO.
    const int kept = ::fcntl(::fileno(streamM), F_DUPFD_CLOEXEC, 0);
    if (kept >= 0) ParkedFifos::park(kept, fifoDeviceM, fifoInodeM);
  }
  const bool closed = std::fclose(streamM) == 0;
  streamM = nullptr;
  return closed;
}

}  // namespace STR
