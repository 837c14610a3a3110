// PBC::PtrTree maps keys of decimal (or hexadecimal) digits to payloads, one trie level per
// digit, and answers exact, shortest-prefix and all-prefixes questions. The portability tree
// holds one over number histories. Nodes and slot arrays come from two arenas that the tree
// owns, so building places them close together and emptying the tree is two arena resets
// (plus one pass over the nodes when payloads must be released one by one). No locks:
// searches and dumps may run concurrently, insert and destroy must run alone.
//
// This header holds the trie itself: nodes, memory and the single-key walks. The batched walks
// live in PtrTreeBatchWalk.h, the key-order walks and the dump's pieces in PtrTreeKeyOrderWalk.h
// and PtrTreeWalker.h; the members here that belong to them only hand the work over.
#pragma once

#include "store/PtrTreeBatchWalk.h"
#include "store/PtrTreeDigits.h"
#include "store/PtrTreeKeyOrderWalk.h"
#include "store/PtrTreeNode.h"
#include "store/PtrTreeWalker.h"
#include "store/SlabArena.h"

#include "BAS/String.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iosfwd>
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
  // is held as 16, so that every digit read has a slot.
  explicit PtrTree(int radix) : radixM(radix == 10 ? 10 : 16), slotsM(slotSlabBytes(radixM)) { createRoot(); }
  virtual ~PtrTree() { releasePayloads(); }
  PtrTree(const PtrTree&) = delete;
  PtrTree& operator=(const PtrTree&) = delete;

  int radix() const noexcept { return radixM; }

  // Stores `payload` (owned from now on) at the node of `key`, creating missing nodes;
  // characters that are not digits are skipped, and a key without digits addresses the root.
  // A payload already stored there is replaced but not released: the tree no longer owns it,
  // and whoever replaces it takes it back (the portability tree never replaces one, it adds to
  // the history it finds). Out of memory propagates; nodes linked in before stay, without
  // payload, and `payload` is still the caller's.
  void insert(const BAS::String& key, T* payload) { reach(key.view()).dataM = payload; }

  // The payload field of the node of `key`, creating missing nodes, for an owner that fills
  // payloads in place (one walk for "find or create"). Null, and nothing created, for a key
  // without digits. Out of memory propagates; nodes linked in before stay.
  T** payloadSlot(std::string_view key) {
    bool digitRead = false;
    Node& node = reach(key, &digitRead);
    return digitRead ? &node.dataM : nullptr;
  }

  // payloadSlot for several keys at once: slots[i] for keys[i]. The walks advance together,
  // one level at a time, and each touches the next node or slot array of its path only after
  // asking the processor to fetch it, so the cache misses of all the walks overlap instead of
  // following one another. Keys may share paths or be equal. Out of memory propagates; what
  // was linked in before stays.
  void payloadSlots(const std::string_view* keys, std::size_t count, T** slots[]) {
    PtrTreeBatchWalk<T, Release>::payloadSlots(*this, keys, count, slots);
  }

  // exact true: the payload stored for exactly `key`. exact false: the payload of the shortest
  // stored prefix of `key`, the key itself included. Null when there is none, for a key
  // without digits and after destroy.
  T* search(const BAS::String& key, bool exact) const noexcept {
    const Node* node = rootM;
    if (node == nullptr) return nullptr;
    bool digitRead = false;
    for (const char c : key.view()) {
      const int digit = digitValue(c);
      if (digit < 0) continue;
      if (!exact && node->dataM != nullptr) return node->dataM;
      node = node->child(digit);
      if (node == nullptr) return nullptr;
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
    const Node* node = rootM;
    if (node == nullptr) return;
    bool digitRead = false;
    for (const char c : key.view()) {
      const int digit = digitValue(c);
      if (digit < 0) continue;
      if (node->dataM != nullptr) stack.push_back(node->dataM);
      node = node->child(digit);
      if (node == nullptr) return;
      digitRead = true;
    }
    if (digitRead && node->dataM != nullptr) stack.push_back(node->dataM);
  }

  // The stack search for several keys at once: visit(i, payload, whole) for each payload that
  // search(keys[i], stack) would push, shortest prefix first for each key, with whole true
  // only for the payload of the node of the key itself. The visits of different keys
  // interleave. The walks advance together, one level at a time, each asking for its next slot
  // array and node before any reads them, so that a batch pays about one memory latency per
  // level instead of one per level and key.
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
    nodesM.reset();
    slotsM.reset();
    rootM = nullptr;
  }

  // Gives a destroyed tree a new, empty root; a tree that has one keeps it.
  void createRoot() {
    if (rootM == nullptr) rootM = newNode();
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

  // Number of nodes, the root included; 0 after destroy. Every node handed out is linked in.
  std::size_t nodeCount() const noexcept { return nodesM.usedBytes() / sizeof(Node); }
  // Bytes of the slabs that hold nodes and slot arrays.
  std::size_t reservedBytes() const noexcept { return nodesM.reservedBytes() + slotsM.reservedBytes(); }

private:
  friend class PtrTreeBatchWalk<T, Release>;
  friend class PtrTreeKeyOrderWalk<T, Release>;

  static constexpr std::size_t slotSlabBytes(int radix) noexcept {
    // A whole number of slot arrays per slab, so that no slab ends in an unusable tail.
    const std::size_t arrayBytes = static_cast<std::size_t>(radix) * sizeof(Node*);
    return SlabArena::defaultSlabBytesCM / arrayBytes * arrayBytes;
  }

  Node* newNode() { return ::new (nodesM.allocate(sizeof(Node))) Node(); }

  Node** newSlots() {
    const std::size_t count = static_cast<std::size_t>(radixM);
    Node** const slots = static_cast<Node**>(slotsM.allocate(count * sizeof(Node*)));
    std::uninitialized_fill_n(slots, count, nullptr);
    return slots;
  }

  // The node of `key`, created with its path where missing; `digitRead` tells whether the key
  // had a digit at all (without one it is the root).
  Node& reach(std::string_view key, bool* digitRead = nullptr) {
    if (rootM == nullptr) createRoot();
    Node* node = rootM;
    for (const char c : key) {
      const int digit = digitValue(c);
      if (digit < 0) continue;
      if (digitRead != nullptr) *digitRead = true;
      if (node->childrenM == nullptr) node->childrenM = newSlots();
      Node*& slot = node->childrenM[digit];
      if (slot == nullptr) slot = newNode();
      node = slot;
    }
    return *node;
  }

  // Every node ever handed out since the last reset sits in the node arena, so the payloads
  // are found by one pass over it, without walking the trie.
  void releasePayloads() noexcept {
    if constexpr (!std::is_same_v<Release, PayloadsOwnedElsewhere>) {
      nodesM.forEachUsed([](char* begin, char* end) {
        for (Node* node = reinterpret_cast<Node*>(begin); node != reinterpret_cast<Node*>(end); ++node) {
          if (node->dataM != nullptr) Release()(std::exchange(node->dataM, nullptr));
        }
      });
    }
  }

  // The slot for character `c`, or -1 when this tree does not read it as a digit.
  int digitValue(char c) const noexcept { return PtrTreeDigits::value(c, radixM); }

  int radixM;
  SlabArena nodesM;          // every node of the tree, nothing else
  SlabArena slotsM;          // every slot array of the tree
  Node* rootM = nullptr;     // in nodesM; null only between destroy and the next createRoot or insert
};

}  // namespace PBC
