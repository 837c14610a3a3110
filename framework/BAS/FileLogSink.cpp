#include "BAS/FileLogSink.h"

namespace BAS {

FileLogSink::FileLogSink() : streamM(stderr), ownsStreamM(false) {}

FileLogSink::FileLogSink(const String& path) : streamM(std::fopen(path.c_str(), "a")), ownsStreamM(true) {}

FileLogSink::~FileLogSink() {
  if (ownsStreamM && streamM != nullptr) std::fclose(streamM);
}

void FileLogSink::write(const LogRecord&, const std::string& line) {
  if (streamM == nullptr) return;
  // The stream stays locked for the whole line, so that other writers of a shared stream
  // (standard error) cannot cut it in two.
  flockfile(streamM);
  std::fwrite(line.data(), 1, line.size(), streamM);
  std::fputc('\n', streamM);
  std::fflush(streamM);
  funlockfile(streamM);
}

}  // namespace BAS
