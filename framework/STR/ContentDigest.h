// STR::ContentDigest is the running XXH3-128 digest of the bytes that one reader or writer of
// the framework passes: FileIoTurbo adds what it reads, FileIo's buffer what it writes. It keeps
// the hashing library out of the framework's exported headers. Used by one thread at a time.
#pragma once

#include "STR/FileDigests.h"

#include <cstddef>
#include <cstdint>

namespace STR {

class ContentDigest {
public:
  // Out of memory propagates as std::bad_alloc.
  ContentDigest();
  ~ContentDigest();
  ContentDigest(const ContentDigest&) = delete;
  ContentDigest& operator=(const ContentDigest&) = delete;

  // Starts over: no bytes yet.
  void restart() noexcept;
  void add(const void* bytes, std::size_t size) noexcept;
  // The digest of the bytes added since the last restart, and how many there were.
  FileDigests::Digest digest() const noexcept;
  std::uint64_t size() const noexcept { return sizeM; }

private:
  void* stateM;  // the library's XXH3 state; owned
  std::uint64_t sizeM = 0;
};

}  // namespace STR
