// PBC::SlabArena hands out blocks carved one after another from large slabs that it owns. The
// portability tree's HistoryArena takes its history blocks from one. Blocks
// are never returned one by one: reset() takes them all back at once and keeps the slabs, so a
// tree that is emptied and filled again neither frees millions of blocks nor faults fresh
// pages in. Slabs come from BAS::LargeBlock; an arena that has grown past a few slabs asks for
// huge pages behind the next ones, so that a big trie's lookups and dumps miss the address
// translation cache far less, while a small tree keeps to small pages. Not synchronised: its
// owner's writer uses it alone.
#pragma once

#include "BAS/LargeBlock.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

namespace PBC {

class SlabArena {
public:
  // Blocks are aligned to alignCM (or the smaller power of two given) and at most slabBytes
  // long; slabBytes is rounded up to the alignment.
  static constexpr std::size_t alignCM = 8;
  static constexpr std::size_t defaultSlabBytesCM = BAS::LargeBlock::alignCM;
  // Slabs taken before the arena asks for huge pages.
  static constexpr std::size_t smallPageSlabsCM = 4;

  explicit SlabArena(std::size_t slabBytes = defaultSlabBytesCM, std::size_t align = alignCM) noexcept
      : alignM(align), slabBytesM(roundUp(slabBytes == 0 ? align : slabBytes)) {}
  ~SlabArena() { freeSlabs(); }
  SlabArena(const SlabArena&) = delete;
  SlabArena& operator=(const SlabArena&) = delete;

  // A fresh block of `bytes` (rounded up to alignCM, at most slabBytes), uninitialised. Out
  // of memory propagates as std::bad_alloc; the arena is unchanged then.
  void* allocate(std::size_t bytes) {
    bytes = roundUp(bytes);
    if (bytes > slabBytesM) throw std::bad_array_new_length();
    if (slabBytesM - usedM < bytes || currentM == slabsM.size()) nextSlab();
    void* const block = slabsM[currentM].base + usedM;
    usedM += bytes;
    return block;
  }

  // Takes back every block. The slabs stay for the next fill, in the same order, so the
  // memory that the last fill touched is the memory that the next one uses first.
  void reset() noexcept {
    for (Slab& slab : slabsM) slab.used = 0;
    currentM = 0;
    usedM = 0;
  }

  // Gives back the slabs after the one being filled: once a tree was filled again with fewer
  // blocks than before (a compact copy), the pages that only the earlier fill touched would
  // otherwise stay resident.
  void releaseUnused() noexcept {
    const std::size_t kept = std::min(currentM + 1, slabsM.size());
    for (std::size_t i = kept; i < slabsM.size(); ++i) BAS::LargeBlock::release(slabsM[i].base, slabBytesM);
    slabsM.resize(kept);
  }

  // Calls visit(begin, end) for the used part of each slab, in allocation order. For an arena
  // that only ever hands out blocks of one size, that is every live block.
  template <class Visitor>
  void forEachUsed(Visitor&& visit) const {
    for (std::size_t i = 0; i < slabsM.size() && i <= currentM; ++i) {
      const std::size_t used = i == currentM ? usedM : slabsM[i].used;
      if (used != 0) visit(slabsM[i].base, slabsM[i].base + used);
    }
  }

  // Bytes handed out since the last reset, and bytes held in slabs.
  std::size_t usedBytes() const noexcept {
    std::size_t total = 0;
    forEachUsed([&total](const char* begin, const char* end) { total += static_cast<std::size_t>(end - begin); });
    return total;
  }
  std::size_t reservedBytes() const noexcept { return slabsM.size() * slabBytesM; }

private:
  struct Slab {
    char* base;
    std::size_t used;  // bytes handed out from this slab; valid for slabs before currentM
  };

  std::size_t roundUp(std::size_t bytes) const noexcept { return (bytes + alignM - 1) & ~(alignM - 1); }

  void nextSlab() {
    if (currentM < slabsM.size()) {
      slabsM[currentM].used = usedM;
      if (currentM + 1 < slabsM.size()) {
        ++currentM;
        usedM = 0;
        return;
      }
    }
    // Room for the slab's entry first, so that a failed slab allocation leaves nothing behind.
    slabsM.reserve(slabsM.size() + 1);
    const bool hugePages = slabsM.size() >= smallPageSlabsCM;
    char* const base = static_cast<char*>(BAS::LargeBlock::allocate(slabBytesM, hugePages));
    slabsM.push_back(Slab{base, 0});
    currentM = slabsM.size() - 1;
    usedM = 0;
  }

  void freeSlabs() noexcept {
    for (Slab& slab : slabsM) BAS::LargeBlock::release(slab.base, slabBytesM);
    slabsM.clear();
  }

  std::size_t alignM;
  std::size_t slabBytesM;
  std::vector<Slab> slabsM;
  std::size_t currentM = 0;  // the slab being filled; slabsM.size() before the first block
  std::size_t usedM = 0;     // bytes handed out from the current slab
};

}  // namespace PBC
