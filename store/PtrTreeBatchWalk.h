// The batched walks of the digit trie PBC::PtrTree: many keys walked together, one level at a
// time, each walk asking the processor for its next slot array and node before any of them
// reads one, so that a batch pays about one memory latency per level instead of one per level
// and key. PtrTree::payloadSlots (the portability tree's bulk insert) and PtrTree::searchMany
// (its bulk lookup) hand their work to it. It has the same locking rules as the trie:
// searchMany may run concurrently, payloadSlots must run alone.
#pragma once

#include "store/PtrTreeDigits.h"
#include "store/PtrTreeNode.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace PBC {

template <class T, class Release>
class PtrTree;

template <class T, class Release>
class PtrTreeBatchWalk {
public:
  using Tree = PtrTree<T, Release>;
  using Node = PtrTreeNode<T>;

  // PtrTree::payloadSlots: slots[i] is the payload field of the node of keys[i], created with
  // its path where missing; null for a key without digits.
  static void payloadSlots(Tree& tree, const std::string_view* keys, std::size_t count, T** slots[]) {
    if (tree.rootM == nullptr) tree.createRoot();
    Walk<Node*> walks[maxBatchCM];
    for (std::size_t first = 0; first < count; first += maxBatchCM) {
      const std::size_t batch = std::min(count - first, maxBatchCM);
      for (std::size_t i = 0; i < batch; ++i) walks[i] = Walk<Node*>(tree.rootM, keys[first + i]);
      std::size_t open = batch;
      while (open != 0) {
        open = 0;
        // Each walk takes its next digit and asks for the slot it will read.
        for (std::size_t i = 0; i < batch; ++i) {
          auto& walk = walks[i];
          if (!walk.takeDigit(tree.radixM)) continue;
          ++open;
          walk.digitRead = true;
          Node* const node = walk.node;
          if (node->childrenM == nullptr) node->childrenM = tree.newSlots();
          __builtin_prefetch(node->childrenM + walk.digit);
        }
        // Each walk follows its slot, creating the child where missing, and asks for the child.
        for (std::size_t i = 0; i < batch; ++i) {
          auto& walk = walks[i];
          if (walk.digit < 0) continue;
          Node*& slot = walk.node->childrenM[walk.digit];
          if (slot == nullptr) slot = tree.newNode();
          walk.node = slot;
          __builtin_prefetch(slot);
        }
      }
      for (std::size_t i = 0; i < batch; ++i) slots[first + i] = walks[i].digitRead ? &walks[i].node->dataM : nullptr;
    }
  }

  // PtrTree::searchMany: visit(i, payload, whole) for each payload on the path of keys[i],
  // shortest prefix first for each key, whole true only for the node of the key itself.
  template <class Visitor>
  static void searchMany(const Tree& tree, const std::string_view* keys, std::size_t count, Visitor&& visit) {
    if (tree.rootM == nullptr) return;
    // A walk's node is null once the walk ended.
    Walk<const Node*> walks[maxBatchCM];
    for (std::size_t first = 0; first < count; first += maxBatchCM) {
      const std::size_t batch = std::min(count - first, maxBatchCM);
      for (std::size_t i = 0; i < batch; ++i) walks[i] = Walk<const Node*>(tree.rootM, keys[first + i]);
      std::size_t open = batch;
      while (open != 0) {
        for (std::size_t i = 0; i < batch; ++i) {
          auto& walk = walks[i];
          if (walk.node == nullptr) continue;
          if (!walk.takeDigit(tree.radixM)) {
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

private:
  static constexpr std::size_t maxBatchCM = 32;

  // One key's walk in a batch of walks that advance together.
  template <class NodePointer>
  struct Walk {
    Walk() = default;
    Walk(NodePointer root, std::string_view key) noexcept : node(root), next(key.data()), end(key.data() + key.size()) {}

    // Moves on to the next digit of the key; false when the key is read to its end.
    bool takeDigit(int radix) noexcept {
      digit = -1;
      while (next != end && (digit = PtrTreeDigits::value(*next++, radix)) < 0) {
      }
      return digit >= 0;
    }

    NodePointer node = nullptr;
    const char* next = nullptr;  // the rest of the key
    const char* end = nullptr;
    int digit = -1;  // the digit being followed, -1 once the key is read to its end
    bool digitRead = false;
  };
};

}  // namespace PBC
