// One node of the digit trie PBC::PtrTree: which digits have a child, where the children lie,
// and its payload. The children of a node lie side by side in the tree's node array, in digit
// order, so a node needs no slot array: a bit per digit and the 32-bit index of its first child
// find any of them. Only PtrTree and its walks create, link and fill nodes, in memory that the
// tree owns; anyone may read them. No synchronisation: reads may run concurrently, changes alone.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

namespace PBC {

template <class T, class Release>
class PtrTree;
template <class T, class Release>
class PtrTreeBatchWalk;
template <class T, class Release>
class PtrTreeKeyOrderWalk;
template <class T, class Release>
class PtrTreeSortedBuild;
template <class T>
class PtrTreeWalker;

template <class T>
class PtrTreeNode {
public:
  bool hasData() const noexcept { return dataM != nullptr; }
  // The payload, still owned by the tree; null when none was stored.
  T* data() const noexcept { return dataM; }
  bool hasChildren() const noexcept { return digitsM != 0; }
  bool hasChild(int digit) const noexcept { return (digitsM >> digit & 1u) != 0; }
  // The position of the child for `digit` among this node's children, which must exist.
  unsigned childRank(int digit) const noexcept { return bitCount(digitsM & ((1u << digit) - 1u)); }
  unsigned childCount() const noexcept { return bitCount(digitsM); }

private:
  // The trie and its walks, which read and link nodes on the hot paths without accessors.
  template <class, class>
  friend class PtrTree;
  template <class, class>
  friend class PtrTreeBatchWalk;
  template <class, class>
  friend class PtrTreeKeyOrderWalk;
  template <class, class>
  friend class PtrTreeSortedBuild;
  template <class>
  friend class PtrTreeWalker;

  // Without a population-count instruction in the base instruction set, std::popcount is a
  // library call; a table of 256 counts stays in the first-level cache and takes two loads.
  static constexpr std::array<std::uint8_t, 256> BIT_COUNT = [] {
    std::array<std::uint8_t, 256> counts{};
    for (unsigned i = 0; i < 256; ++i) counts[i] = static_cast<std::uint8_t>(std::popcount(i));
    return counts;
  }();
  static unsigned bitCount(unsigned bits) noexcept { return BIT_COUNT[bits & 0xFFu] + BIT_COUNT[bits >> 8 & 0xFFu]; }

  std::uint32_t childrenM = 0;  // index of the first child in the tree's node array; 0 (the root) when none
  std::uint16_t digitsM = 0;    // bit d set: there is a child for digit d
  std::uint16_t spareM = 0;
  T* dataM = nullptr;  // owned through the tree's release policy
};

static_assert(sizeof(PtrTreeNode<int>) == 16, "a node is a child index, a digit set and a payload pointer");

}  // namespace PBC
