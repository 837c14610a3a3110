// STR::FileIdentity tells one version of a file from another: its device, inode, size and
// modification time. The framework remembers, per file name, the identity that this process's
// last reading (FileIoTurbo) or last rewrite (FileIo) of a file that it read left, so that FileIo
// refuses to overwrite data that someone else replaced or changed since. A value; the memory behind
// remember() and recall() is process-wide and thread-safe.
#pragma once

#include <ctime>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace STR {

class FileIdentity {
public:
  // The identity of the open file `descriptor`; false, with errno set, when it cannot be had.
  static bool ofDescriptor(int descriptor, FileIdentity& identity);
  // The identity of the file that `name` leads to; false, with errno set, when there is none.
  static bool ofName(const std::string& name, FileIdentity& identity);
  static FileIdentity of(const struct stat& status);

  // Keeps `identity` as the one that this process last left `name` with, replacing an earlier one.
  static void remember(const std::string& name, const FileIdentity& identity);
  // As remember, for a file that this process read before; a file it only ever wrote (a dump)
  // is nobody's data, and another may change it as they like.
  static void rememberIfRead(const std::string& name, const FileIdentity& identity);
  // The identity last remembered for `name`; false when this process never read nor wrote it.
  static bool recall(const std::string& name, FileIdentity& identity);

  dev_t device() const { return deviceM; }
  ino_t inode() const { return inodeM; }
  off_t size() const { return sizeM; }
  const struct timespec& modified() const { return modifiedM; }

  friend bool operator==(const FileIdentity& a, const FileIdentity& b) {
    return a.deviceM == b.deviceM && a.inodeM == b.inodeM && a.sizeM == b.sizeM &&
           a.modifiedM.tv_sec == b.modifiedM.tv_sec && a.modifiedM.tv_nsec == b.modifiedM.tv_nsec;
  }

private:
  dev_t deviceM = 0;
  ino_t inodeM = 0;
  off_t sizeM = 0;
  struct timespec modifiedM {};
};

}  // namespace STR
