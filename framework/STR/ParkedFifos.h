// STR::ParkedFifos keeps the descriptor of a FIFO that a FileIoTurbo closed without reading from
// it, for the next reader of the same FIFO (same device and inode), for keepCM at most: closing
// the last reader of a FIFO loses what the writer put in the pipe and gives the writer EPIPE,
// and the plug-in opens its data file twice in a row (its file check, then the load). A
// descriptor not taken in time is closed by the next opening or closing of any reader.
// Process-wide; thread-safe.
#pragma once

#include <chrono>
#include <sys/types.h>

namespace STR {

class ParkedFifos {
public:
  static constexpr std::chrono::seconds keepCM{5};

  // Takes over `descriptor`, a reader of the FIFO `device`/`inode`.
  static void park(int descriptor, dev_t device, ino_t inode);
  // A parked reader of that FIFO, now the caller's; -1 when there is none.
  static int take(dev_t device, ino_t inode);
  // Closes the descriptors parked for longer than keepCM.
  static void closeExpired();
};

}  // namespace STR
