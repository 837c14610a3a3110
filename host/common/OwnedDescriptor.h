// Host::OwnedDescriptor owns one file descriptor and closes it when it ends, on every way out
// of the code that opened it. The run's input and output files, the self-pipes, the control
// socket and its connections, and the control client's socket are held in one. It can be moved
// (the control server keeps its connections in a vector), never copied. One owner at a time.
#pragma once

#include <unistd.h>

#include <utility>

namespace Host {

class OwnedDescriptor {
public:
  OwnedDescriptor() = default;
  explicit OwnedDescriptor(int descriptor) : descriptorM(descriptor) {}
  ~OwnedDescriptor() { reset(); }
  OwnedDescriptor(OwnedDescriptor&& other) noexcept : descriptorM(other.release()) {}
  OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  OwnedDescriptor(const OwnedDescriptor&) = delete;
  OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;

  // Closes the descriptor held so far and takes `descriptor` (-1 for none).
  void reset(int descriptor = -1) {
    if (descriptorM >= 0) close(descriptorM);
    descriptorM = descriptor;
  }
  // Gives the descriptor up without closing it.
  int release() { return std::exchange(descriptorM, -1); }
  // -1 when none is held.
  int get() const { return descriptorM; }

private:
  int descriptorM = -1;
};

}  // namespace Host
