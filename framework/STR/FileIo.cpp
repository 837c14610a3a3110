#include "STR/FileIo.h"

#include "STR/DescriptorBuffer.h"
#include "STR/FileDigests.h"
#include "STR/FileIdentity.h"
#include "STR/FilePaths.h"
#include "STR/FileReport.h"
#include "STR/StagedFiles.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace STR {

namespace {

// Negative: off. Read once when a file is opened, so a test's setting affects the files it opens.
std::atomic<long long> failWritesAfter{-1};
std::atomic<void (*)(FileIo::Step)> stepHook{nullptr};

void reached(FileIo::Step step) {
  if (void (*hook)(FileIo::Step) = stepHook.load()) hook(step);
}

std::string causeOf(int error) { return std::strerror(error != 0 ? error : EIO); }

const char* const changedCM =
    "it changed since this process last read or wrote it (another file, size or modification time); it is left as it is";

int closeRetrying(int descriptor) {
  // On Linux the descriptor is released even when close reports EINTR; closing it again could
  // close a descriptor another thread has just been given.
  const int result = ::close(descriptor);
  return (result != 0 && errno == EINTR) ? 0 : result;
}

// The callers' own messages say what an output was for; this one says that the file on disk
// is not what was written, why, and what it holds instead, so that a full disk is not found
// out at the next reload.
void reportNotWritten(const BAS::String& name, const std::string& reason) {
  FileReport::write("ERR_FILE_NOT_WRITTEN", BAS::Status::MAJOR, {name, BAS::String(reason)});
}

// Room for `length` bytes in the open file `descriptor` before any of its bytes is overwritten,
// its size unchanged. 0, or the errno that says why there is none.
int reserve(int descriptor, off_t length) {
  if (length == 0 || ::fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, length) == 0) return 0;
  if (errno != EOPNOTSUPP) return errno;
  // A file system that cannot reserve: at least the room must be free now.
  struct stat status;
  struct statvfs space;
  if (::fstat(descriptor, &status) != 0 || ::fstatvfs(descriptor, &space) != 0) return errno;
  const off_t needed = length - static_cast<off_t>(status.st_blocks) * 512;
  return needed > 0 && static_cast<unsigned long long>(needed) > space.f_bavail * space.f_frsize ? ENOSPC : 0;
}

