// STR::FileDigests tells which content of a file this process last read whole or last rewrote:
// the XXH3-128 digest of the bytes, their number and the file's modification time, for the last
// reading by FileIoTurbo that reached the end of the file and for the last rewrite by FileIo
// that completed, each kept by the file's name as it was given and by its identity. A host logs
// them, so that the data that answered is named by its content, not only by its file.
// Thread contract: any thread, at any time; the records are process-wide, behind one lock.
#pragma once

#include "BAS/Export.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <sys/types.h>

namespace STR {

class BAS_EXPORT FileDigests {
public:
  // An XXH3-128 digest.
  struct Digest {
    std::uint64_t high = 0;
    std::uint64_t low = 0;
    // 32 lower-case hexadecimal digits, the high half first: what `xxhsum -H2` writes for the file.
    std::string hex() const;
    friend bool operator==(const Digest&, const Digest&) = default;
  };

  struct Record {
    Digest digest;
    std::uint64_t size = 0;       // the bytes that the digest covers
    struct timespec modified {};  // the file's, once read to its end or once the rewrite was in place
    dev_t device = 0;             // the identity of the file read or written
    ino_t inode = 0;
  };

  // True and `record` set when the last reading of `name` (as given to FileIoTurbo::openFile)
  // that read from the file reached its end. False when no reading of it did, and also when the
  // last one stopped short (a failed read, a reader closed before the end): a reading that was
  // cut short leaves no digest, so that the digest of an older reading is never taken for it.
  // An opening that read nothing (a file check) changes nothing.
  static bool lastReading(const std::string& name, Record& record);
  // The same for the file of that identity, whatever name it was read by.
  static bool lastReading(dev_t device, ino_t inode, Record& record);
  // True and `record` set when the last rewrite of `name` (as given to FileIo, opened to
  // replace the file) completed: the digest and size of what was written, the identity and
  // modification time of the file that now holds it. False when none did or the last one
  // failed. Writes straight into a FIFO, a device or an appended file are not rewrites.
  static bool lastRewrite(const std::string& name, Record& record);
  // The same for the file of that identity (the one a rewrite left in place).
  static bool lastRewrite(dev_t device, ino_t inode, Record& record);

  // The framework's file classes: a reading or rewrite of `name`, of the file of that identity,
  // ended, complete (`complete` set) or not (null).
  static void readingEnded(const std::string& name, dev_t device, ino_t inode, const Record* complete);
  static void rewriteEnded(const std::string& name, dev_t device, ino_t inode, const Record* complete);
};

}  // namespace STR
