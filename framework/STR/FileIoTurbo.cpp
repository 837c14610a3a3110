#include "STR/FileIoTurbo.h"

#include "STR/FileIdentity.h"
#include "STR/FilePaths.h"
#include "STR/StagedFiles.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace STR {

namespace {

// Data files are read start to end once; a large buffer keeps the number of read calls small.
constexpr std::size_t bufferSizeCM = std::size_t{1} << 20;

// Set once, never cleared: the process is ending. Atomic, no lock.
std::atomic<bool> waitingStoppedCM{false};

}  // namespace

FileIoTurbo::FileIoTurbo() = default;

void FileIoTurbo::stopWaiting() { waitingStoppedCM.store(true); }

bool FileIoTurbo::waitingStopped() { return waitingStoppedCM.load(); }

FileIoTurbo::~FileIoTurbo() { closeFile(); }

bool FileIoTurbo::openFile(const BAS::String& name, long /*mode*/) {
  closeFile();
  fileNameM = name;
  struct stat status;
  // A file whose existence cannot be established (stat fails for any reason) counts as missing.
  if (::stat(name.c_str(), &status) != 0) return false;
  if (S_ISDIR(status.st_mode)) return true;
  std::string target;
  std::string failure;
  // Before the first byte is read: a file whose rewrite was cut short is whole again, or refused.
  if (S_ISREG(status.st_mode) && FilePaths::followLinks(name.str(), target) && !StagedFiles::tidy(target, name, failure))
    return true;
  std::FILE* stream = std::fopen(name.c_str(), "re");
  if (stream == nullptr) return true;
  struct stat opened;
  if (::fstat(::fileno(stream), &opened) == 0 && S_ISREG(opened.st_mode))
    FileIdentity::remember(name.str(), FileIdentity::of(opened));
  if (bufferM.size() < bufferSizeCM) bufferM.resize(bufferSizeCM);
  streamM = stream;
  return true;
}

bool FileIoTurbo::refill() {
  // Keep the undelivered start of a line, moved to the front; grow when it fills the buffer.
  const std::size_t pending = endM - beginM;
  if (pending != 0 && beginM != 0) std::memmove(bufferM.data(), bufferM.data() + beginM, pending);
  beginM = 0;
  endM = pending;
  if (endM == bufferM.size()) bufferM.resize(bufferM.size() * 2);
  for (;;) {
    const ssize_t got = ::read(::fileno(streamM), bufferM.data() + endM, bufferM.size() - endM);
    if (got > 0) {
      endM += static_cast<std::size_t>(got);
      return true;
    }
    if (got < 0 && errno == EINTR) continue;
    // The stream itself has read nothing yet, so one read through it meets the same end of
    // file or error as ours did, and sets the indicator that the reading rule looks at.
    std::fgetc(streamM);
    return false;
  }
}

bool FileIoTurbo::readLine(BAS::String& line) {
  if (streamM == nullptr) return false;
  // Lines are taken from our own buffer, filled by read(2) on the stream's descriptor; the
  // stream is only read when our reads meet the end of the file, so its end-of-file indicator
  // is set exactly by the read that reaches the end, as the reading rule of the header requires.
  std::size_t searched = beginM;
  for (;;) {
    const char* const start = bufferM.data() + beginM;
    const void* const found = std::memchr(bufferM.data() + searched, '\n', endM - searched);
    if (found != nullptr) {
      const std::size_t length = static_cast<std::size_t>(static_cast<const char*>(found) - start);
      // The length found, not strlen: a line may hold NUL bytes.
      line.assign(start, length);
      beginM += length + 1;
      return true;
    }
    const std::size_t scanned = endM - beginM;
    if (!refill()) {
      if (endM == beginM || std::ferror(streamM)) return false;
      // A last line without a line end, delivered with the end-of-file indicator set.
      line.assign(bufferM.data() + beginM, endM - beginM);
      beginM = endM;
      return true;
    }
    searched = beginM + scanned;
  }
}

bool FileIoTurbo::closeFile() {
  beginM = 0;
  endM = 0;
  // A buffer grown by an unusually long line is given back rather than held for the life of the reader.
  if (bufferM.size() > bufferSizeCM) std::vector<char>().swap(bufferM);
  if (streamM == nullptr) return true;
  const bool closed = std::fclose(streamM) == 0;
  streamM = nullptr;
  return closed;
}

}  // namespace STR
