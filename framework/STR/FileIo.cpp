#include "STR/FileIo.h"

#include "BAS/Framework.h"
#include "BAS/Status.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <streambuf>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace STR {

namespace {

// Negative: off. Read once when a file is opened, so a test's setting affects the files it opens.
std::atomic<long long> failWritesAfter{-1};
// Makes temporary names unique among the files this process replaces at the same time.
std::atomic<unsigned long> temporaryCounter{0};

constexpr std::size_t bufferSizeCM = 64 * 1024;

// Writes to a file descriptor it does not own. Once a write failed, every later one fails too,
// so that a file with a hole in it is never taken for a complete one.
class DescriptorBuffer : public std::streambuf {
public:
  DescriptorBuffer() : bufferM(bufferSizeCM) { setp(bufferM.data(), bufferM.data() + bufferM.size()); }

  void attach(int descriptor, long long failAfter) {
    descriptorM = descriptor;
    failAfterM = failAfter;
  }
  void detach() {
    descriptorM = -1;
    setp(bufferM.data(), bufferM.data() + bufferM.size());
  }
  bool failed() const { return failedM; }
  // The errno of the first failed write; 0 when none failed.
  int error() const { return errorM; }
  // Writes out what is buffered; false when that or an earlier write failed.
  bool flushBuffer() {
    const std::size_t pending = static_cast<std::size_t>(pptr() - pbase());
    setp(bufferM.data(), bufferM.data() + bufferM.size());
    return writeAll(bufferM.data(), pending);
  }

protected:
  int_type overflow(int_type c) override {
    if (!flushBuffer()) return traits_type::eof();
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
    return c;
  }

  std::streamsize xsputn(const char* text, std::streamsize count) override {
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

  int sync() override { return flushBuffer() ? 0 : -1; }

private:
  bool writeAll(const char* text, std::size_t size) {
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
      text += written;
      size -= static_cast<std::size_t>(written);
      writtenM += written;
    }
    return true;
  }

  std::vector<char> bufferM;
  int descriptorM = -1;
  long long failAfterM = -1;
  long long writtenM = 0;
  bool failedM = false;
  int errorM = 0;
};

int closeRetrying(int descriptor) {
  // On Linux the descriptor is released even when close reports EINTR; closing it again could
  // close a descriptor another thread has just been given.
  const int result = ::close(descriptor);
  return (result != 0 && errno == EINTR) ? 0 : result;
}

// The callers' own messages say what an output was for; this one says that the file on disk
// is not what was written, and why, so that a full disk is not found out at the next reload.
void reportNotWritten(const BAS::String& name, int error) {
  BAS::Framework* framework = BAS::Framework::current();
  if (framework == nullptr) return;
  BAS::Status status;
  status.set(BAS::String(), "ERR_FILE_NOT_WRITTEN", BAS::Status::MAJOR,
             std::vector<BAS::String>{name, BAS::String(std::strerror(error != 0 ? error : EIO))});
  framework->log().writeStatus(status);
}

}  // namespace

class FileIo::Impl {
public:
  Impl() : streamM(&bufferM) {}

  DescriptorBuffer bufferM;
  std::ostream streamM;
  int descriptorM = -1;
  bool replacingM = false;
  std::string temporaryNameM;  // replacing only: the file written until it is renamed
};

FileIo::FileIo(const BAS::String& name, std::ios_base::openmode mode) : nameM(name), implM(std::make_unique<Impl>()) {
  Impl& impl = *implM;
  const std::string& target = name.str();
  impl.replacingM = (mode & (std::ios_base::app | std::ios_base::in)) == 0;
  if (impl.replacingM) {
    const std::size_t slash = target.rfind('/');
    const std::string directory = slash == std::string::npos ? std::string() : target.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    // Beside the target, so that the final rename stays within one file system; hidden, so that
    // directory listings of data files do not pick it up.
    impl.temporaryNameM = directory + "." + base + ".tmp." + std::to_string(::getpid()) + "." +
                          std::to_string(temporaryCounter.fetch_add(1));
    impl.descriptorM = ::open(impl.temporaryNameM.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    struct stat status;
    if (impl.descriptorM >= 0 && ::stat(target.c_str(), &status) == 0) {
      // The replacement keeps the permissions of the file it replaces.
      ::fchmod(impl.descriptorM, status.st_mode & 07777);
    }
  } else {
    int flags = O_WRONLY | O_CLOEXEC;
    if (mode & std::ios_base::app) {
      flags |= O_CREAT | O_APPEND;
    } else if (mode & std::ios_base::trunc) {
      flags |= O_CREAT | O_TRUNC;
    }  // in|out without trunc updates an existing file in place, as an fstream would
    impl.descriptorM = ::open(target.c_str(), flags, 0644);
    if (impl.descriptorM >= 0 && (mode & std::ios_base::ate)) ::lseek(impl.descriptorM, 0, SEEK_END);
  }
  if (impl.descriptorM < 0) {
    reportNotWritten(name, errno);
    impl.streamM.setstate(std::ios_base::badbit);
    return;
  }
  impl.bufferM.attach(impl.descriptorM, failWritesAfter.load());
}

FileIo::~FileIo() { closeFile(); }

std::ostream& FileIo::stream() { return implM->streamM; }

bool FileIo::isOpen() const { return implM->descriptorM >= 0; }

bool FileIo::closeFile() {
  Impl& impl = *implM;
  // A file that could not be opened counts as nothing open: there is nothing to finish, and the
  // old file, if any, is as it was.
  if (impl.descriptorM < 0) return true;
  bool good = impl.bufferM.flushBuffer() && !impl.bufferM.failed() && !impl.streamM.bad();
  int error = impl.bufferM.error();
  if (impl.replacingM && good && ::fsync(impl.descriptorM) != 0) {
    good = false;
    error = errno;
  }
  if (closeRetrying(impl.descriptorM) != 0 && good) {
    good = false;
    error = errno;
  }
  impl.descriptorM = -1;
  impl.bufferM.detach();
  impl.streamM.setstate(std::ios_base::badbit);
  if (!impl.replacingM) {
    if (!good) reportNotWritten(nameM, error);
    return good;
  }

  if (good && std::rename(impl.temporaryNameM.c_str(), nameM.c_str()) != 0) {
    good = false;
    error = errno;
  }
  if (!good) {
    ::unlink(impl.temporaryNameM.c_str());
    reportNotWritten(nameM, error);
    return false;
  }
  // Makes the rename itself durable. The target is replaced already, so a failure here is not
  // one of this file: it is left to the file system's own write-back.
  const std::size_t slash = nameM.str().rfind('/');
  const std::string directory = slash == std::string::npos ? std::string(".") : nameM.str().substr(0, slash + 1);
  const int directoryDescriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directoryDescriptor >= 0) {
    ::fsync(directoryDescriptor);
    ::close(directoryDescriptor);
  }
  return true;
}

void FileIo::failWritesAfterForTesting(long long bytes) { failWritesAfter.store(bytes); }

}  // namespace STR
