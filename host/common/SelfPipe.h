// Host::SelfPipe is a pipe that a thread, or a signal handler, writes a byte into so that
// another thread sleeping in poll wakes up: the signal watcher, the event record pipeline's
// reader and the control server's thread each poll one beside their other descriptors. Both
// ends are non-blocking and closed on exec. Thread contract: open and the destructor on the
// owner's thread; notify from any thread, or from a signal handler, while the pipe is open.
#pragma once

#include "host/common/OwnedDescriptor.h"

namespace Host {

class SelfPipe {
public:
  // Creates the pipe. False (errno set) when it cannot be made.
  bool open();

  // Makes the read end readable; it stays so, since nobody drains it. Only async-signal-safe
  // calls, so that a signal handler may notify. Nothing happens before open().
  void notify() const { notify(writeEndM.get()); }
  // notify() for a write end a signal handler holds without the object.
  static void notify(int writeEnd);

  // The end to poll for POLLIN; -1 before open().
  int readEnd() const { return readEndM.get(); }
  int writeEnd() const { return writeEndM.get(); }

private:
  OwnedDescriptor readEndM;
  OwnedDescriptor writeEndM;
};

}  // namespace Host