// Renames `from` to `to` unless `to` exists (EEXIST then), in one step.
bool renameWithoutReplacing(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL) return false;
  // A file system that cannot rename so (NFS): a second name refuses an existing one as well,
  // and a crash between the two steps leaves a temporary that the next opening removes.
  if (::link(from.c_str(), to.c_str()) != 0) return false;
  ::unlink(from.c_str());
  return true;
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
    // Written into a temporary beside the target, which on closeFile takes the target's place.
    REPLACE,
    // For a target with further hard links: staged as for REPLACE, then copied over the target
    // itself, so that every link sees the new data (the steps in the header).
    REWRITE_IN_PLACE,
  };

  DescriptorBuffer bufferM;
  std::ostream streamM;
  int descriptorM = -1;  // DIRECT: the file; otherwise the staged copy, whose lock lives with it
  Way wayM = Way::DIRECT;
  bool closedM = false;
  bool resultM = true;  // what closeFile answers once closedM
  std::string targetNameM;  // REPLACE and REWRITE_IN_PLACE: the file the name leads to
  std::string stagedNameM;  // the staged copy's current name; empty once it is gone
  bool keepStagedM = false;  // a copy over the target failed: the pending copy stays for the next opening
  bool existedM = false;     // the target existed when writing began,
  FileIdentity expectedM;    // with this identity
  bool writtenKnownM = false;  // a completed replacement or rewrite: the file that holds it now
  FileIdentity writtenM;

  std::string untouched() const { return existedM ? "it is left as it was" : "it was not created"; }

  // Opens the staged copy for a replacement or rewrite of `name`; false, with `reason`, when
  // the file is not to be written or nothing can be staged for it.
  bool openStaged(const BAS::String& name, std::string& reason) {
    if (!FilePaths::followLinks(name.str(), targetNameM)) {
      reason = causeOf(errno) + "; it is left as it was";
      return false;
    }
    std::string failure;
    if (!StagedFiles::tidy(targetNameM, name, failure)) {
      reason = failure + "; it is left as it is";
      return false;
    }
    struct stat existing;
    existedM = ::stat(targetNameM.c_str(), &existing) == 0;
    if (existedM) {
      expectedM = FileIdentity::of(existing);
      FileIdentity known;
      if (FileIdentity::recall(name.str(), known) && !(known == expectedM)) {
        reason = changedCM;
        return false;
      }
      if (existing.st_nlink > 1) wayM = Way::REWRITE_IN_PLACE;
    }
    // Readable by the owner alone until it has the target's mode: the data may not be for everyone.
    descriptorM = StagedFiles::createTemporary(targetNameM, existedM ? 0600 : 0644, stagedNameM);
    if (descriptorM < 0) {
      reason = causeOf(errno) + "; " + untouched();
      return false;
    }
    if (!existedM || wayM == Way::REWRITE_IN_PLACE) return true;
    // Owner first: a change of owner clears the set-user-ID and set-group-ID bits. A process
    // that may not give the file away keeps at least the group where it may, and owns the
    // rest, as it would own a file it created.
    bool owned = ::fchown(descriptorM, existing.st_uid, existing.st_gid) == 0;
    if (!owned && errno == EPERM) {
      owned = true;
      ::fchown(descriptorM, static_cast<uid_t>(-1), existing.st_gid);
    }
    if (owned && ::fchmod(descriptorM, existing.st_mode & 07777) == 0) return true;
    reason = causeOf(errno) + "; it is left as it was";
    ::unlink(stagedNameM.c_str());
    ::close(descriptorM);
    descriptorM = -1;
    return false;
  }

  // True when `name` no longer leads to the file that writing began with.
  bool changed(const BAS::String& name) const {
    FileIdentity now;
    const bool exists = FileIdentity::ofName(name.str(), now);
    return exists != existedM || (exists && !(now == expectedM));
  }

  // Publishes the complete staged copy; false, with `reason`, when the target did not get it.
  bool publish(const BAS::String& name, std::string& reason) {
    int error = bufferM.flushBuffer() && !bufferM.failed() && !streamM.bad() ? 0 : bufferM.error();
    if (error == 0 && ::fsync(descriptorM) != 0) error = errno;
    if (error != 0 || streamM.bad()) {
      reason = causeOf(error) + "; " + untouched();
      return false;
    }
    reached(Step::STAGED);
    // Looked at again: a feed may have dropped in a new file while this one was written.
    if (changed(name)) {
      reason = changedCM;
      return false;
    }
    if (wayM == Way::REWRITE_IN_PLACE) return rewriteInPlace(name, reason);
    if (std::rename(stagedNameM.c_str(), targetNameM.c_str()) != 0) {
      reason = causeOf(errno) + "; " + untouched();
      return false;
    }
    stagedNameM.clear();
    FileIdentity written;
    writtenKnownM = FileIdentity::ofDescriptor(descriptorM, written);
    if (writtenKnownM) {
      FileIdentity::rememberIfRead(name.str(), written);
      writtenM = written;
    }
    // Makes the rename itself durable. The target is replaced already, so a failure here is not
    // one of this file: it is left to the file system's own write-back.
    FilePaths::syncFolderOf(targetNameM);
    return true;
  }

  bool rewriteInPlace(const BAS::String& name, std::string& reason) {
    struct stat staged;
    if (::fstat(descriptorM, &staged) != 0) {
      reason = causeOf(errno) + "; it is left as it was";
      return false;
    }
    const int output = ::open(targetNameM.c_str(), O_WRONLY | O_CLOEXEC);
    if (output < 0) {
      reason = causeOf(errno) + "; it is left as it was";
      return false;
    }
    FileIdentity opened;
    if (!FileIdentity::ofDescriptor(output, opened) || !(opened == expectedM)) {
      ::close(output);
      reason = changedCM;
      return false;
    }
    int error = reserve(output, staged.st_size);
    if (error != 0) {
      ::close(output);
      reason = "there is no room for its new content (" + causeOf(error) + "); it is left as it was";
      return false;
    }
    reached(Step::RESERVED);
    // From here on the staged copy says, by its name, that it is complete and meant for this
    // file: whoever opens the file next finishes a copy that this writer does not.
    const std::string pending = StagedFiles::pendingName(targetNameM, opened.inode());
    if (!renameWithoutReplacing(stagedNameM, pending)) {
      error = errno;
      ::close(output);
      reason = error == EEXIST ? "another rewrite of it is in progress or unfinished (" + pending + "); it is left as it was"
                               : causeOf(error) + "; it is left as it was";
      return false;
    }
    stagedNameM = pending;
    if (!FilePaths::syncFolderOf(pending)) {
      // Not durable, it would not protect the copy: the target is not touched.
      ::close(output);
      reason = causeOf(errno) + "; it is left as it was";
      return false;
    }
    reached(Step::MARKED);
    error = StagedFiles::copyOver(descriptorM, output, staged.st_size, [] { reached(Step::COPYING); });
    FileIdentity written;
    const bool known = FileIdentity::ofDescriptor(output, written);
    if (::close(output) != 0 && error == 0) error = errno;
    if (error != 0) {
      keepStagedM = true;
      reason = causeOf(error) + " while its new content was copied over it; it is not whole until its next opening "
               "copies the complete new content kept in " + pending + " over it";
      return false;
    }
    if (known) {
      FileIdentity::rememberIfRead(name.str(), written);
      writtenKnownM = true;
      writtenM = written;
    }
    reached(Step::COPIED);
    ::unlink(pending.c_str());
    stagedNameM.clear();
    FilePaths::syncFolderOf(pending);
    return true;
  }
};

