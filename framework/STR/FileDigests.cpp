#include "STR/FileDigests.h"

#include "BAS/Mutex.h"
#include "BAS/MutexLocker.h"

#include <map>
#include <unordered_map>
#include <utility>

namespace STR {

namespace {

using Identity = std::pair<dev_t, ino_t>;

// The last complete reading and rewrite of one file, each absent when there is none or the
// last one stopped short.
struct Known {
  bool readM = false;
  FileDigests::Record readingM;
  bool rewrittenM = false;
  FileDigests::Record rewriteM;
};

struct Memory {
  BAS::Mutex mutexM;
  std::unordered_map<std::string, Known> byNameM GUARDED_BY(mutexM);
  std::map<Identity, Known> byIdentityM GUARDED_BY(mutexM);
};

// Never destroyed: a library keeps no global with a destructor, and a file may be read or
// written by a thread that outlives the end of main.
Memory& memory() {
  static Memory* const instance = new Memory;
  return *instance;
}

using Slot = bool Known::*;
using Field = FileDigests::Record Known::*;

// Sets or clears one kind of record for the name and for the identity. The identity of the
// record that the name held before is forgotten unless another name's record still has it, so
// that files rewritten again and again leave no trail of identities behind.
void note(const std::string& name, dev_t device, ino_t inode, const FileDigests::Record* complete, Slot has, Field field) {
  Memory& known = memory();
  BAS::MutexLocker locker(known.mutexM);
  Known& byName = known.byNameM[name];
  if (byName.*has) {
    const Identity before{(byName.*field).device, (byName.*field).inode};
    bool shared = false;
    for (const auto& [otherName, other] : known.byNameM) {
      shared = shared || (otherName != name && other.*has && Identity{(other.*field).device, (other.*field).inode} == before);
    }
    if (!shared) {
      const auto found = known.byIdentityM.find(before);
      if (found != known.byIdentityM.end()) found->second.*has = false;
    }
  }
  byName.*has = complete != nullptr;
  if (complete == nullptr) {
    const auto found = known.byIdentityM.find(Identity{device, inode});
    if (found != known.byIdentityM.end()) found->second.*has = false;
    return;
  }
  Known& byIdentity = known.byIdentityM[Identity{device, inode}];
  byIdentity.*has = true;
  byName.*field = byIdentity.*field = *complete;
}

bool recall(const Known* known, Slot has, Field field, FileDigests::Record& record) {
  if (known == nullptr || !(known->*has)) return false;
  record = known->*field;
  return true;
}

bool byName(const std::string& name, Slot has, Field field, FileDigests::Record& record) {
  Memory& known = memory();
  BAS::MutexLocker locker(known.mutexM);
  const auto found = known.byNameM.find(name);
  return recall(found != known.byNameM.end() ? &found->second : nullptr, has, field, record);
}

bool byIdentity(dev_t device, ino_t inode, Slot has, Field field, FileDigests::Record& record) {
  Memory& known = memory();
  BAS::MutexLocker locker(known.mutexM);
  const auto found = known.byIdentityM.find(Identity{device, inode});
  return recall(found != known.byIdentityM.end() ? &found->second : nullptr, has, field, record);
}

}  // namespace

std::string FileDigests::Digest::hex() const {
  static constexpr char digitsCM[] = "0123456789abcdef";
  std::string text(32, '0');
  for (int i = 0; i < 16; ++i) {
    text[static_cast<std::size_t>(15 - i)] = digitsCM[(high >> (4 * i)) & 0xF];
    text[static_cast<std::size_t>(31 - i)] = digitsCM[(low >> (4 * i)) & 0xF];
  }
  return text;
}

bool FileDigests::lastReading(const std::string& name, Record& record) {
  return byName(name, &Known::readM, &Known::readingM, record);
}

bool FileDigests::lastReading(dev_t device, ino_t inode, Record& record) {
  return byIdentity(device, inode, &Known::readM, &Known::readingM, record);
}

bool FileDigests::lastRewrite(const std::string& name, Record& record) {
  return byName(name, &Known::rewrittenM, &Known::rewriteM, record);
}

bool FileDigests::lastRewrite(dev_t device, ino_t inode, Record& record) {
  return byIdentity(device, inode, &Known::rewrittenM, &Known::rewriteM, record);
}

void FileDigests::readingEnded(const std::string& name, dev_t device, ino_t inode, const Record* complete) {
  note(name, device, inode, complete, &Known::readM, &Known::readingM);
}

void FileDigests::rewriteEnded(const std::string& name, dev_t device, ino_t inode, const Record* complete) {
  note(name, device, inode, complete, &Known::rewrittenM, &Known::rewriteM);
}

}  // namespace STR
