// PBC::PtrTree maps keys of decimal (or hexadecimal) digits to payloads, one trie level per
// digit, and answers exact, shortest-prefix and all-prefixes questions. The portability tree
// holds one over number histories. All nodes lie in one array that the tree owns, the children
// of a node side by side, so a step down is one read of one node, the tree is copied by copying
// the array, and emptying it costs nothing (plus one pass over the nodes when payloads must be
// released one by one). No locks: searches and dumps may run concurrently, insert and destroy
// must run alone.
//
// This header holds the trie itself: nodes, memory and the single-key walks. The batched walks
// live in PtrTreeBatchWalk.h, the key-order walks and the dump's pieces in PtrTreeKeyOrderWalk.h
// and PtrTreeWalker.h; the members here that belong to them only hand the work over.
#pragma once

#include "store/PtrTreeBatchWalk.h"
#include "store/PtrTreeDigits.h"
#include "store/PtrTreeKeyOrderWalk.h"
#include "store/PtrTreeNode.h"
#include "store/PtrTreeSortedBuild.h"
#include "store/PtrTreeWalker.h"

#include "BAS/LargeBlock.h"
#include "BAS/String.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <limits>
#include <memory>
#include <new>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace PBC {

// Release policy for payloads whose memory the trie's owner manages itself: the trie never
// releases them, and emptying it does not visit them.
struct PayloadsOwnedElsewhere {
  template <class T>
  void operator()(T*) const noexcept {}
};

// Release(payload) gives up the stored payloads on destroy and on destruction. T must offer
// printTree(std::ostream&, const BAS::String& key) for printTree.
template <class T, class Release = std::default_delete<T>>
class PtrTree {
public:
  using Node = PtrTreeNode<T>;

  // Walks one piece of pieces() in key order, a node per step (PtrTreeWalker.h).
  using Walker = PtrTreeWalker<T>;
  using Piece = typename Walker::Piece;

  // The tables of PtrTreeDigits, which the trie's walks share.
  static constexpr std::array<int, 256> DIGIT_INDEX = PtrTreeDigits::DIGIT_INDEX;
  static constexpr std::array<char, 16> CHAR_INDEX = PtrTreeDigits::CHAR_INDEX;

  // Radix 10 reads decimal digits; any other radix reads hexadecimal digits of either case and
  // is held as 16, so that every digit read has a child.
  explicit PtrTree(int radix) : radixM(radix == 10 ? 10 : 16) { createRoot(); }
  virtual ~PtrTree() {
    releasePayloads();
    BAS::LargeBlock::release(nodesM, capacityM * sizeof(Node));
  }
  PtrTree(const PtrTree&) = delete;
  PtrTree& operator=(const PtrTree&) = delete;

  int radix() const noexcept { return radixM; }

  // Stores `payload` (owned from now on) at the node of `key`, creating missing nodes;
  // characters that are not digits are skipped, and a key without digits addresses the root.
  // A payload already stored there is replaced but not released: the tree no longer owns it,
  // and whoever replaces it takes it back (the portability tree never replaces one, it adds to
  // the history it finds). Out of memory propagates; nodes linked in before stay, without
  // payload, and `payload` is still the caller's.
  void insert(const BAS::String& key, T* payload) {
    const std::uint32_t node = reach(key.view());
    nodesM[node].dataM = payload;
  }

  // The payload field of the node of `key`, creating missing nodes, for an owner that fills
  // payloads in place (one walk for "find or create"). Null, and nothing created, for a key
  // without digits. The field stays where it is until the next insert. Out of memory
  // propagates; nodes linked in before stay.
  T** payloadSlot(std::string_view key) {
    bool digitRead = false;
    const std::uint32_t node = reach(key, &digitRead);
    return digitRead ? &nodesM[node].dataM : nullptr;
  }

  // payloadSlot for several keys at once: slots[i] for keys[i], each valid until the next
  // insert. The walks advance together, one level at a time, and each reads the next node of
  // its path only after asking the processor to fetch it, so the cache misses of all the walks
  // overlap instead of following one another. Keys may share paths or be equal. Out of memory
  // propagates; what was linked in before stays.
  void payloadSlots(const std::string_view* keys, std::size_t count, T** slots[]) {
    PtrTreeBatchWalk<T, Release>::payloadSlots(*this, keys, count, slots);
  }

