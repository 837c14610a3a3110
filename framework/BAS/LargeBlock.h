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
  // Offers the pages of a block from allocate or resize (same `bytes`) back to the system
  // without unmapping them: the system takes them only when it runs short of memory, and a
  // page written before that stays with the block. Until taken, they count as the process's
  // resident memory ("LazyFree" in /proc/PID/smaps). Their content is undefined from here on:
  // old bytes or zeros. A block filled again soon then costs no fresh pages; on a virtual
  // machine, whose hypervisor backs fresh memory only as it is first touched, faulting in
  // hundreds of megabytes stalls the other processors for milliseconds. Where the system has
  // no such offer, the pages simply stay. Null is ignored.
  static void offer(void* block, std::size_t bytes) noexcept;
};

}  // namespace BAS
