// PBC::PtrTree maps keys of decimal (or hexadecimal) digits to payloads, one trie level per
// digit, and answers exact, shortest-prefix and all-prefixes questions. The portability tree
// holds one over number histories. Nodes and slot arrays come from two arenas that the tree
// owns, so building places them close together and emptying the tree is two arena resets
// (plus one pass over the nodes when payloads must be released one by one). No locks:
// searches and dumps may run concurrently, insert and destroy must run alone.
#pragma once

#include "store/PtrTreeNode.h"
#include "store/SlabArena.h"

#include "BAS/String.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iosfwd>
#include <memory>
#include <new>
#include <string>
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

  // Digit value of a character code taken as unsigned byte; -1 for codes that are no digit.
  static constexpr std::array<int, 256> DIGIT_INDEX = [] {
    std::array<int, 256> index{};
    index.fill(-1);
    for (int c = '0'; c <= '9'; ++c) index[static_cast<std::size_t>(c)] = c - '0';
    for (int c = 'A'; c <= 'F'; ++c) index[static_cast<std::size_t>(c)] = c - 'A' + 10;
    for (int c = 'a'; c <= 'f'; ++c) index[static_cast<std::size_t>(c)] = c - 'a' + 10;
    return index;
  }();
  // Digit value to the character printed in keys; hexadecimal digits print in upper case.
  static constexpr std::array<char, 16> CHAR_INDEX = {'0', '1', '2', '3', '4', '5', '6', '7',
                                                      '8', '9', 'A', 'B', 'C', 'D', 'E', 'F'};

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
    if (rootM == nullptr) createRoot();
    BatchWalk<Node*> walks[maxBatchCM];
    for (std::size_t first = 0; first < count; first += maxBatchCM) {
      const std::size_t batch = std::min(count - first, maxBatchCM);
      for (std::size_t i = 0; i < batch; ++i) walks[i] = BatchWalk<Node*>(rootM, keys[first + i]);
      std::size_t open = batch;
      while (open != 0) {
        open = 0;
        // Each walk takes its next digit and asks for the slot it will read.
        for (std::size_t i = 0; i < batch; ++i) {
          auto& walk = walks[i];
          if (!takeDigit(walk)) continue;
          ++open;
          walk.digitRead = true;
          Node* const node = walk.node;
          if (node->childrenM == nullptr) node->childrenM = newSlots();
          __builtin_prefetch(node->childrenM + walk.digit);
        }
        // Each walk follows its slot, creating the child where missing, and asks for the child.
        for (std::size_t i = 0; i < batch; ++i) {
          auto& walk = walks[i];
          if (walk.digit < 0) continue;
          Node*& slot = walk.node->childrenM[walk.digit];
          if (slot == nullptr) slot = newNode();
          walk.node = slot;
          __builtin_prefetch(slot);
        }
      }
      for (std::size_t i = 0; i < batch; ++i) slots[first + i] = walks[i].digitRead ? &walks[i].node->dataM : nullptr;
    }
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
    if (rootM == nullptr) return;
    // A walk's node is null once the walk ended.
    BatchWalk<const Node*> walks[maxBatchCM];
    for (std::size_t first = 0; first < count; first += maxBatchCM) {
      const std::size_t batch = std::min(count - first, maxBatchCM);
      for (std::size_t i = 0; i < batch; ++i) walks[i] = BatchWalk<const Node*>(rootM, keys[first + i]);
      std::size_t open = batch;
      while (open != 0) {
        for (std::size_t i = 0; i < batch; ++i) {
          auto& walk = walks[i];
          if (walk.node == nullptr) continue;
          if (!takeDigit(walk)) {
            if (walk.digitRead && walk.node->dataM != nullptr) visit(first + i, walk.node->dataM, true);
            walk.node = nullptr;
            --open;
            continue;
          }
          if (walk.node->dataM != nullptr) visit(first + i, walk.node->dataM, false);
          if (walk.node->childrenM == nullptr) {
            walk.node = nullptr;
            --open;
            continue;
          }
          __builtin_prefetch(walk.node->childrenM + walk.digit);
        }
        for (std::size_t i = 0; i < batch; ++i) {
          auto& walk = walks[i];
          if (walk.node == nullptr) continue;
          walk.node = walk.node->childrenM[walk.digit];
          if (walk.node == nullptr) {
            --open;
            continue;
          }
          walk.digitRead = true;
          __builtin_prefetch(walk.node);
        }
      }
    }
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
    if (rootM == nullptr) return;
    // The key of the node being visited, and the nodes above it; the slot to continue with in
    // a parent follows from the last character of the key.
    BAS::String path;
    std::string& pathText = path.mutableStr();
    std::vector<const Node*> parents;
    const Node* node = rootM;
    int slot = 0;
    for (;;) {
      if (slot == 0) prefetchChildren(node);
      while (slot < radixM && node->child(slot) == nullptr) ++slot;
      if (slot < radixM) {
        if (pathText.size() == pathText.capacity()) {
          // Telephone numbers need a step or two of ten characters. Keys far deeper than any
          // number grow by their own length, so a pathological key is not copied over and over.
          const std::size_t step = pathText.size() < deepPathCM ? pathStepCM : pathText.size();
          pathText.reserve(pathText.size() + step);
        }
        parents.push_back(node);
        pathText.push_back(CHAR_INDEX[static_cast<std::size_t>(slot)]);
        node = node->child(slot);
        slot = 0;
        if (node->dataM != nullptr) visit(static_cast<const BAS::String&>(path), static_cast<const T&>(*node->dataM));
        continue;
      }
      if (parents.empty()) return;
      slot = DIGIT_INDEX[static_cast<unsigned char>(pathText.back())] + 1;
      pathText.pop_back();
      node = parents.back();
      parents.pop_back();
    }
  }

  // A part of the trie for a walk in key order: the subtree under `node` (the node's own payload
  // included), or with `ownOnly` the node's payload alone. `key` is the node's key.
  struct Piece {
    const Node* node;
    std::string key;
    bool ownOnly;
  };

  // Cuts the trie into pieces that, walked one after the other, visit the payloads in the
  // order of forEach: at least `least` of them where the trie has that many nodes within
  // `deepest` levels, cutting one level deeper at a time. The root's payload is left out, as
  // forEach leaves it out.
  std::vector<Piece> pieces(std::size_t least, std::size_t deepest) const {
    std::vector<Piece> cut;
    if (rootM == nullptr) return cut;
    appendChildPieces(*rootM, std::string(), cut);
    for (std::size_t depth = 1; depth < deepest && cut.size() < least; ++depth) {
      std::vector<Piece> next;
      next.reserve(cut.size() * 4);
      bool deeper = false;
      for (Piece& piece : cut) {
        if (piece.ownOnly || piece.node->childrenM == nullptr) {
          next.push_back(std::move(piece));
          continue;
        }
        deeper = true;
        if (piece.node->dataM != nullptr) next.push_back(Piece{piece.node, piece.key, true});
        appendChildPieces(*piece.node, piece.key, next);
      }
      cut = std::move(next);
      if (!deeper) break;
    }
    return cut;
  }

  // Walks one piece in key order a node per step, asking the processor for what the next step
  // will read before returning; a dump that runs several walkers in turn overlaps their cache
  // misses. Holds the key of the node last visited. Reusable: start() begins a new piece.
  class Walker {
  public:
    void start(const Piece& piece) {
      frames.clear();
      key.assign(piece.key);
      pending = piece.node;
      ownOnly = piece.ownOnly;
      __builtin_prefetch(pending);
    }

    // One step: false when the piece is done. Otherwise `payload` is the payload of the node
    // that this step visited, null when it has none or the step only moved between nodes.
    bool step(const T*& payload, int radix) {
      payload = nullptr;
      if (pending != nullptr) {
        const Node* const node = std::exchange(pending, nullptr);
        payload = node->dataM;
        // A leaf gets a frame too, so that every frame but the first stands for one key character.
        Node* const* const slots = ownOnly ? nullptr : node->childrenM;
        if (slots != nullptr) {
          // Ten slots span two cache lines more often than not.
          __builtin_prefetch(slots);
          __builtin_prefetch(slots + radix - 1);
        }
        frames.push_back(Frame{slots, 0});
        return true;
      }
      while (!frames.empty()) {
        Frame& frame = frames.back();
        if (frame.slots != nullptr) {
          while (frame.slot < radix && frame.slots[frame.slot] == nullptr) ++frame.slot;
          if (frame.slot < radix) {
            pending = frame.slots[frame.slot];
            key.push_back(CHAR_INDEX[static_cast<std::size_t>(frame.slot)]);
            ++frame.slot;
            __builtin_prefetch(pending);
            return true;
          }
        }
        frames.pop_back();
        if (!frames.empty()) key.pop_back();
      }
      return false;
    }

    // The key of the node that the last step visited.
    const std::string& currentKey() const noexcept { return key; }

  private:
    struct Frame {
      Node* const* slots;  // null for a node without children
      int slot;            // the next slot to look at
    };
    std::vector<Frame> frames;
    std::string key;
    const Node* pending = nullptr;  // visited by the next step
    bool ownOnly = false;
  };

  // Number of nodes, the root included; 0 after destroy. Every node handed out is linked in.
  std::size_t nodeCount() const noexcept { return nodesM.usedBytes() / sizeof(Node); }
  // Bytes of the slabs that hold nodes and slot arrays.
  std::size_t reservedBytes() const noexcept { return nodesM.reservedBytes() + slotsM.reservedBytes(); }

