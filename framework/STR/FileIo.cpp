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
constexpr long long writeBackStepCM = 8LL << 20;
// As the kernel's own limit on links followed in one name.
constexpr int maxLinkHopsCM = 40;

// The folder part of a file name with its final slash ("" for a name without folder).
std::string folderOf(const std::string& name) {
  const std::size_t slash = name.rfind('/');
  return slash == std::string::npos ? std::string() : name.substr(0, slash + 1);
}

// Writes to a file descriptor it does not own. Once a write failed, every later one fails too,
// so that a file with a hole in it is never taken for a complete one.
class DescriptorBuffer : public std::streambuf {
public:
  DescriptorBuffer() : bufferM(bufferSizeCM) { setp(bufferM.data(), bufferM.data() + bufferM.size()); }

  // With `writeBack`, the kernel is asked to start writing out what was written every
  // writeBackStepCM bytes, for a file that will be synchronised on close: the disk then works
  // while the rest is still being produced, instead of all of it waiting for the close.
  void attach(int descriptor, long long failAfter, bool writeBack) {
    descriptorM = descriptor;
    failAfterM = failAfter;
    writeBackM = writeBack;
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
    if (writeBackM && writtenM - writeBackFromM >= writeBackStepCM) {
      // Only a hint: what it fails to start, the synchronisation on close writes and reports.
      ::sync_file_range(descriptorM, writeBackFromM, writtenM - writeBackFromM, SYNC_FILE_RANGE_WRITE);
      writeBackFromM = writtenM;
    }
    return true;
  }

  std::vector<char> bufferM;
  int descriptorM = -1;
  long long failAfterM = -1;
  long long writtenM = 0;
  bool writeBackM = false;
  long long writeBackFromM = 0;  // the first byte not yet handed to write-back
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

// The file that `name` leads to once every symbolic link on its last component is followed, a
// relative link read from the folder of the link. A name that leads nowhere yet is where the
// new file goes, so a dangling link gets its target created. False, with errno set, for a loop
// or an unreadable link.
bool followLinks(const std::string& name, std::string& target) {
  target = name;
  for (int hops = 0; hops < maxLinkHopsCM; ++hops) {
    struct stat status;
    if (::lstat(target.c_str(), &status) != 0) return errno == ENOENT;
    if (!S_ISLNK(status.st_mode)) return true;
    std::string link(static_cast<std::size_t>(status.st_size > 0 ? status.st_size : 255) + 1, '\0');
    const ssize_t length = ::readlink(target.c_str(), link.data(), link.size());
    if (length < 0) return false;
    if (static_cast<std::size_t>(length) == link.size()) {
      // The link changed under us; read it again.
      continue;
    }
    link.resize(static_cast<std::size_t>(length));
    if (link.empty()) {
      errno = ENOENT;
      return false;
    }
    target = link.front() == '/' ? link : folderOf(target) + link;
  }
  errno = ELOOP;
  return false;
}

// Writes the whole of `source` over the start of the open file `descriptor` and cuts it to
// that length. 0, or the errno of the first failure.
int copyOver(const std::string& source, int descriptor) {
  const int input = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
  if (input < 0) return errno;
  std::vector<char> buffer(bufferSizeCM);
  off_t copied = 0;
  int error = 0;
  for (;;) {
    const ssize_t got = ::read(input, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) error = errno;
    if (got <= 0) break;
    for (ssize_t done = 0; done < got && error == 0;) {
      const ssize_t put = ::pwrite(descriptor, buffer.data() + done, static_cast<std::size_t>(got - done), copied + done);
      if (put < 0 && errno != EINTR) error = errno;
      if (put > 0) done += put;
    }
    if (error != 0) break;
    copied += got;
  }
  ::close(input);
  if (error == 0 && ::ftruncate(descriptor, copied) != 0) error = errno;
  if (error == 0 && ::fsync(descriptor) != 0) error = errno;
  return error;
}

}  // namespace

class FileIo::Impl {
public:
  Impl() : streamM(&bufferM) {}

  // How the file named by the user gets what was written.
  enum class Way {
    // Written straight into the named file: appending or updating modes, and targets that are
    // no regular file (a FIFO, a terminal, /dev/stdout), which a replacement would take away
    // from whoever reads them.
    DIRECT,
    // Written into a temporary file beside the target, which on closeFile takes the target's
    // place; the target keeps its mode and, where the process may, its owner.
    REPLACE,
    // For a target with further hard links: written into a temporary file as for REPLACE and,
    // once that is complete, copied over the target itself, so that every link sees the new
    // data. A failure while writing leaves the target whole; only a crash or a failure during
    // the copy can leave it incomplete, which a rename cannot avoid without breaking the links.
    REWRITE_IN_PLACE,
  };

  DescriptorBuffer bufferM;
  std::ostream streamM;
  int descriptorM = -1;
  Way wayM = Way::DIRECT;
  std::string targetNameM;     // REPLACE and REWRITE_IN_PLACE: the file the name leads to
  std::string temporaryNameM;  // REPLACE and REWRITE_IN_PLACE: the file written until closeFile

