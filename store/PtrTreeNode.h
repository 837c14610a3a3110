// One inner node of the digit trie PBC::PtrTree: which digits have a child, where the children
// lie, and its payload. The children of a node lie side by side in the tree's word array as one
// group: first the inner children (two words each, in digit order), then the leaves, the
// children without children of their own, as their payload word alone (in digit order). Two
// digit sets and the 32-bit word index of the group find any child. Only PtrTree and its walks
// create, link and fill nodes, in memory that the tree owns; anyone may read them. No
// synchronisation: reads may run concurrently, changes alone.
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
  // The unit of the tree's array: a node takes two, a leaf one.
  using Word = std::uint64_t;
  static constexpr unsigned wordsCM = 2;

  bool hasData() const noexcept { return dataM != nullptr; }
  // The payload, still owned by the tree; null when none was stored.
  T* data() const noexcept { return dataM; }
  bool hasChildren() const noexcept { return (innerM | leafM) != 0; }
  bool hasChild(int digit) const noexcept { return ((innerM | leafM) >> digit & 1u) != 0; }
  bool hasLeaf(int digit) const noexcept { return (leafM >> digit & 1u) != 0; }
  unsigned childCount() const noexcept { return bitCount(innerM | leafM); }
  // Words of the group of children.
  unsigned groupWords() const noexcept { return wordsCM * bitCount(innerM) + bitCount(leafM); }

  // The inner child for `digit`, which must be one, in the tree's word array `words`.
  const PtrTreeNode* inner(const Word* words, int digit) const noexcept {
    return reinterpret_cast<const PtrTreeNode*>(words + innerAt(digit));
  }
  // The payload word of the leaf for `digit`, which must be one.
  T* const* leaf(const Word* words, int digit) const noexcept { return reinterpret_cast<T* const*>(words + leafAt(digit)); }

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
  static unsigned below(int digit) noexcept { return (1u << digit) - 1u; }

  // Word indexes of the child for `digit` within the tree's array.
  std::uint32_t innerAt(int digit) const noexcept { return childrenM + wordsCM * bitCount(innerM & below(digit)); }
  std::uint32_t leafAt(int digit) const noexcept {
    return childrenM + wordsCM * bitCount(innerM) + bitCount(leafM & below(digit));
  }
  std::uint32_t leavesAt() const noexcept { return childrenM + wordsCM * bitCount(innerM); }

  std::uint32_t childrenM = 0;  // word index of the group of children; 0 (the root) when none
  std::uint16_t innerM = 0;     // bit d set: the child for digit d is an inner node
  std::uint16_t leafM = 0;      // bit d set: the child for digit d is a leaf, its payload word only
  T* dataM = nullptr;           // owned through the tree's release policy
};

static_assert(sizeof(PtrTreeNode<int>) == PtrTreeNode<int>::wordsCM * sizeof(std::uint64_t),
              "a node is a group index, two digit sets and a payload pointer");

}  // namespace PBC
