#include "STR/FileIdentity.h"

#include "BAS/Mutex.h"
#include "BAS/MutexLocker.h"
#include "STR/FilePaths.h"

#include <sys/stat.h>
#include <unordered_map>

namespace STR {

namespace {

// What this process last left each file with, by the absolute form of its name.
struct Remembered {
  BAS::Mutex mutexM;
  std::unordered_map<std::string, FileIdentity> byNameM GUARDED_BY(mutexM);
};

// Never destroyed: a library keeps no global with a destructor, and a file may be read or
// written by a thread that outlives the end of main.
Remembered& remembered() {
  static Remembered* const instance = new Remembered;
  return *instance;
}

}  // namespace

FileIdentity FileIdentity::of(const struct stat& status) {
  FileIdentity identity;
  identity.deviceM = status.st_dev;
  identity.inodeM = status.st_ino;
  identity.sizeM = status.st_size;
  identity.modifiedM = status.st_mtim;
  return identity;
}

bool FileIdentity::ofDescriptor(int descriptor, FileIdentity& identity) {
  struct stat status;
  if (::fstat(descriptor, &status) != 0) return false;
  identity = of(status);
  return true;
}

bool FileIdentity::ofName(const std::string& name, FileIdentity& identity) {
  struct stat status;
  if (::stat(name.c_str(), &status) != 0) return false;
  identity = of(status);
  return true;
}

void FileIdentity::remember(const std::string& name, const FileIdentity& identity) {
  Remembered& memory = remembered();
  BAS::MutexLocker locker(memory.mutexM);
  memory.byNameM.insert_or_assign(FilePaths::absolute(name), identity);
}

void FileIdentity::rememberIfRead(const std::string& name, const FileIdentity& identity) {
  const std::string key = FilePaths::absolute(name);
  Remembered& memory = remembered();
  BAS::MutexLocker locker(memory.mutexM);
  const auto found = memory.byNameM.find(key);
  if (found != memory.byNameM.end()) found->second = identity;
}

bool FileIdentity::recall(const std::string& name, FileIdentity& identity) {
  const std::string key = FilePaths::absolute(name);
  Remembered& memory = remembered();
  BAS::MutexLocker locker(memory.mutexM);
  const auto found = memory.byNameM.find(key);
  if (found == memory.byNameM.end()) return false;
  identity = found->second;
  return true;
}

}  // namespace STR