  // Opens the temporary file for a replacement of `name`; the descriptor stays -1, with errno
  // set, when that fails.
  void openReplacement(const std::string& name) {
    if (!followLinks(name, targetNameM)) return;
    struct stat existing;
    const bool exists = ::stat(targetNameM.c_str(), &existing) == 0;
    wayM = exists && existing.st_nlink > 1 ? Way::REWRITE_IN_PLACE : Way::REPLACE;
    // In the target's own folder, so that the rename stays within one file system; hidden, so
    // that directory listings of data files do not pick it up.
    const std::size_t slash = targetNameM.rfind('/');
    const std::string base = slash == std::string::npos ? targetNameM : targetNameM.substr(slash + 1);
    temporaryNameM = folderOf(targetNameM) + "." + base + ".tmp." + std::to_string(::getpid()) + "." +
                     std::to_string(temporaryCounter.fetch_add(1));
    // Readable by the owner alone until it has the target's mode: the data may not be for everyone.
    descriptorM = ::open(temporaryNameM.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, exists ? 0600 : 0644);
    if (descriptorM < 0 || !exists || wayM == Way::REWRITE_IN_PLACE) return;
    // Owner first: a change of owner clears the set-user-ID and set-group-ID bits. A process
    // that may not give the file away keeps at least the group where it may, and owns the
    // rest, as it would own a file it created.
    bool owned = ::fchown(descriptorM, existing.st_uid, existing.st_gid) == 0;
    if (!owned && errno == EPERM) {
      owned = true;
      ::fchown(descriptorM, static_cast<uid_t>(-1), existing.st_gid);
    }
    if (!owned || ::fchmod(descriptorM, existing.st_mode & 07777) != 0) abandon();
  }

  // Gives up a temporary file that was opened; errno is kept.
  void abandon() {
    const int error = errno;
    ::close(descriptorM);
    ::unlink(temporaryNameM.c_str());
    descriptorM = -1;
    errno = error;
  }
};

FileIo::FileIo(const BAS::String& name, std::ios_base::openmode mode) : nameM(name), implM(std::make_unique<Impl>()) {
  Impl& impl = *implM;
  const std::string& target = name.str();
  struct stat named;
  if ((mode & (std::ios_base::app | std::ios_base::in)) == 0 &&
      (::stat(target.c_str(), &named) != 0 || S_ISREG(named.st_mode))) {
    impl.openReplacement(target);
  } else {
    int flags = O_WRONLY | O_CLOEXEC;
    if (mode & std::ios_base::app) {
      flags |= O_CREAT | O_APPEND;
    } else if ((mode & std::ios_base::in) && (mode & std::ios_base::trunc)) {
      flags |= O_CREAT | O_TRUNC;
    }  // in|out without trunc updates an existing file in place, as an fstream would; a FIFO or
       // a device is written as it is
    impl.descriptorM = ::open(target.c_str(), flags, 0644);
    if (impl.descriptorM >= 0 && (mode & std::ios_base::ate)) ::lseek(impl.descriptorM, 0, SEEK_END);
  }
  if (impl.descriptorM < 0) {
    reportNotWritten(name, errno);
    impl.streamM.setstate(std::ios_base::badbit);
    return;
  }
  impl.bufferM.attach(impl.descriptorM, failWritesAfter.load(), impl.wayM != Impl::Way::DIRECT);
}

FileIo::~FileIo() { closeFile(); }

std::ostream& FileIo::stream() { return implM->streamM; }

bool FileIo::isOpen() const { return implM->descriptorM >= 0; }

bool FileIo::closeFile() {
  Impl& impl = *implM;
  // A file that could not be opened counts as nothing open: there is nothing to finish, and the
  // old file, if any, is as it was.
  if (impl.descriptorM < 0) return true;
  const bool staged = impl.wayM != Impl::Way::DIRECT;
  bool good = impl.bufferM.flushBuffer() && !impl.bufferM.failed() && !impl.streamM.bad();
  int error = impl.bufferM.error();
  if (staged && good && ::fsync(impl.descriptorM) != 0) {
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
  if (!staged) {
    if (!good) reportNotWritten(nameM, error);
    return good;
  }

  const std::string& target = impl.targetNameM;
  if (good && impl.wayM == Impl::Way::REPLACE && std::rename(impl.temporaryNameM.c_str(), target.c_str()) != 0) {
    good = false;
    error = errno;
  }
  if (good && impl.wayM == Impl::Way::REWRITE_IN_PLACE) {
    const int output = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
    error = output < 0 ? errno : copyOver(impl.temporaryNameM, output);
    if (output >= 0 && closeRetrying(output) != 0 && error == 0) error = errno;
    good = error == 0;
  }
  if (!good || impl.wayM == Impl::Way::REWRITE_IN_PLACE) ::unlink(impl.temporaryNameM.c_str());
  if (!good) {
    reportNotWritten(nameM, error);
    return false;
  }
  if (impl.wayM == Impl::Way::REWRITE_IN_PLACE) return true;
  // Makes the rename itself durable. The target is replaced already, so a failure here is not
  // one of this file: it is left to the file system's own write-back.
  const std::string folder = folderOf(target);
  const int folderDescriptor = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folderDescriptor >= 0) {
    ::fsync(folderDescriptor);
    ::close(folderDescriptor);
  }
  return true;
}

void FileIo::failWritesAfterForTesting(long long bytes) { failWritesAfter.store(bytes); }

}  // namespace STR
