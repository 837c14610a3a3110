// STR::StagedFiles are the files that STR::FileIo keeps beside a target, in the target's own
// folder, while it replaces or rewrites it: a temporary ".NAME.tmp.PID.N" while the new content
// is written, and, for a target with further hard links, the complete new content renamed to
// ".pending-rewrite.INODE" (pending for the file of that inode, whichever of its names in the
// folder it is reached by) while it is copied over the target.
// Each is locked (flock) by its writer from its creation to its removal, so that whoever gets
// the lock without waiting knows that the writer is gone. FileIoTurbo's opening of a file and
// FileIo's next replacement of it call tidy(), which finishes a pending copy and removes the
// temporaries that a killed writer left. The state is on disk, the switch atomic: any thread.
#pragma once

#include "BAS/Export.h"
#include "BAS/String.h"

#include <string>
#include <sys/types.h>

namespace STR {

class BAS_EXPORT StagedFiles {
public:
  // Process-wide, for a process that only reads (nphost check): from now on tidy() leaves
  // pending copies and temporaries as they are. Cannot be undone.
  static void setProcessNeverWrites();
  static bool processNeverWrites();
  // True when the file that `name` leads to has a pending copy: a rewrite through a further
  // hard link was interrupted once its new content was complete, or is being copied over now,
  // so the file may hold part old and part new content until an opening finishes the copy.
  static bool rewritePending(const BAS::String& name);

  // For the framework's file classes. `target` is the file a name leads to (links followed),
  // `name` what messages call it.
  // Copies a pending copy whose writer is gone over `target` ("INF_FILE_REWRITE_FINISHED") and
  // removes the temporaries of `target` whose writers are gone ("INF_FILE_TEMPORARY_REMOVED").
  // False, with the reason in words in `failure`, when a pending copy could not be copied over:
  // `target` is then not whole. In a process that never writes: true, and nothing done.
  static bool tidy(const std::string& target, const BAS::String& name, std::string& failure);
  // A new temporary for `target`, created with `mode`, locked, open for reading and writing:
  // its descriptor, and its name in `temporary`; or -1 with errno set.
  static int createTemporary(const std::string& target, mode_t mode, std::string& temporary);
  // The name under which a complete new content waits to be copied over the file `inode` that
  // `target` names.
  static std::string pendingName(const std::string& target, ino_t inode);
  // Copies the first `length` bytes of `source` over `output` from its start, cuts `output` to
  // that length and synchronises it to disk. 0, or the errno of the first failure, which may
  // leave `output` part copied. `afterFirstBlock`, when not null, is called once after the
  // first block.
  static int copyOver(int source, int output, off_t length, void (*afterFirstBlock)());
};

}  // namespace STR
