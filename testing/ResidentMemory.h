// NpTest::residentBytes gives this process's resident memory, for the tests that check that
// memory a load or an arena gave back really left the process (pages only offered back still
// count there, and an operator's monitoring counts them). Any thread.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <fstream>

// What a sanitizer changes in those checks: under either, malloc is the sanitizer's, which the C
// library's heap trim does not reach; under ThreadSanitizer, the shadow memory of every page the
// program touched counts as resident and stays when the page is unmapped.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define NP_TEST_SANITIZED_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define NP_TEST_SANITIZED_HEAP 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define NP_TEST_THREAD_SHADOW 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define NP_TEST_THREAD_SHADOW 1
#endif
#endif

namespace NpTest {

#ifdef NP_TEST_SANITIZED_HEAP
inline constexpr bool libraryHeapCM = false;
#else
inline constexpr bool libraryHeapCM = true;
#endif
#ifdef NP_TEST_THREAD_SHADOW
inline constexpr bool unmappedPagesLeaveCM = false;
#else
inline constexpr bool unmappedPagesLeaveCM = true;
#endif

// Bytes of this process's resident memory; 0 where /proc/self/statm cannot be read.
inline std::size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t size = 0, pages = 0;
  statm >> size >> pages;
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace NpTest
