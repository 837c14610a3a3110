// NpTest::residentBytes gives this process's resident memory, for the tests that check that
// memory a load or an arena gave back really left the process (pages only offered back still
// count there, and an operator's monitoring counts them). Any thread.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <fstream>

namespace NpTest {

// Bytes of this process's resident memory; 0 where /proc/self/statm cannot be read.
inline std::size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t size = 0, pages = 0;
  statm >> size >> pages;
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace NpTest
