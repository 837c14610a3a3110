// PBC::PtrTree maps keys of decimal (or hexadecimal) digits to payloads, one trie level per
// digit, and answers exact, shortest-prefix and all-prefixes questions. The portability tree
// holds one over number histories. All nodes lie in one array that the tree owns, the children
// of a node side by side, so a step down is one read of one node, the tree is copied by copying
// the array, and emptying it costs nothing (plus one walk over the nodes when payloads must be
// released one by one). A node without children is kept as its payload word alone, in its
// parent's group: most stored numbers end in such a leaf, and a full node for each took half of
// the tree's memory. No locks: searches and dumps may run concurrently, insert and destroy must
// run alone.
//
// This header holds the trie itself: nodes and memory. The single-key walks live in
// PtrTreeSingleWalk.h, the batched walks in PtrTreeBatchWalk.h, the sorted build and merge in
// PtrTreeSortedBuild.h and PtrTreeSortedInsert.h, the key-order walks and the dump's pieces in
// PtrTreeKeyOrderWalk.h and PtrTreeWalker.h; the members here that belong to them only hand
// the work over.
#pragma once

#include "store/PtrTreeBatchWalk.h"
#include "store/PtrTreeDigits.h"
#include "store/PtrTreeKeyOrderWalk.h"
#include "store/PtrTreeNode.h"
#include "store/PtrTreeSingleWalk.h"
#include "store/PtrTreeSortedBuild.h"
#include "store/PtrTreeSortedInsert.h"
#include "store/PtrTreeWalker.h"

#include "BAS/LargeBlock.h"
#include "BAS/String.h"

#include <algorithm>
#include <array>
#include <bit>
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

  // Finds or makes the nodes of keys given in ascending order (PtrTreeSortedInsert.h).
  using SortedInsert = PtrTreeSortedInsert<T, Release>;

  // The tables of PtrTreeDigits, which the trie's walks share.
  static constexpr std::array<int, 256> DIGIT_INDEX = PtrTreeDigits::DIGIT_INDEX;
  static constexpr std::array<char, 16> CHAR_INDEX = PtrTreeDigits::CHAR_INDEX;

  // Radix 10 reads decimal digits; any other radix reads hexadecimal digits of either case and
  // is held as 16, so that every digit read has a child.
  explicit PtrTree(int radix) : radixM(radix == 10 ? 10 : 16) { createRoot(); }
  virtual ~PtrTree() {
    releasePayloads();
    BAS::LargeBlock::release(wordsM, capacityM * sizeof(Word));
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
    *PtrTreeSingleWalk<T, Release>::reach(*this, key.view(), nullptr) = payload;
  }

  // The payload field of the node of `key`, creating missing nodes, for an owner that fills
  // payloads in place (one walk for "find or create"). Null, and nothing created, for a key
  // without digits. The field stays where it is until the next insert. Out of memory
  // propagates; nodes linked in before stay.
  T** payloadSlot(std::string_view key) {
    bool digitRead = false;
    T** const slot = PtrTreeSingleWalk<T, Release>::reach(*this, key, &digitRead);
    return digitRead ? slot : nullptr;
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
    if (radixM != 10 || liveM != 1 || rootNode().hasChildren() || rootNode().hasData()) return false;
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
    return PtrTreeSingleWalk<T, Release>::search(*this, key.view(), exact);
  }

  // Pushes the payloads of all stored prefixes of `key`, the key itself included, shortest
  // first, so that popping yields the longest first. Pushes nothing for a key without digits.
  // The stack is not emptied first.
  template <class Stack>
    requires requires(Stack& stack, T* payload) { stack.push_back(payload); }
  void search(const BAS::String& key, Stack& stack) const {
    PtrTreeSingleWalk<T, Release>::search(*this, key.view(), stack);
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
  bool containsDigit(const BAS::String& key) const noexcept { return containsDigit(key.view()); }

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
    reserve(Node::wordsCM);
    ::new (static_cast<void*>(wordsM)) Node();
    usedM = Node::wordsCM;
    liveM = 1;
  }

  // Makes this tree a copy of `other` (of the same radix), node for node but without the
  // other's free groups, with each payload `clone(payload)` gives for the other's. This tree's own payloads are released first. Out
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
    try {
      copyGroupsFrom(other);
    } catch (...) {
      // The words hold the other tree's payloads: this tree must not release them.
      usedM = 0;
      liveM = 0;
      createRoot();
      throw;
    }
    // Payloads are given their copies group by group, depth first, close to the order in
    // which a sorted load made the originals, so that what clone reads and writes mostly moves
    // forward through memory. Until a payload has its copy, its word holds none.
    std::size_t cloned = 0;
    try {
      forEachPayloadWord([&](T*& payload) {
        if (payload != nullptr) payload = clone(static_cast<const T*>(payload));
        ++cloned;
      });
    } catch (...) {
      std::size_t seen = 0;
      forEachPayloadWord([&](T*& payload) {
        if (seen++ >= cloned) payload = nullptr;
      });
      destroy();
      createRoot();
      throw;
    }
    shrinkToUsed();
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

  // Number of nodes, leaves and the root included; 0 after destroy.
  std::size_t nodeCount() const noexcept { return liveM; }
  // Whether groups that children moved out of wait for reuse: inserts into a filled tree leave
  // them, a sorted build and a copy do not.
  bool hasFreeGroups() const noexcept {
    return std::ranges::any_of(freeGroupsM, [](std::uint32_t first) { return first != 0; });
  }
  // Bytes of the word array that holds the nodes and leaves.
  std::size_t reservedBytes() const noexcept { return capacityM * sizeof(Word); }
  // Bytes of the word array handed out so far, free groups included.
  std::size_t usedBytes() const noexcept { return std::size_t{usedM} * sizeof(Word); }