private:
  static constexpr std::size_t slotSlabBytes(int radix) noexcept {
    // A whole number of slot arrays per slab, so that no slab ends in an unusable tail.
    const std::size_t arrayBytes = static_cast<std::size_t>(radix) * sizeof(Node*);
    return SlabArena::defaultSlabBytesCM / arrayBytes * arrayBytes;
  }

  static constexpr std::size_t maxBatchCM = 32;

  // One key's walk in a batch of walks that advance together.
  template <class NodePointer>
  struct BatchWalk {
    BatchWalk() = default;
    BatchWalk(NodePointer root, std::string_view key) noexcept
        : node(root), next(key.data()), end(key.data() + key.size()) {}

    NodePointer node = nullptr;
    const char* next = nullptr;  // the rest of the key
    const char* end = nullptr;
    int digit = -1;  // the digit being followed, -1 once the key is read to its end
    bool digitRead = false;
  };

  // Moves `walk` on to the next digit of its key; false when the key is read to its end.
  template <class Walk>
  bool takeDigit(Walk& walk) const noexcept {
    walk.digit = -1;
    while (walk.next != walk.end && (walk.digit = digitValue(*walk.next++)) < 0) {
    }
    return walk.digit >= 0;
  }

  // The dump visits a node's children one after the other, and nodes lie in the order they were
  // created, not in key order; so before the first child is visited, all children, then their
  // slot arrays and payloads, then the grandchildren are requested, each round for all children
  // at once, and the cache misses of the siblings overlap.
  void prefetchChildren(const Node* node) const noexcept {
    Node* const* const slots = node->childrenM;
    if (slots == nullptr) return;
    for (int slot = 0; slot < radixM; ++slot) {
      if (slots[slot] != nullptr) __builtin_prefetch(slots[slot]);
    }
    for (int slot = 0; slot < radixM; ++slot) {
      if (const Node* const child = slots[slot]) {
        if (child->childrenM != nullptr) __builtin_prefetch(child->childrenM);
        if (child->dataM != nullptr) __builtin_prefetch(child->dataM);
      }
    }
    // One level further, so that the grandchildren are on their way while the children are visited.
    for (int slot = 0; slot < radixM; ++slot) {
      const Node* const child = slots[slot];
      if (child == nullptr || child->childrenM == nullptr) continue;
      for (int below = 0; below < radixM; ++below) {
        if (child->childrenM[below] != nullptr) __builtin_prefetch(child->childrenM[below]);
      }
    }
  }

  void appendChildPieces(const Node& node, const std::string& key, std::vector<Piece>& out) const {
    if (node.childrenM == nullptr) return;
    for (int slot = 0; slot < radixM; ++slot) {
      if (const Node* const child = node.childrenM[slot]) {
        out.push_back(Piece{child, key + CHAR_INDEX[static_cast<std::size_t>(slot)], false});
      }
    }
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
  static constexpr std::size_t pathStepCM = 10;
  static constexpr std::size_t deepPathCM = 100;

  // The slot for character `c`, or -1 when this tree does not read it as a digit.
  int digitValue(char c) const noexcept {
    const int value = DIGIT_INDEX[static_cast<unsigned char>(c)];
    return value < radixM ? value : -1;
  }

  int radixM;
  SlabArena nodesM;          // every node of the tree, nothing else
  SlabArena slotsM;          // every slot array of the tree
  Node* rootM = nullptr;     // in nodesM; null only between destroy and the next createRoot or insert
};

}  // namespace PBC