FileIo::FileIo(const BAS::String& name, std::ios_base::openmode mode) : nameM(name), implM(std::make_unique<Impl>()) {
  Impl& impl = *implM;
  const std::string& target = name.str();
  struct stat named;
  std::string reason;
  if ((mode & (std::ios_base::app | std::ios_base::in)) == 0 &&
      (::stat(target.c_str(), &named) != 0 || S_ISREG(named.st_mode))) {
    impl.wayM = Impl::Way::REPLACE;
    impl.openStaged(name, reason);
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
    if (impl.descriptorM < 0) reason = causeOf(errno) + "; nothing was written to it";
  }
  if (impl.descriptorM < 0) {
    if (impl.wayM != Impl::Way::DIRECT) noteRewrite(false);
    reportNotWritten(name, reason);
    impl.streamM.setstate(std::ios_base::badbit);
    impl.closedM = true;
    impl.resultM = false;
    return;
  }
  impl.bufferM.attach(impl.descriptorM, failWritesAfter.load(), impl.wayM != Impl::Way::DIRECT);
}

FileIo::~FileIo() { closeFile(); }

void FileIo::noteRewrite(bool complete) {
  const Impl& impl = *implM;
  if (!complete || !impl.writtenKnownM) {
    // What the target is now is not known for certain: the identity it had when writing began.
    FileDigests::rewriteEnded(nameM.str(), impl.expectedM.device(), impl.expectedM.inode(), nullptr);
    return;
  }
  FileDigests::Record record;
  record.digest = impl.bufferM.written().digest();
  record.size = impl.bufferM.written().size();
  record.modified = impl.writtenM.modified();
  record.device = impl.writtenM.device();
  record.inode = impl.writtenM.inode();
  FileDigests::rewriteEnded(nameM.str(), record.device, record.inode, &record);
}

std::ostream& FileIo::stream() { return implM->streamM; }

bool FileIo::isOpen() const { return implM->descriptorM >= 0; }

bool FileIo::closeFile() {
  Impl& impl = *implM;
  if (impl.closedM) return impl.resultM;
  impl.closedM = true;
  std::string reason;
  bool good = false;
  if (impl.wayM == Impl::Way::DIRECT) {
    good = impl.bufferM.flushBuffer() && !impl.bufferM.failed() && !impl.streamM.bad();
    int error = impl.bufferM.error();
    if (closeRetrying(impl.descriptorM) != 0 && good) {
      good = false;
      error = errno;
    }
    reason = causeOf(error) + "; only part of what was written may have reached it";
  } else {
    good = impl.publish(nameM, reason);
    noteRewrite(good);
    if (!impl.stagedNameM.empty() && !impl.keepStagedM) ::unlink(impl.stagedNameM.c_str());
    // Last: closing the staged copy's descriptor releases the lock that tells a live writer.
    ::close(impl.descriptorM);
  }
  impl.descriptorM = -1;
  impl.bufferM.detach();
  impl.streamM.setstate(std::ios_base::badbit);
  if (!good) reportNotWritten(nameM, reason);
  impl.resultM = good;
  return good;
}

void FileIo::failWritesAfterForTesting(long long bytes) { failWritesAfter.store(bytes); }

void FileIo::onStepForTesting(void (*hook)(Step)) { stepHook.store(hook); }

}  // namespace STR
