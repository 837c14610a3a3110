// The batched walks of the digit trie PBC::PtrTree: many keys walked together, one level at a
// time, each walk asking the processor for its next node before any of them reads one, so that
// a batch pays about one memory latency per level instead of one per level and key.
// PtrTree::payloadSlots (the portability tree's bulk insert) and PtrTree::searchMany (its bulk
// lookup) hand their work to it. It has the same locking rules as the trie: searchMany may run
// concurrently, payloadSlots must run alone.
#pragma once

#include "store/PtrTreeDigits.h"
#include "store/PtrTreeNode.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace PBC {

template <class T, class Release>
class PtrTree;

template <class T, class Release>
class PtrTreeBatchWalk {
public:
  using Tree = PtrTree<T, Release>;
  using Node = PtrTreeNode<T>;

  // PtrTree::searchMany: visit(i, payload, depth, whole) for each payload on the path of
  // keys[i], shortest prefix first for each key: depth is the number of digits of the node's
  // key, whole true only for the node of the key itself.
  template <class Visitor>
  static void searchMany(const Tree& tree, const std::string_view* keys, std::size_t count, Visitor&& visit) {
    walk(tree, keys, count, visit);
  }

  // PtrTree::payloadSlots: slots[i] is the payload field of the node of keys[i], created with
  // its path where missing; null for a key without digits. A new child moves its siblings, so
  // a walk holds its parent and digit, not its node, while the other walks of its level may
  // still add children: each level's nodes are looked up afresh after the level before is done.
  static void payloadSlots(Tree& tree, const std::string_view* keys, std::size_t count, T** slots[]) {
    tree.createRoot();
    const int radix = tree.radixM;
    InsertWalk walks[maxBatchCM];
    for (std::size_t first = 0; first < count; first += maxBatchCM) {
      const std::size_t batch = std::min(count - first, maxBatchCM);
      for (std::size_t i = 0; i < batch; ++i) walks[i] = InsertWalk(keys[first + i]);
      std::size_t open = batch;
      while (open != 0) {
        // Each open walk finds the node it reached, takes its next digit and asks for the child,
        // or for the children that a new child will move.
        for (std::size_t i = 0; i < batch; ++i) {
          InsertWalk& walk = walks[i];
          if (walk.done) continue;
          walk.node = walk.digitRead ? tree.nodesM[walk.parent].childrenM + tree.nodesM[walk.parent].childRank(walk.digit) : 0;
          int digit = -1;
          while (walk.next != walk.end && (digit = PtrTreeDigits::value(*walk.next++, radix)) < 0) {
          }
          if (digit < 0) {
            walk.done = true;
            --open;
            continue;
          }
          walk.digit = digit;
          const Node& node = tree.nodesM[walk.node];
          __builtin_prefetch(tree.nodesM + node.childrenM + (node.hasChild(digit) ? node.childRank(digit) : 0));
        }
        // In order, each walk adds the child it lacks (an earlier walk may have added it), and
        // moves down a level.
        for (std::size_t i = 0; i < batch; ++i) {
          InsertWalk& walk = walks[i];
          if (walk.done) continue;
          if (!tree.nodesM[walk.node].hasChild(walk.digit)) tree.addChild(walk.node, walk.digit);
          walk.parent = walk.node;
          walk.digitRead = true;
        }
      }
      for (std::size_t i = 0; i < batch; ++i) slots[first + i] = walks[i].digitRead ? &tree.nodesM[walks[i].node].dataM : nullptr;
    }
  }

private:
  static constexpr std::size_t maxBatchCM = 32;

  // One key's walk in a batch of inserting walks.
  struct InsertWalk {
    InsertWalk() = default;
    explicit InsertWalk(std::string_view key) noexcept : next(key.data()), end(key.data() + key.size()) {}

    const char* next = nullptr;  // the rest of the key
    const char* end = nullptr;
    std::uint32_t parent = 0;    // the node above, once a digit was read
    std::uint32_t node = 0;      // the node reached, valid until a walk of the next level adds a child
    int digit = -1;              // the digit followed from the parent
    bool digitRead = false;
    bool done = false;
  };

  // One key's walk in a batch of walks that advance together; its node is null once it ended.
  struct Walk {
    Walk() = default;
    Walk(const Node* root, std::string_view key) noexcept : node(root), next(key.data()), end(key.data() + key.size()) {}

    // Moves on to the next digit of the key; false when the key is read to its end.
    bool takeDigit(int radix) noexcept {
      int value = -1;
      while (next != end && (value = PtrTreeDigits::value(*next++, radix)) < 0) {
      }
      digit = value;
      return value >= 0;
    }

    const Node* node = nullptr;
    const char* next = nullptr;  // the rest of the key
    const char* end = nullptr;
    int digit = -1;
    std::uint32_t depth = 0;  // digits read: the length of the key of `node`
  };

  template <class Visitor>
  static void walk(const Tree& tree, const std::string_view* keys, std::size_t count, Visitor& visit) {
    const Node* const root = tree.root();
    if (root == nullptr) return;
    const int radix = tree.radixM;
    Walk walks[maxBatchCM];
    for (std::size_t first = 0; first < count; first += maxBatchCM) {
      const std::size_t batch = std::min(count - first, maxBatchCM);
      for (std::size_t i = 0; i < batch; ++i) walks[i] = Walk(root, keys[first + i]);
      std::size_t open = batch;
      while (open != 0) {
        // Each open walk reads the node it asked for in the round before and asks for the next.
        for (std::size_t i = 0; i < batch; ++i) {
          Walk& walk = walks[i];
          const Node* const node = walk.node;
          if (node == nullptr) continue;
          if (!walk.takeDigit(radix)) {
            if (walk.depth != 0 && node->dataM != nullptr) visit(first + i, node->dataM, walk.depth, true);
            walk.node = nullptr;
            --open;
            continue;
          }
          if (node->dataM != nullptr) visit(first + i, node->dataM, walk.depth, false);
          walk.node = tree.child(*node, walk.digit);
          if (walk.node == nullptr) {
            --open;
            continue;
          }
          ++walk.depth;
          __builtin_prefetch(walk.node);
        }
      }
    }
  }
};

}  // namespace PBC
