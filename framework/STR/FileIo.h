// STR::FileIo is the framework's output file; the cache manager rewrites the main data file and
// writes dumps with it. Opened with std::ios_base::out alone it writes through the name it is
// given: symbolic links are followed and stay links; a FIFO or a device (a terminal,
// /dev/stdout) is written directly. A regular target is never left part written, through any
// of its names, whatever stops the writer (a full disk, kill -9):
// - with one link it is replaced: the new content goes to a temporary in the target's folder,
//   is synchronised to disk and renamed over the target on closeFile(); the target keeps its
//   mode and, where the process may, its owner;
// - with further hard links it is rewritten in place, so that every link sees the new content:
//   the whole content is staged and synchronised, the space for it reserved in the target (no
//   room: refused, the target untouched), the staged copy marked pending for that target, then
//   copied over it and removed. A copy cut short by kill -9 is finished by the next opening of
//   the file by FileIoTurbo or FileIo, before anything reads it (StagedFiles).
// A target that this process read (FileIoTurbo) and that has changed since that reading or this
// process's last rewrite of it (another file, size or modification time: a feed dropped in a new
// one) is not overwritten.
// The temporaries that killed writers left beside the target are removed before it is written.
// A replacement or rewrite that completes leaves the digest and size of what was written, with
// the identity and modification time of the file that holds it now, in STR::FileDigests under
// the name given; one that fails takes away what the last rewrite of that name left there.
// Other modes (app, in) write in place. Whatever is not written as asked is reported on the
// thread that calls the constructor or closeFile() as "ERR_FILE_NOT_WRITTEN" (the file name as
// given; the cause and what the file holds now, in words). One object is used by one thread at
// a time.
#pragma once

#include "BAS/Export.h"
#include "BAS/String.h"

#include <ios>
#include <memory>
#include <ostream>

namespace STR {

class BAS_EXPORT FileIo {
public:
  FileIo(const BAS::String& name, std::ios_base::openmode mode);
  ~FileIo();  // closes the file if still open
  FileIo(const FileIo&) = delete;
  FileIo& operator=(const FileIo&) = delete;

  // The stream to write to; writes go nowhere (and mark the stream bad) when not open.
  std::ostream& stream();
  bool isOpen() const;
  const BAS::String& fileName() const { return nameM; }
  // Ends the file: a replacement or rewrite is published only when every write succeeded. True
  // when the file now holds exactly what was written; false when it was not written as asked
  // (it could not be opened, was refused, or a write failed: reported, and the file is as the
  // message says). A second call gives the first call's result.
  bool closeFile();

  // Test seam: every FileIo opened after this call fails its writes once `bytes` bytes have
  // been written, as on a full disk (negative: off). Process-wide.
  static void failWritesAfterForTesting(long long bytes);
  // The steps of closeFile() for a regular target: the new content staged and synchronised; the
  // target's space reserved; the staged copy marked pending; the first block copied over; the
  // whole copied (the pending copy not yet removed). A replacement has the first step only.
  enum class Step { STAGED, RESERVED, MARKED, COPYING, COPIED };
  // Test seam: `hook` (null: none) is called after each step, on the closing thread; a test
  // kills the process there. Process-wide.
  static void onStepForTesting(void (*hook)(Step));

private:
  class Impl;
  // Tells FileDigests how a replacement or rewrite ended.
  void noteRewrite(bool complete);
  BAS::String nameM;
  std::unique_ptr<Impl> implM;
};

}  // namespace STR
