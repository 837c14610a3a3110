#include "host/common/SelfPipe.h"

#include <fcntl.h>
#include <unistd.h>

namespace Host {

bool SelfPipe::open() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  readEndM.reset(ends[0]);
  writeEndM.reset(ends[1]);
  return true;
}

void SelfPipe::notify(int writeEnd) {
  if (writeEnd < 0) return;
  // A full pipe is readable already, so a write that fails loses nothing.
  const char byte = 'x';
  [[maybe_unused]] const ssize_t ignored = write(writeEnd, &byte, 1);
}

}  // namespace Host
