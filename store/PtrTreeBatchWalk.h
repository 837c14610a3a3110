// The batched walks of the digit trie PBC::PtrTree: many keys walked together, one level at a
// time, each walk asking the processor for its next node before any of them reads one, so that
// a batch pays about one memory latency per level instead of one per level and key.
// PtrTree::searchMany (the portability tree's bulk lookup) and PtrTree::prefetchPaths (its bulk
// insert) hand their work to it. Both only read the trie and may run concurrently.
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

  // PtrTree::searchMany: visit(i, payload, whole) for each payload on the path of keys[i],
  // shortest prefix first for each key, whole true only for the node of the key itself.
  template <class Visitor>
  static void searchMany(const Tree& tree, const std::string_view* keys, std::size_t count, Visitor&& visit) {
    walk(tree, keys, count, visit);
  }

  // PtrTree::prefetchPaths: the nodes on the keys' paths and the payloads at their ends.
  static void prefetchPaths(const Tree& tree, const std::string_view* keys, std::size_t count) {
    auto fetch = [](std::size_t, const T* payload, bool whole) {
      if (whole) __builtin_prefetch(payload);
    };
    walk(tree, keys, count, fetch);
  }

private:
  static constexpr std::size_t maxBatchCM = 32;

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
    bool digitRead = false;
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
            if (walk.digitRead && node->dataM != nullptr) visit(first + i, node->dataM, true);
            walk.node = nullptr;
            --open;
            continue;
          }
          if (node->dataM != nullptr) visit(first + i, node->dataM, false);
          walk.node = tree.child(*node, walk.digit);
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
};

}  // namespace PBC
