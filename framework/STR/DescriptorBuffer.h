// STR::DescriptorBuffer is the stream buffer behind FileIo's output stream: it writes to a file
// descriptor that it does not own, and keeps the digest of the bytes written. Once a write
// failed, every later one fails too, so that a file with a hole in it is never taken for a
// complete one. Used by one thread at a time.
#pragma once

#include "STR/ContentDigest.h"

#include <streambuf>
#include <vector>

namespace STR {

class DescriptorBuffer : public std::streambuf {
public:
  DescriptorBuffer();

  // With `writeBack`, the kernel is asked to start writing out what was written every few
  // megabytes, for a file that will be synchronised on close: the disk then works while the
  // rest is still being produced, instead of all of it waiting for the close. `failAfter`
  // bytes (negative: never) are written before every further write fails as a full disk would.
  void attach(int descriptor, long long failAfter, bool writeBack);
  void detach();
  bool failed() const { return failedM; }
  // The errno of the first failed write; 0 when none failed.
  int error() const { return errorM; }
  // Writes out what is buffered; false when that or an earlier write failed.
  bool flushBuffer();
  // The digest of the bytes written to the descriptor since attach, and their number.
  const ContentDigest& written() const { return digestM; }

protected:
  int_type overflow(int_type c) override;
  std::streamsize xsputn(const char* text, std::streamsize count) override;
  int sync() override;

private:
  bool writeAll(const char* text, std::size_t size);

  std::vector<char> bufferM;
  int descriptorM = -1;
  long long failAfterM = -1;
  long long writtenM = 0;
  bool writeBackM = false;
  long long writeBackFromM = 0;  // the first byte not yet handed to write-back
  bool failedM = false;
  int errorM = 0;
  ContentDigest digestM;
};

}  // namespace STR