private:
  friend class PtrTreeBatchWalk<T, Release>;
  friend class PtrTreeKeyOrderWalk<T, Release>;
  friend class PtrTreeSingleWalk<T, Release>;
  friend class PtrTreeSortedBuild<T, Release>;
  friend class PtrTreeSortedInsert<T, Release>;

  using Word = typename Node::Word;

  // The word array starts at one huge page and doubles; it asks for huge pages once it holds
  // more than a few, as a small tree keeps to small pages.
  static constexpr std::size_t firstCapacityCM = BAS::LargeBlock::alignCM / sizeof(Word);
  static constexpr std::size_t hugePageCapacityCM = 4 * firstCapacityCM;
  static constexpr std::size_t largestGroupCM = 16 * Node::wordsCM;

  Node& nodeAt(std::uint32_t index) noexcept { return *reinterpret_cast<Node*>(wordsM + index); }
  const Node& rootNode() const noexcept { return *reinterpret_cast<const Node*>(wordsM); }
  const Node* root() const noexcept { return usedM != 0 ? &rootNode() : nullptr; }

  bool containsDigit(std::string_view text) const noexcept {
    return std::ranges::any_of(text, [this](char c) { return digitValue(c) >= 0; });
  }

  // Gives back the words past the last one in use, which an earlier, larger fill may have
  // touched: a compact copy would otherwise keep that fill's resident size. Keeps the array as
  // it is when the system does not move it.
  void shrinkToUsed() noexcept {
    const std::size_t capacity = std::max<std::size_t>(usedM, firstCapacityCM);
    if (capacity >= capacityM) return;
    try {
      wordsM = static_cast<Word*>(BAS::LargeBlock::resize(wordsM, capacityM * sizeof(Word), capacity * sizeof(Word),
                                                          capacity > hugePageCapacityCM));
      capacityM = capacity;
    } catch (const std::bad_alloc&) {
    }
  }

  // Room for `count` words in all. Moving the words keeps their indexes; out of memory
  // propagates with the tree unchanged.
  void reserve(std::size_t count) {
    if (count <= capacityM) return;
    if (count > std::numeric_limits<std::uint32_t>::max()) throw std::bad_array_new_length();
    std::size_t capacity = std::max(capacityM * 2, firstCapacityCM);
    while (capacity < count) capacity *= 2;
    capacity = std::min<std::size_t>(capacity, std::size_t{std::numeric_limits<std::uint32_t>::max()} + 1);
    wordsM = static_cast<Word*>(
        BAS::LargeBlock::resize(wordsM, capacityM * sizeof(Word), capacity * sizeof(Word), capacity > hugePageCapacityCM));
    capacityM = capacity;
  }

  // Room for a group of `words` words: a released group of that size, or fresh words at the
  // end of the array. The caller writes every word.
  std::uint32_t newGroup(unsigned words) {
    if (const std::uint32_t reused = freeGroupsM[words]; reused != 0) {
      std::memcpy(&freeGroupsM[words], wordsM + reused, sizeof(std::uint32_t));
      return reused;
    }
    reserve(std::size_t{usedM} + words);
    const std::uint32_t first = usedM;
    usedM += words;
    return first;
  }

  // A group whose children moved to another; its first word links the free groups of its size.
  void releaseGroup(std::uint32_t first, unsigned words) noexcept {
    const Word link = freeGroupsM[words];
    std::memcpy(wordsM + first, &link, sizeof(Word));
    freeGroupsM[words] = first;
  }

  // Makes the child of `parent` for `digit` an inner node (`inner`) or a leaf: a new child when
  // there is none, or a leaf that gains children turned into an inner node with its payload.
  // The group of children moves to one of the new size. The word index of the child.
  std::uint32_t reshape(std::uint32_t parent, int digit, bool inner) {
    const Node before = nodeAt(parent);
    const bool existed = before.hasChild(digit);
    const auto bit = static_cast<std::uint16_t>(1u << digit);
    Node after = before;
    if (inner) {
      after.innerM = static_cast<std::uint16_t>(after.innerM | bit);
      after.leafM = static_cast<std::uint16_t>(after.leafM & ~bit);
    } else {
      after.leafM = static_cast<std::uint16_t>(after.leafM | bit);
    }
    const std::uint32_t group = newGroup(after.groupWords());  // may move the array: indexes only
    after.childrenM = group;
    Word* to = wordsM + group;
    for (unsigned digits = after.innerM; digits != 0; digits &= digits - 1) {
      const int d = std::countr_zero(digits);
      if (d != digit) {
        std::memcpy(to, wordsM + before.innerAt(d), sizeof(Node));
      } else {
        Node fresh;
        if (existed) std::memcpy(&fresh.dataM, wordsM + before.leafAt(d), sizeof(T*));
        std::memcpy(to, &fresh, sizeof(Node));
      }
      to += Node::wordsCM;
    }
    for (unsigned digits = after.leafM; digits != 0; digits &= digits - 1) {
      const int d = std::countr_zero(digits);
      if (d != digit || existed) {
        std::memcpy(to, wordsM + before.leafAt(d), sizeof(Word));
      } else {
        *to = 0;  // a leaf without payload yet
      }
      ++to;
    }
    if (before.hasChildren()) releaseGroup(before.childrenM, before.groupWords());
    std::memcpy(static_cast<void*>(wordsM + parent), &after, sizeof(Node));
    if (!existed) ++liveM;
    return inner ? after.innerAt(digit) : after.leafAt(digit);
  }

  // The payload field of the child of `parent` for `digit`, which must exist.
  T** slotOf(std::uint32_t parent, int digit) noexcept {
    const Node& node = nodeAt(parent);
    if (node.hasLeaf(digit)) return reinterpret_cast<T**>(wordsM + node.leafAt(digit));
    return &nodeAt(node.innerAt(digit)).dataM;
  }

  // Makes the child of `parent` for `digit`, which has none, a tail for the digits of `rest`
  // (at least one) and returns its payload field, still empty. Null, and nothing done, where
  // the rest is too long for a tail or the radix is not decimal. Out of memory propagates with
  // nothing done.
  T** newTail(std::uint32_t parent, int digit, std::string_view rest) {
    if (radixM != 10) return nullptr;
    std::uint64_t digits = 0;
    unsigned count = 0;
    for (const char c : rest) {
      const int next = digitValue(c);
      if (next < 0) continue;
      if (count == Node::tailDigitsCM) return nullptr;
      digits |= std::uint64_t(next) << 4 * count++;
    }
    const std::uint32_t child = reshape(parent, digit, true);
    nodeAt(child) = Node::tail(digits, count, nullptr);
    liveM += count;
    return &nodeAt(child).dataM;
  }

  // Turns the tail at `at` into an ordinary node without payload whose one child, for the
  // tail's first digit, is a leaf with the payload where that was its only digit, else a tail
  // of the others. The nodes the tail stands for stay as many. Out of memory propagates with
  // the tail unchanged.
  void peel(std::uint32_t at) {
    const Node tail = nodeAt(at);
    const unsigned count = tail.tailLength();
    const int first = tail.tailDigit(0);
    Node after;
    after.childrenM = newGroup(count == 1 ? 1 : Node::wordsCM);  // may move the array: indexes only
    if (count == 1) {
      after.leafM = static_cast<std::uint16_t>(1u << first);
      std::memcpy(wordsM + after.childrenM, &tail.dataM, sizeof(Word));
    } else {
      after.innerM = static_cast<std::uint16_t>(1u << first);
      const Node rest = Node::tail(tail.tailDigits() >> 4, count - 1, tail.dataM);
      std::memcpy(static_cast<void*>(wordsM + after.childrenM), &rest, sizeof(Node));
    }
    std::memcpy(static_cast<void*>(wordsM + at), &after, sizeof(Node));
  }

  // The root and every group of `other`, each written right after the one before in the order
  // forEachPayloadWord visits them: the free groups that inserts into `other` left behind are
  // not copied, so a tree filled chunk by chunk has a copy as compact as one built in one pass.
  // Payload words are copied as they are. This tree must be empty, with room for other.usedM.
  void copyGroupsFrom(const PtrTree& other) {
    std::memcpy(static_cast<void*>(wordsM), other.wordsM, Node::wordsCM * sizeof(Word));
    std::uint32_t used = Node::wordsCM;
    std::vector<std::uint32_t> pending;  // nodes of this tree whose group is still the other's
    if (rootNode().hasChildren()) pending.push_back(0);
    while (!pending.empty()) {
      Node& node = nodeAt(pending.back());
      pending.pop_back();
      const unsigned words = node.groupWords();
      std::memcpy(static_cast<void*>(wordsM + used), other.wordsM + node.childrenM, words * sizeof(Word));
      node.childrenM = used;
      for (unsigned i = Node::bitCount(node.innerM); i-- != 0;) {
        const std::uint32_t child = used + Node::wordsCM * i;
        if (nodeAt(child).hasChildren()) pending.push_back(child);
      }
      used += words;
    }
    usedM = used;
    liveM = other.liveM;
  }

  // Calls visit(T*&) for the payload field of every node and leaf, the root's first, in one
  // fixed order (group by group, depth first, a subtree's groups near one another). The trie
  // must not change meanwhile.
  template <class Visit>
  void forEachPayloadWord(Visit&& visit) {
    if (usedM == 0) return;
    visit(nodeAt(0).dataM);
    forEachPayloadWordBelow(nodeAt(0), visit);
  }

  // forEachPayloadWord for the nodes and leaves below `top`, which may lie outside the array.
  // Group by group: the payloads of a group's nodes and leaves lie side by side and are read
  // in one sweep, then the group of its first node is next.
  template <class Visit>
  void forEachPayloadWordBelow(const Node& top, Visit&& visit) {
    std::vector<const Node*> pending;
    if (top.hasChildren()) pending.push_back(&top);
    while (!pending.empty()) {
      const Node& node = *pending.back();
      pending.pop_back();
      Word* const group = wordsM + node.childrenM;
      Node* const children = reinterpret_cast<Node*>(group);
      const unsigned inner = Node::bitCount(node.innerM);
      for (unsigned i = 0; i < inner; ++i) visit(children[i].dataM);
      T** const leaves = reinterpret_cast<T**>(group + Node::wordsCM * inner);
      for (unsigned i = 0, count = Node::bitCount(node.leafM); i < count; ++i) visit(leaves[i]);
      for (unsigned i = inner; i-- != 0;) {
        if (children[i].hasChildren()) pending.push_back(&children[i]);
      }
    }
  }

  void releasePayloads() noexcept {
    if constexpr (!std::is_same_v<Release, PayloadsOwnedElsewhere>) {
      forEachPayloadWord([](T*& payload) {
        if (payload != nullptr) Release()(std::exchange(payload, nullptr));
      });
    }
  }

  // The digit value of character `c`, or -1 when this tree does not read it as a digit.
  int digitValue(char c) const noexcept { return PtrTreeDigits::value(c, radixM); }

  int radixM;
  Word* wordsM = nullptr;      // the root at index 0, then groups of children; from BAS::LargeBlock
  std::size_t capacityM = 0;   // words that wordsM has room for
  std::uint32_t usedM = 0;     // words handed out, free groups included; 0 means no root
  std::uint32_t liveM = 0;     // nodes and leaves linked into the trie, the root included
  std::uint32_t freeGroupsM[largestGroupCM + 1] = {};  // by words: the first released group, 0 for none
};

}  // namespace PBC
