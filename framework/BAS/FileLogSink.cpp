#include "BAS/FileLogSink.h"

#include "BAS/MutexLocker.h"

namespace BAS {

FileLogSink::FileLogSink() : ownsStreamM(false), streamM(stderr) {}

FileLogSink::FileLogSink(const String& path)
    : pathM(path), ownsStreamM(true), streamM(std::fopen(path.c_str(), "a")) {}

FileLogSink::~FileLogSink() {
  MutexLocker locker(streamLockM);
  if (ownsStreamM && streamM != nullptr) std::fclose(streamM);
}

bool FileLogSink::ok() const {
  MutexLocker locker(streamLockM);
  return streamM != nullptr;
}

void FileLogSink::write(const LogRecord&, const std::string& line) {
  MutexLocker locker(streamLockM);
  if (streamM == nullptr) return;
  // The stream stays locked for the whole line, so that other writers of a shared stream
  // (standard error) cannot cut it in two.
  flockfile(streamM);
  std::fwrite(line.data(), 1, line.size(), streamM);
  std::fputc('\n', streamM);
  std::fflush(streamM);
  funlockfile(streamM);
}

bool FileLogSink::reopen() {
  if (!ownsStreamM) return true;
  // Opened before the lock is taken, so that a slow file system holds up no log line.
  std::FILE* const fresh = std::fopen(pathM.c_str(), "a");
  if (fresh == nullptr) return false;
  std::FILE* old = nullptr;
  {
    MutexLocker locker(streamLockM);
    old = streamM;
    streamM = fresh;
  }
  if (old != nullptr) std::fclose(old);
  return true;
}

}  // namespace BAS
