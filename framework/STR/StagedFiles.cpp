#include "STR/StagedFiles.h"

#include "STR/FilePaths.h"
#include "STR/FileReport.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace STR {

namespace {

// Set once, never cleared. Atomic, no lock.
std::atomic<bool> neverWrites{false};
// Makes temporary names unique among the files this process writes at the same time.
std::atomic<unsigned long> temporaryCounter{0};

constexpr std::size_t copyBlockCM = std::size_t{1} << 20;
// A new name is tried when a cleaner took the lock of a temporary just created (and removed it).
constexpr int createAttemptsCM = 8;

// The lock that tells a live writer: exclusive, so that a cleaner's try fails while it is held.
bool lock(int descriptor, bool wait) {
  for (;;) {
    if (::flock(descriptor, LOCK_EX | (wait ? 0 : LOCK_NB)) == 0) return true;
    if (errno != EINTR) return false;
  }
}

// True when `name` still names the file open as `descriptor`; `status` is that file's.
bool stillNamed(int descriptor, const std::string& name, struct stat& status) {
  struct stat named;
  return ::fstat(descriptor, &status) == 0 && ::lstat(name.c_str(), &named) == 0 && named.st_dev == status.st_dev &&
         named.st_ino == status.st_ino;
}

// "PID.N": what createTemporary puts behind the prefix, so that the temporaries of a file named
// "np.txt.tmp.1" are not taken for those of "np.txt".
bool isTemporarySuffix(std::string_view suffix) {
  const std::size_t dot = suffix.find('.');
  const auto digits = [](std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  };
  return dot != std::string_view::npos && digits(suffix.substr(0, dot)) && digits(suffix.substr(dot + 1));
}

std::string temporaryPrefix(const std::string& target) {
  return FilePaths::folderOf(target) + "." + FilePaths::baseOf(target) + ".tmp.";
}

void removeStaleTemporaries(const std::string& target, const BAS::String& name) {
  const std::string folder = FilePaths::folderOf(target);
  const std::string prefix = "." + FilePaths::baseOf(target) + ".tmp.";
  std::vector<std::string> candidates;
  if (DIR* directory = ::opendir(folder.empty() ? "." : folder.c_str())) {
    while (const dirent* entry = ::readdir(directory)) {
      const std::string_view entryName(entry->d_name);
      if (entryName.starts_with(prefix) && isTemporarySuffix(entryName.substr(prefix.size())))
        candidates.push_back(folder + entry->d_name);
    }
    ::closedir(directory);
  }
  bool removed = false;
  for (const std::string& temporary : candidates) {
    const int descriptor = ::open(temporary.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) continue;
    struct stat status;
    // The lock first: a temporary whose writer lives is never touched, whatever else holds.
    if (lock(descriptor, false) && stillNamed(descriptor, temporary, status) && S_ISREG(status.st_mode) &&
        ::unlink(temporary.c_str()) == 0) {
      removed = true;
      FileReport::write("INF_FILE_TEMPORARY_REMOVED", BAS::Status::NORMAL, {BAS::String(temporary), name});
    }
    ::close(descriptor);
  }
  if (removed) FilePaths::syncFolderOf(target);
}

// Copies a pending copy whose writer is gone over `target`. False, with `failure`, when one
// exists and could not be copied over.
bool finishPending(const std::string& target, const BAS::String& name, std::string& failure) {
  struct stat status;
  if (::stat(target.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return true;
  // Named after the inode it was made for: a target replaced since by another file has no
  // pending copy, and gets none of the old file's.
  const std::string pending = StagedFiles::pendingName(target, status.st_ino);
  const int source = ::open(pending.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (source < 0) {
    if (errno == ENOENT) return true;
    failure = "its interrupted rewrite cannot be finished: " + pending + " cannot be read (" + std::strerror(errno) + ")";
    return false;
  }
  struct stat staged;
  // A live writer finishes its copy itself; a pending copy gone meanwhile was finished by another.
  if (!lock(source, false) || !stillNamed(source, pending, staged)) {
    ::close(source);
    return true;
  }
  const int output = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
  int error = output < 0 ? errno : 0;
  struct stat opened;
  if (error == 0 && (::fstat(output, &opened) != 0 || opened.st_ino != status.st_ino || opened.st_dev != status.st_dev)) {
    // The target was replaced between the two looks; the copy is not for the new file.
    ::close(output);
    ::close(source);
    return true;
  }
  if (error == 0) error = StagedFiles::copyOver(source, output, staged.st_size, nullptr);
  if (output >= 0 && ::close(output) != 0 && error == 0) error = errno;
  if (error != 0) {
    ::close(source);
    failure = "its interrupted rewrite could not be finished from " + pending + " (" + std::strerror(error) + ")";
    return false;
  }
  // Removed before the lock goes, so that nobody copies it a second time.
  ::unlink(pending.c_str());
  FilePaths::syncFolderOf(pending);
  ::close(source);
  FileReport::write("INF_FILE_REWRITE_FINISHED", BAS::Status::NORMAL, {name, BAS::String(pending)});
  return true;
}

}  // namespace

void StagedFiles::setProcessNeverWrites() { neverWrites.store(true); }

bool StagedFiles::processNeverWrites() { return neverWrites.load(); }

bool StagedFiles::rewritePending(const BAS::String& name) {
  std::string target;
  struct stat status;
  if (!FilePaths::followLinks(name.str(), target) || ::stat(target.c_str(), &status) != 0) return false;
  struct stat pending;
  return ::lstat(pendingName(target, status.st_ino).c_str(), &pending) == 0;
}

bool StagedFiles::tidy(const std::string& target, const BAS::String& name, std::string& failure) {
  if (processNeverWrites()) return true;
  removeStaleTemporaries(target, name);
  return finishPending(target, name, failure);
}

int StagedFiles::createTemporary(const std::string& target, mode_t mode, std::string& temporary) {
  for (int attempt = 0; attempt < createAttemptsCM; ++attempt) {
    temporary = temporaryPrefix(target) + std::to_string(::getpid()) + "." + std::to_string(temporaryCounter.fetch_add(1));
    const int descriptor = ::open(temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (descriptor < 0) {
      if (errno == EEXIST) continue;
      return -1;
    }
    // A cleaner may have taken the new file's lock before this writer, and then removes it: the
    // writer waits for the lock (a cleaner holds it for a moment only) and looks again. Where
    // the file system has no locks, no cleaner can take one either.
    lock(descriptor, true);
    struct stat status;
    if (stillNamed(descriptor, temporary, status)) return descriptor;
    ::close(descriptor);
  }
  errno = EEXIST;
  return -1;
}

std::string StagedFiles::pendingName(const std::string& target, ino_t inode) {
  // By the inode alone, so that a rewrite through one name of a file is found through all its
  // names in the folder, and two rewrites through two names cannot both be pending.
  return FilePaths::folderOf(target) + ".pending-rewrite." + std::to_string(inode);
}

int StagedFiles::copyOver(int source, int output, off_t length, void (*afterFirstBlock)()) {
  std::vector<char> buffer(copyBlockCM);
  off_t copied = 0;
  while (copied < length) {
    const std::size_t wanted = static_cast<std::size_t>(std::min<off_t>(length - copied, static_cast<off_t>(buffer.size())));
    const ssize_t got = ::pread(source, buffer.data(), wanted, copied);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    // The staged copy is shorter than it was when complete: something else cut it.
    if (got == 0) return EIO;
    for (ssize_t done = 0; done < got;) {
      const ssize_t put = ::pwrite(output, buffer.data() + done, static_cast<std::size_t>(got - done), copied + done);
      if (put < 0 && errno == EINTR) continue;
      if (put < 0) return errno;
      done += put;
    }
    copied += got;
    if (afterFirstBlock != nullptr) std::exchange(afterFirstBlock, nullptr)();
  }
  if (::ftruncate(output, length) != 0) return errno;
  if (::fsync(output) != 0) return errno;
  return 0;
}

}  // namespace STR
