// One inner node of the digit trie PBC::PtrTree: which digits have a child, where the children
// lie, and its payload. The children of a node lie side by side in the tree's word array as one
// group: first the inner children (two words each, in digit order), then the leaves, the
// children without children of their own, as their payload word alone (in digit order). Two
// digit sets and the 32-bit word index of the group find any child. A tail stands for a node
// without payload whose whole subtree is one key: the rest of that key's digits are packed into
// the node's own words, its payload into the payload word, so that the single-child chains
// below the dense levels of a numbering plan take one node per key instead of one per digit.
// Only decimal tries make tails; a tail is marked by a digit that is both an inner child and a
// leaf, which no ordinary node of any radix has. Only PtrTree and its walks
// create, link and fill nodes, in memory that the tree owns; anyone may read them. No
// synchronisation: reads may run concurrently, changes alone.
#pragma once

#include "store/PtrTreeDigits.h"

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
class PtrTreeSingleWalk;
template <class T, class Release>
class PtrTreeSortedBuild;
template <class T, class Release>
class PtrTreeSortedInsert;
template <class T>
class PtrTreeWalker;

template <class T>
class PtrTreeNode {
public:
  // The unit of the tree's array: a node takes two, a leaf one.
  using Word = std::uint64_t;
  static constexpr unsigned wordsCM = 2;

  // Digits a tail holds at most.
  static constexpr unsigned tailDigitsCM = 9;

  bool hasData() const noexcept { return dataM != nullptr && !isTail(); }
  // The payload, still owned by the tree; null when none was stored.
  T* data() const noexcept { return isTail() ? nullptr : dataM; }
  // Whether the node has a group of children; a tail has none.
  bool hasChildren() const noexcept { return (innerM | leafM) != 0 && !isTail(); }
  // A tail reads as a node without any child digit, so a walk that does not look for tails
  // falls off it as off a missing child, never into a group.
  bool isTail() const noexcept { return (innerM & leafM & tailMarkCM) != 0; }
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

  // For a tail: the digits of its key below the node, their count, and digit `index` of them.
  unsigned tailLength() const noexcept { return innerM >> tailShiftCM & 0xFu; }
  std::uint64_t tailDigits() const noexcept {
    return childrenM | std::uint64_t{static_cast<unsigned>(leafM >> tailShiftCM & 0xFu)} << 32;
  }
  int tailDigit(unsigned index) const noexcept { return static_cast<int>(tailDigits() >> 4 * index & 0xFu); }

  // How the digits of [next, end) (other characters skipped) go on from a tail: tailDiffers
  // when they leave it or end inside it, tailWhole when they are exactly its digits,
  // tailLonger when more digits follow them. `next` ends past the tail's digits.
  enum TailMatch { tailDiffers, tailWhole, tailLonger };
  TailMatch matchTail(const char*& next, const char* end) const noexcept {
    std::uint64_t digits = tailDigits();
    for (unsigned left = tailLength(); left != 0; --left, digits >>= 4) {
      int digit = -1;
      while (next != end && (digit = PtrTreeDigits::value(*next++, 10)) < 0) {
      }
      if (digit != static_cast<int>(digits & 0xFu)) return tailDiffers;
    }
    for (const char* rest = next; rest != end; ++rest) {
      if (PtrTreeDigits::value(*rest, 10) >= 0) return tailLonger;
    }
    return tailWhole;
  }

private:
  // The trie and its walks, which read and link nodes on the hot paths without accessors.
  template <class, class>
  friend class PtrTree;
  template <class, class>
  friend class PtrTreeBatchWalk;
  template <class, class>
  friend class PtrTreeKeyOrderWalk;
  template <class, class>
  friend class PtrTreeSingleWalk;
  template <class, class>
  friend class PtrTreeSortedBuild;
  template <class, class>
  friend class PtrTreeSortedInsert;
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

  // A tail of `count` digits (1 to tailDigitsCM, first digit in the lowest four bits) ending
  // in `payload`: eight digits in the group index, the ninth and the count in the digit sets
  // above the decimal digits, and the mark.
  static PtrTreeNode tail(std::uint64_t digits, unsigned count, T* payload) noexcept {
    PtrTreeNode node;
    node.childrenM = static_cast<std::uint32_t>(digits);
    node.innerM = static_cast<std::uint16_t>(tailMarkCM | count << tailShiftCM);
    node.leafM = static_cast<std::uint16_t>(tailMarkCM | (digits >> 32 & 0xFu) << tailShiftCM);
    node.dataM = payload;
    return node;
  }

  static constexpr unsigned tailShiftCM = 10;
  static constexpr std::uint16_t tailMarkCM = 0x8000;

  std::uint32_t childrenM = 0;  // word index of the group of children; 0 (the root) when none
  std::uint16_t innerM = 0;     // bit d set: the child for digit d is an inner node
  std::uint16_t leafM = 0;      // bit d set: the child for digit d is a leaf, its payload word only
  T* dataM = nullptr;           // owned through the tree's release policy; a tail's is its key's
};

static_assert(sizeof(PtrTreeNode<int>) == PtrTreeNode<int>::wordsCM * sizeof(std::uint64_t),
              "a node is a group index, two digit sets and a payload pointer");

}  // namespace PBC
