// BAS::LargeBlock hands out big blocks of memory straight from the operating system, aligned
// to the size of a huge page, and can ask for huge pages behind them. The portability store's
// arenas take their slabs from here: a trie of ten million numbers spreads its lookups over
// more than a gigabyte, and with ordinary 4 KiB pages nearly every step of a search or a dump
// also misses the address translation cache. Stateless; any thread.
#pragma once

#include "BAS/Export.h"

#include <cstddef>

namespace BAS {

class BAS_EXPORT LargeBlock {
public:
  // The alignment of every block, the size of a huge page on the machines we run on.
  static constexpr std::size_t alignCM = std::size_t{2} << 20;

  // A block of `bytes` (rounded up to alignCM) aligned to alignCM, zero-filled as fresh pages
  // are. With hugePages the system is asked to back it with huge pages where it can; without
  // it, pages are faulted in one by one as touched, so a block that is barely used costs little.
  // Throws std::bad_alloc when the system has no memory to map.
  static void* allocate(std::size_t bytes, bool hugePages);
  // Makes a block from allocate (or resize) of `bytes` hold `newBytes`, keeping its content;
  // the pages already touched move along without being copied or cleared again, so an array
  // that doubles over and over costs its final size once. The block may move, and is then
  // aligned to small pages only. Throws std::bad_alloc, with the block unchanged, when the
  // system has no room.
  static void* resize(void* block, std::size_t bytes, std::size_t newBytes, bool hugePages);
  // Gives back a block from allocate or resize with the same `bytes`. Null is ignored.
  static void release(void* block, std::size_t bytes) noexcept;
  // Returns to the system the pages that the heap (malloc) keeps free, in every thread's arena.
  // The heap gives back on its own only what lies at its top; the buffers of a load that are
  // freed below data still in use would otherwise stay resident until the next load reuses
  // them, and an operator's monitoring counts them. Costs a walk over the free lists: call it
  // once an operation has freed its buffers, not in a loop. Does nothing where the C library
  // has no such call.
  static void returnFreeHeap() noexcept;
};

}  // namespace BAS