  // Fills an empty decimal tree (a root without children or payload) from keys in sorted
  // order: keyAt(i), for i below count, gives them as DigitKey. The node of each run of equal
  // keys gets payload make(first, length) (make may return null); runs without a digit are
  // passed over. Many times faster than inserting the same keys one by one, and the nodes of a
  // subtree end up near one another. False, and nothing done, for a tree that is not empty or
  // not decimal. Out of memory propagates; the tree is then destroyed.
  template <class KeyAt, class Make>
  bool buildSorted(std::size_t count, KeyAt&& keyAt, Make&& make) {
    createRoot();
    if (radixM != 10 || liveM != 1 || nodesM[0].hasChildren() || nodesM[0].hasData()) return false;
    try {
      PtrTreeSortedBuild<T, Release>::build(*this, count, keyAt, make);
    } catch (...) {
      destroy();
      throw;
    }
    return true;
  }

  // exact true: the payload stored for exactly `key`. exact false: the payload of the shortest
  // stored prefix of `key`, the key itself included. Null when there is none, for a key
  // without digits and after destroy.
  T* search(const BAS::String& key, bool exact) const noexcept {
    if (usedM == 0) return nullptr;
    const Node* node = nodesM;
    bool digitRead = false;
    for (const char c : key.view()) {
      const int digit = digitValue(c);
      if (digit < 0) continue;
      if (!exact && node->dataM != nullptr) return node->dataM;
      if (!node->hasChild(digit)) return nullptr;
      node = nodesM + node->childrenM + node->childRank(digit);
      digitRead = true;
    }
    return digitRead ? node->dataM : nullptr;
  }

  // Pushes the payloads of all stored prefixes of `key`, the key itself included, shortest
  // first, so that popping yields the longest first. Pushes nothing for a key without digits.
  // The stack is not emptied first.
  template <class Stack>
    requires requires(Stack& stack, T* payload) { stack.push_back(payload); }
  void search(const BAS::String& key, Stack& stack) const {
    if (usedM == 0) return;
    const Node* node = nodesM;
    bool digitRead = false;
    for (const char c : key.view()) {
      const int digit = digitValue(c);
      if (digit < 0) continue;
      if (node->dataM != nullptr) stack.push_back(node->dataM);
      if (!node->hasChild(digit)) return;
      node = nodesM + node->childrenM + node->childRank(digit);
      digitRead = true;
    }
    if (digitRead && node->dataM != nullptr) stack.push_back(node->dataM);
  }

  // The stack search for several keys at once: visit(i, payload, depth, whole) for each payload
  // that search(keys[i], stack) would push, shortest prefix first for each key, with depth the
  // number of digits of the stored key whose payload it is (the trie skips non-digits, so this
  // is the node's depth), and whole true only for the payload of the node of the key itself,
  // whose depth is the number of digits of keys[i]. The visits of different keys
  // interleave. The walks advance together, one level at a time, each asking for its next node
  // before any reads one, so that a batch pays about one memory latency per level instead of
  // one per level and key.
  template <class Visitor>
  void searchMany(const std::string_view* keys, std::size_t count, Visitor&& visit) const {
    PtrTreeBatchWalk<T, Release>::searchMany(*this, keys, count, std::forward<Visitor>(visit));
  }

  // Whether `key` has a character that this tree reads as a digit.
  bool containsDigit(const BAS::String& key) const noexcept {
    return std::ranges::any_of(key.view(), [this](char c) { return digitValue(c) >= 0; });
  }

  // Releases every node and payload. The tree has no root afterwards: searches find nothing
  // until createRoot or insert gives it a new one. The memory of the nodes stays with the tree
  // for the next fill.
  void destroy() noexcept {
    releasePayloads();
    usedM = 0;
    liveM = 0;
    std::fill(std::begin(freeGroupsM), std::end(freeGroupsM), 0);
  }

