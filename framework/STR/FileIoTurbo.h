// STR::FileIoTurbo is the framework's buffered line reader of text files; the loaders, the
// plug-in's file check and nphost check read with it. One object is used by one thread at a
// time; distinct objects are independent. The process-wide settings may be changed from any
// thread (stopWaiting() from a signal handler too): the line limit applies to the files opened
// afterwards, the FIFO wait and stopWaiting() to every wait from then on.
//
// Reading rule that callers rely on: the end-of-file indicator of stream() is set only by a
// read that reaches the end of the file. A last line that has a line end is delivered with
// the indicator clear; the next readLine then fails and sets it. A last line without a line
// end is delivered together with the indicator set.
//
// A failed read comes in two kinds. A line longer than lineLimit() is not delivered: readLine
// is false with the indicator clear, the reader reports "ERR_LINE_TOO_LONG" (file name, line
// number, limit), and the next readLine goes on with the line after it; no more than the limit
// of the line is ever held. After a failure that ends the reading (a read error, a FIFO that
// gives nothing for fifoWait(), stopWaiting()) readLine is false and both the end-of-file and
// the error indicator of stream() are set from then on, so that the reading rule ends and
// ferror tells it from the end of the file; reported once as "ERR_FILE_NOT_READ" (file name,
// reason). Messages go to the framework log on the reading thread (none without a framework);
// failure() gives the reason in words in every case.
//
// Only regular files and FIFOs are read. A FIFO is read once a writer comes within fifoWait();
// no wait blocks for longer than 100 ms between looks at stopWaiting().
//
// A reading that reaches the end of the file leaves the digest of every byte read, their number
// and the file's modification time in STR::FileDigests, under the name given to openFile and the
// identity of the file opened; one that read from the file but stopped short (a failed read, a
// close before the end) takes away what the last reading of that name left there.
#pragma once

#include "BAS/Export.h"
#include "BAS/String.h"

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace STR {

class ContentDigest;

class BAS_EXPORT FileIoTurbo {
public:
  FileIoTurbo();
  ~FileIoTurbo();
  FileIoTurbo(const FileIoTurbo&) = delete;
  FileIoTurbo& operator=(const FileIoTurbo&) = delete;

  // Opens `name` for reading, closing a file that is open first. Three outcomes: false when
  // the file does not exist; true but isOpen() false when it exists but cannot be read (a
  // directory, a device, a socket, no permission, a FIFO that no writer opened within
  // fifoWait(), an interrupted rewrite that cannot be finished), reported "ERR_FILE_NOT_READ"
  // (name, reason); true and open otherwise. A regular file's opening first finishes an
  // interrupted rewrite of it and removes stale temporaries (StagedFiles), and the identity it
  // opened is remembered (FileIdentity). `mode` is accepted for compatibility and not
  // interpreted. fileName() is `name` afterwards in every case.
  bool openFile(const BAS::String& name, long mode);
  // The next line without its line end ("\n"; a carriage return before it stays, and the
  // string split drops it). False at the end of the file and on a failed read (see above).
  bool readLine(BAS::String& line);
  // The same, without a copy: `line` views the reader's buffer until the next readLine or
  // closeFile.
  bool readLine(std::string_view& line);
  // Closes the open file; true when that worked or nothing was open. A FIFO that was not read
  // from is handed to the next reader of it (ParkedFifos) rather than closed.
  bool closeFile();

  bool isOpen() const { return streamM != nullptr; }
  // The name given to the last openFile, kept after closing and after a failed open.
  const BAS::String& fileName() const { return fileNameM; }
  // The C stream of the open file, or null.
  std::FILE* stream() const { return streamM; }
  // Why the last openFile or readLine failed, in words ("it is a directory"); empty when
  // neither has failed since the last openFile. For hosts that have no log.
  const BAS::String& failure() const { return failureM; }

  // Process-wide: the longest line, in bytes without its line end, that readLine delivers.
  // A line beyond it costs no more memory than one within it.
  static void setLineLimit(std::size_t bytes);
  static std::size_t lineLimit();
  // Process-wide: how long a FIFO may keep a reader waiting, for its first writer and for its
  // next bytes.
  static void setFifoWait(std::chrono::milliseconds wait);
  static std::chrono::milliseconds fifoWait();

  // Process-wide: from now on no reader waits any more for a writer of a FIFO or for its next
  // bytes; such a wait in progress or to come ends as a failure that ends the reading. The
  // host calls it when it is told to stop, so that no file it reads keeps it from ending.
  static void stopWaiting();
  static bool waitingStopped();
  // Test seam: undoes stopWaiting(), for the tests that follow in the same process.
  static void resumeWaitingForTesting();

private:
  int openRegular();
  int openFifo(dev_t device, ino_t inode);
  // Waits for bytes or the writer's end on the FIFO `descriptor`; false, with `reason`, when
  // none came within fifoWait() (`timedOut` says how) or the wait was stopped.
  static bool awaitFifo(int descriptor, const char* timedOut, BAS::String& reason);
  // Reads more of the file behind the undelivered bytes; false at the end of the file or after
  // a failure, with the stream's indicators set.
  bool refill();
  // Drops the rest of a line that was too long; false when the file ended or failed first.
  bool skipRestOfLine();
  bool tooLong();
  // Tells FileDigests how the reading of the open file ended: at its end, or short of it.
  void readingEnded(bool complete);
  // A file that exists but cannot be read.
  void refuse(const BAS::String& reason);
  // A failure after which nothing can be read.
  void fail(const BAS::String& reason);
  // Sets the stream's end-of-file indicator for good (and its error indicator after a failure).
  void endStream(bool failed);

  BAS::String fileNameM;
  BAS::String failureM;
  std::FILE* streamM = nullptr;
  std::vector<char> bufferM;  // bytes read from the file; [beginM, endM) not yet delivered
  std::size_t beginM = 0;
  std::size_t endM = 0;
  std::size_t limitM = 0;          // lineLimit() when the file was opened
  unsigned long lineNumberM = 0;   // lines delivered or refused so far
  bool fifoM = false;
  dev_t fifoDeviceM = 0;
  ino_t fifoInodeM = 0;
  bool readFromM = false;  // a read of the file was tried
  bool skippingM = false;  // the rest of a line that was too long is still to be dropped
  bool endedM = false;     // nothing more can be read
  dev_t deviceM = 0;       // the identity of the open file
  ino_t inodeM = 0;
  std::unique_ptr<ContentDigest> digestM;  // of the bytes read from the open file
};

}  // namespace STR
