#include "STR/DescriptorBuffer.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace STR {

namespace {

constexpr std::size_t bufferSizeCM = 64 * 1024;
constexpr long long writeBackStepCM = 8LL << 20;

}  // namespace

DescriptorBuffer::DescriptorBuffer() : bufferM(bufferSizeCM) { setp(bufferM.data(), bufferM.data() + bufferM.size()); }

void DescriptorBuffer::attach(int descriptor, long long failAfter, bool writeBack) {
  descriptorM = descriptor;
  failAfterM = failAfter;
  writeBackM = writeBack;
  digestM.restart();
}

void DescriptorBuffer::detach() {
  descriptorM = -1;
  setp(bufferM.data(), bufferM.data() + bufferM.size());
}

bool DescriptorBuffer::flushBuffer() {
  const std::size_t pending = static_cast<std::size_t>(pptr() - pbase());
  setp(bufferM.data(), bufferM.data() + bufferM.size());
  return writeAll(bufferM.data(), pending);
}

DescriptorBuffer::int_type DescriptorBuffer::overflow(int_type c) {
  if (!flushBuffer()) return traits_type::eof();
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  *pptr() = traits_type::to_char_type(c);
  pbump(1);
  return c;
}

std::streamsize DescriptorBuffer::xsputn(const char* text, std::streamsize count) {
  const std::size_t size = static_cast<std::size_t>(count);
  if (size <= static_cast<std::size_t>(epptr() - pptr())) {
    std::copy(text, text + size, pptr());
    pbump(static_cast<int>(size));
    return count;
  }
  // Too large for the space left: pass it straight through instead of copying it in parts.
  if (!flushBuffer() || !writeAll(text, size)) return 0;
  return count;
}

int DescriptorBuffer::sync() { return flushBuffer() ? 0 : -1; }

bool DescriptorBuffer::writeAll(const char* text, std::size_t size) {
  if (size == 0) return !failedM;
  if (failedM || descriptorM < 0) {
    failedM = true;
    return false;
  }
  while (size > 0) {
    std::size_t chunk = size;
    if (failAfterM >= 0) {
      if (writtenM >= failAfterM) {
        failedM = true;
        errorM = ENOSPC;
        return false;
      }
      chunk = std::min(chunk, static_cast<std::size_t>(failAfterM - writtenM));
    }
    const ssize_t written = ::write(descriptorM, text, chunk);
    if (written < 0) {
      if (errno == EINTR) continue;
      failedM = true;
      errorM = errno;
      return false;
    }
    digestM.add(text, static_cast<std::size_t>(written));
    text += written;
    size -= static_cast<std::size_t>(written);
    writtenM += written;
  }
  if (writeBackM && writtenM - writeBackFromM >= writeBackStepCM) {
    // Only a hint: what it fails to start, the synchronisation on close writes and reports.
    ::sync_file_range(descriptorM, writeBackFromM, writtenM - writeBackFromM, SYNC_FILE_RANGE_WRITE);
    writeBackFromM = writtenM;
  }
  return true;
}

}  // namespace STR