  // Gives a destroyed tree a new, empty root; a tree that has one keeps it.
  void createRoot() {
    if (usedM != 0) return;
    reserve(1);
    nodesM[0] = Node();
    usedM = 1;
    liveM = 1;
  }

  // Makes this tree a copy of `other` (of the same radix), node for node, with each payload
  // `clone(payload)` gives for the other's. This tree's own payloads are released first. Out
  // of memory propagates; the tree is then empty, with a root.
  template <class Clone>
  void copyFrom(const PtrTree& other, Clone&& clone) {
    destroy();
    if (other.usedM == 0) {
      createRoot();
      return;
    }
    try {
      reserve(other.usedM);
    } catch (...) {
      createRoot();
      throw;
    }
    std::memcpy(static_cast<void*>(nodesM), other.nodesM, std::size_t{other.usedM} * sizeof(Node));
    usedM = other.usedM;
    liveM = other.liveM;
    std::copy(std::begin(other.freeGroupsM), std::end(other.freeGroupsM), std::begin(freeGroupsM));
    // Payloads are given their copies in node order, so that what clone reads and writes
    // follows the order in which both were filled. Until a node has its copy, it holds none.
    std::uint32_t cloned = 0;
    try {
      for (; cloned < usedM; ++cloned) {
        Node& node = nodesM[cloned];
        if (node.dataM != nullptr) node.dataM = clone(static_cast<const T*>(node.dataM));
      }
    } catch (...) {
      for (std::uint32_t i = cloned; i < usedM; ++i) nodesM[i].dataM = nullptr;
      destroy();
      createRoot();
      throw;
    }
  }

  // Calls each payload's printTree with its key, in lexicographic key order, a key before the
  // keys that extend it. The root's payload is not printed. Adds nothing of its own.
  void printTree(std::ostream& out) const {
    forEach([&out](const BAS::String& key, const T& payload) { payload.printTree(out, key); });
  }

  // Calls visit(key, payload) for each stored payload but the root's, in the order of printTree,
  // walking without recursion. `key` is the node's key written with CHAR_INDEX; it is valid
  // during the call only.
  template <class Visitor>
  void forEach(Visitor&& visit) const {
    PtrTreeKeyOrderWalk<T, Release>::forEach(*this, std::forward<Visitor>(visit));
  }

  // Cuts the trie into pieces that, walked one after the other, visit the payloads in the
  // order of forEach: at least `least` of them where the trie has that many nodes within
  // `deepest` levels, cutting one level deeper at a time. The root's payload is left out, as
  // forEach leaves it out.
  std::vector<Piece> pieces(std::size_t least, std::size_t deepest) const {
    return PtrTreeKeyOrderWalk<T, Release>::pieces(*this, least, deepest);
  }

  // Number of nodes, the root included; 0 after destroy.
  std::size_t nodeCount() const noexcept { return liveM; }
  // Bytes of the node array.
  std::size_t reservedBytes() const noexcept { return capacityM * sizeof(Node); }

private:
  friend class PtrTreeBatchWalk<T, Release>;
  friend class PtrTreeKeyOrderWalk<T, Release>;
  friend class PtrTreeSortedBuild<T, Release>;

  // The node array starts at one huge page and doubles; it asks for huge pages once it holds
  // more than a few, as a small tree keeps to small pages.
  static constexpr std::size_t firstCapacityCM = BAS::LargeBlock::alignCM / sizeof(Node);
  static constexpr std::size_t hugePageCapacityCM = 4 * firstCapacityCM;
  static constexpr std::size_t radixRoomCM = 16;

  const Node* root() const noexcept { return usedM != 0 ? nodesM : nullptr; }
  const Node* child(const Node& node, int digit) const noexcept {
    return node.hasChild(digit) ? nodesM + node.childrenM + node.childRank(digit) : nullptr;
  }
  const Node* firstChild(const Node& node) const noexcept { return nodesM + node.childrenM; }

