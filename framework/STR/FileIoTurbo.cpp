#include "STR/FileIoTurbo.h"

#include <cstdlib>
#include <sys/stat.h>
#include <sys/types.h>

namespace STR {

namespace {

// Data files are read start to end once; a large buffer keeps the number of read calls small.
constexpr std::size_t streamBufferSizeCM = std::size_t{1} << 20;
// A line buffer grown beyond this by an unusually long line is given back when its file is
// closed, rather than held for the life of the reader.
constexpr std::size_t keptLineCapacityCM = std::size_t{1} << 20;

}  // namespace

FileIoTurbo::FileIoTurbo() = default;

FileIoTurbo::~FileIoTurbo() {
  closeFile();
  std::free(lineBufferM);
}

bool FileIoTurbo::openFile(const BAS::String& name, long /*mode*/) {
  closeFile();
  fileNameM = name;
  struct stat status;
  // A file whose existence cannot be established (stat fails for any reason) counts as missing.
  if (::stat(name.c_str(), &status) != 0) return false;
  if (S_ISDIR(status.st_mode)) return true;
  std::FILE* stream = std::fopen(name.c_str(), "re");
  if (stream == nullptr) return true;
  if (!streamBufferM) streamBufferM = std::make_unique<char[]>(streamBufferSizeCM);
  // Without our buffer the stream still works, with the library's smaller one.
  std::setvbuf(stream, streamBufferM.get(), _IOFBF, streamBufferSizeCM);
  streamM = stream;
  return true;
}

bool FileIoTurbo::readLine(BAS::String& line) {
  if (streamM == nullptr) return false;
  // getline stops at a line end without looking further, and only a read that runs into the
  // end of the file sets the end-of-file indicator: the reading rule of the header rests on it.
  const ssize_t length = ::getline(&lineBufferM, &lineCapacityM, streamM);
  if (length < 0) return false;
  std::size_t size = static_cast<std::size_t>(length);
  if (size > 0 && lineBufferM[size - 1] == '\n') --size;
  // The length getline reports, not strlen: a line may hold NUL bytes.
  line.assign(lineBufferM, size);
  return true;
}

bool FileIoTurbo::closeFile() {
  if (lineCapacityM > keptLineCapacityCM) {
    std::free(lineBufferM);
    lineBufferM = nullptr;
    lineCapacityM = 0;
  }
  if (streamM == nullptr) return true;
  const bool closed = std::fclose(streamM) == 0;
  streamM = nullptr;
  return closed;
}

}  // namespace STR
