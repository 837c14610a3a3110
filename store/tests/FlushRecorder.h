// A stream buffer for the store's tests that keeps, at every flush, the whole text written so
// far: a test sees what a reader at the other end of the stream had been given, and when.
#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace DAT::NumberPortability {

class FlushRecorder : public std::stringbuf {
public:
  // The text written before each flush, in the order of the flushes.
  std::vector<std::string> flushed;

protected:
  int sync() override {
    flushed.push_back(str());
    return 0;
  }
};

}  // namespace DAT::NumberPortability