  // Room for `count` nodes in all. Moving the nodes keeps their indexes; out of memory
  // propagates with the tree unchanged.
  void reserve(std::size_t count) {
    if (count <= capacityM) return;
    if (count > std::numeric_limits<std::uint32_t>::max()) throw std::bad_array_new_length();
    std::size_t capacity = std::max(capacityM * 2, firstCapacityCM);
    while (capacity < count) capacity *= 2;
    capacity = std::min<std::size_t>(capacity, std::size_t{std::numeric_limits<std::uint32_t>::max()} + 1);
    nodesM = static_cast<Node*>(
        BAS::LargeBlock::resize(nodesM, capacityM * sizeof(Node), capacity * sizeof(Node), capacity > hugePageCapacityCM));
    capacityM = capacity;
  }

  // Room for `size` children side by side: a released group of that size, or fresh nodes at
  // the end of the array. The nodes are empty.
  std::uint32_t newGroup(unsigned size) {
    if (const std::uint32_t reused = freeGroupsM[size]; reused != 0) {
      freeGroupsM[size] = nodesM[reused].childrenM;
      nodesM[reused] = Node();
      return reused;
    }
    reserve(std::size_t{usedM} + size);
    const std::uint32_t first = usedM;
    for (unsigned i = 0; i < size; ++i) ::new (static_cast<void*>(nodesM + first + i)) Node();
    usedM += size;
    return first;
  }

  // A group whose children moved to a larger one; its first node links the free groups of its
  // size. The moved nodes' payloads live on in their new places, so these are cleared.
  void releaseGroup(std::uint32_t first, unsigned size) noexcept {
    for (unsigned i = 0; i < size; ++i) nodesM[first + i] = Node();
    nodesM[first].childrenM = freeGroupsM[size];
    freeGroupsM[size] = first;
  }

  // Gives `parent` a child for `digit`, which it lacks: its children move to a group one
  // larger with the new one in its place. The index of the new child.
  std::uint32_t addChild(std::uint32_t parent, int digit) {
    const unsigned count = nodesM[parent].childCount();
    const std::uint32_t group = newGroup(count + 1);  // may move the array: nodes by index only
    Node& node = nodesM[parent];
    const unsigned rank = node.childRank(digit);
    if (count != 0) {
      const std::uint32_t old = node.childrenM;
      std::memcpy(static_cast<void*>(nodesM + group), nodesM + old, rank * sizeof(Node));
      std::memcpy(static_cast<void*>(nodesM + group + rank + 1), nodesM + old + rank, (count - rank) * sizeof(Node));
      releaseGroup(old, count);
    }
    node.childrenM = group;
    node.digitsM = static_cast<std::uint16_t>(node.digitsM | (1u << digit));
    ++liveM;
    return group + rank;
  }

  // The index of the node of `key`, created with its path where missing; `digitRead` tells
  // whether the key had a digit at all (without one it is the root).
  std::uint32_t reach(std::string_view key, bool* digitRead = nullptr) {
    createRoot();
    std::uint32_t at = 0;
    for (const char c : key) {
      const int digit = digitValue(c);
      if (digit < 0) continue;
      if (digitRead != nullptr) *digitRead = true;
      const Node& node = nodesM[at];
      at = node.hasChild(digit) ? node.childrenM + node.childRank(digit) : addChild(at, digit);
    }
    return at;
  }

  // Every payload sits in a node of the array (released groups hold none), so the payloads are
  // found by one pass over it, without walking the trie.
  void releasePayloads() noexcept {
    if constexpr (!std::is_same_v<Release, PayloadsOwnedElsewhere>) {
      for (std::uint32_t i = 0; i < usedM; ++i) {
        if (nodesM[i].dataM != nullptr) Release()(std::exchange(nodesM[i].dataM, nullptr));
      }
    }
  }

  // The digit value of character `c`, or -1 when this tree does not read it as a digit.
  int digitValue(char c) const noexcept { return PtrTreeDigits::value(c, radixM); }

  int radixM;
  Node* nodesM = nullptr;      // the root at index 0, then groups of children; from BAS::LargeBlock
  std::size_t capacityM = 0;   // nodes that nodesM has room for
  std::uint32_t usedM = 0;     // nodes handed out, free groups included; 0 means no root
  std::uint32_t liveM = 0;     // nodes linked into the trie, the root included
  std::uint32_t freeGroupsM[radixRoomCM + 1] = {};  // by size: the first released group, 0 for none
};

}  // namespace PBC
