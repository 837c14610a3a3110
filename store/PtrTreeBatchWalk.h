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
  // its path where missing; null for a key without digits. A new child or a leaf turned into
  // an inner node moves its siblings, so a walk holds its parent and digit, not its node, and
  // the nodes of a level are looked up afresh after every change to that level: first the
  // leaves that walks pass through become inner nodes and the tails that walks leave or end
  // inside are peeled, then the walks add the children they lack one level further down. A
  // walk whose key a tail holds, or a new tail takes, stops there; as a later walk of the batch
  // may peel that tail, its field is looked up along the rest of its key once all are in.
  static void payloadSlots(Tree& tree, const std::string_view* keys, std::size_t count, T** slots[]) {
    tree.createRoot();
    const int radix = tree.radixM;
    InsertWalk walks[maxBatchCM];
    for (std::size_t first = 0; first < count; first += maxBatchCM) {
      const std::size_t batch = std::min(count - first, maxBatchCM);
      for (std::size_t i = 0; i < batch; ++i) walks[i] = InsertWalk(keys[first + i]);
      std::size_t open = batch;
      while (open != 0) {
        // Each open walk takes its next digit; one standing at a leaf must turn it into a node.
        bool throughLeaf = false;
        for (std::size_t i = 0; i < batch; ++i) {
          InsertWalk& walk = walks[i];
          if (walk.done) continue;
          const char* const here = walk.rest;
          walk.next = nextDigit(walk.rest, walk.end, radix);
          if (walk.digit >= 0) {
            // Peeling changes the tail's node in place and moves no other node.
            const Node& parent = tree.nodeAt(walk.parent);
            if ((parent.innerM >> walk.digit & 1u) != 0) {
              const std::uint32_t at = parent.innerAt(walk.digit);
              if (tree.nodeAt(at).isTail()) {
                const char* next = here;
                if (walk.next >= 0 && tree.nodeAt(at).matchTail(next, walk.end) == Node::tailWhole) {
                  walk.rest = here;
                  walk.done = true;
                  --open;
                  continue;
                }
                tree.peel(at);
              }
            }
          }
          if (walk.next < 0) {
            walk.done = true;
            --open;
            continue;
          }
          throughLeaf = throughLeaf || (walk.digit >= 0 && tree.nodeAt(walk.parent).hasLeaf(walk.digit));
        }
        if (throughLeaf) {
          for (std::size_t i = 0; i < batch; ++i) {
            const InsertWalk& walk = walks[i];
            if (!walk.done && walk.digit >= 0 && tree.nodeAt(walk.parent).hasLeaf(walk.digit)) {
              tree.reshape(walk.parent, walk.digit, true);
            }
          }
        }
        // Each open walk finds the node it reached and asks for the child it goes on to: for
        // that child's own line, as a group of inner nodes spans several; for the whole group
        // where the child is missing, as adding it moves every sibling.
        for (std::size_t i = 0; i < batch; ++i) {
          InsertWalk& walk = walks[i];
          if (walk.done) continue;
          walk.node = walk.digit >= 0 ? tree.nodeAt(walk.parent).innerAt(walk.digit) : 0;
          prefetchChild(tree, tree.nodeAt(walk.node), walk.next);
        }
        // In order, each walk adds the child it lacks (an earlier walk may have added it): a
        // leaf where its key ends there, a tail where the rest fits one, and moves down a level.
        for (std::size_t i = 0; i < batch; ++i) {
          InsertWalk& walk = walks[i];
          if (walk.done) continue;
          walk.parent = walk.node;
          walk.digit = walk.next;
          if (tree.nodeAt(walk.node).hasChild(walk.next)) continue;
          const char* rest = walk.rest;
          if (nextDigit(rest, walk.end, radix) < 0) {
            tree.reshape(walk.node, walk.next, false);
          } else if (tree.newTail(walk.node, walk.next, std::string_view(walk.rest, walk.end)) != nullptr) {
            walk.done = true;
            --open;
          } else {
            tree.reshape(walk.node, walk.next, true);
          }
        }
      }
      for (std::size_t i = 0; i < batch; ++i) {
        slots[first + i] = walks[i].digit >= 0 ? slotAlong(tree, walks[i]) : nullptr;
      }
    }
  }

private:
  static constexpr std::size_t maxBatchCM = 32;

  struct InsertWalk;

  // The payload field of a finished walk's key: from the child where it stopped, down along
  // the digits it has not read (those of a tail, which may have been peeled since).
  static T** slotAlong(Tree& tree, const InsertWalk& walk) noexcept {
    std::uint32_t parent = walk.parent;
    int digit = walk.digit;
    const char* rest = walk.rest;
    for (;;) {
      const Node& node = tree.nodeAt(parent);
      if (node.hasLeaf(digit)) return tree.slotOf(parent, digit);
      const std::uint32_t at = node.innerAt(digit);
      const int next = nextDigit(rest, walk.end, tree.radixM);
      if (next < 0 || tree.nodeAt(at).isTail()) return &tree.nodeAt(at).dataM;
      parent = at;
      digit = next;
    }
  }

  static void prefetchChild(const Tree& tree, const Node& node, int digit) noexcept {
    const typename Node::Word* const words = tree.wordsM;
    if (node.hasLeaf(digit)) {
      __builtin_prefetch(words + node.leafAt(digit));
    } else if ((node.innerM >> digit & 1u) != 0) {
      __builtin_prefetch(words + node.innerAt(digit));
    } else if (node.hasChildren()) {
      __builtin_prefetch(words + node.childrenM);
      __builtin_prefetch(words + node.childrenM + node.groupWords() - 1);
    }
  }

  // The value of the next digit from `rest` on, which moves past it; -1 when none is left.
  static int nextDigit(const char*& rest, const char* end, int radix) noexcept {
    int digit = -1;
    while (rest != end && (digit = PtrTreeDigits::value(*rest++, radix)) < 0) {
    }
    return digit;
  }

  // One key's walk in a batch of inserting walks: it stands at the child of `parent` for
  // `digit`, or at the root while `digit` is -1.
  struct InsertWalk {
    InsertWalk() = default;
    explicit InsertWalk(std::string_view key) noexcept : rest(key.data()), end(key.data() + key.size()) {}

    const char* rest = nullptr;  // the rest of the key
    const char* end = nullptr;
    std::uint32_t parent = 0;
    int digit = -1;
    std::uint32_t node = 0;  // where the walk stands, valid until a walk of its level changes the level
    int next = -1;           // the digit to follow from there
    bool done = false;
  };

  // One key's walk in a batch of walks that advance together. It stands at a node or, at the
  // end of its path, at a leaf; it is done once both are null.
  struct Walk {
    Walk() = default;
    Walk(const Node* root, std::string_view key) noexcept : node(root), next(key.data()), end(key.data() + key.size()) {}

    // Moves on to the next digit of the key; false when the key is read to its end.
    bool takeDigit(int radix) noexcept {
      digit = nextDigit(next, end, radix);
      return digit >= 0;
    }

    const Node* node = nullptr;
    T* const* leaf = nullptr;
    const char* next = nullptr;  // the rest of the key
    const char* end = nullptr;
    int digit = -1;
    std::uint32_t depth = 0;  // digits read: the length of the key of `node` or `leaf`
  };

  template <class Visitor>
  static void walk(const Tree& tree, const std::string_view* keys, std::size_t count, Visitor& visit) {
    const Node* const root = tree.root();
    if (root == nullptr) return;
    const int radix = tree.radixM;
    const typename Node::Word* const words = tree.wordsM;
    Walk walks[maxBatchCM];
    for (std::size_t first = 0; first < count; first += maxBatchCM) {
      const std::size_t batch = std::min(count - first, maxBatchCM);
      for (std::size_t i = 0; i < batch; ++i) walks[i] = Walk(root, keys[first + i]);
      std::size_t open = batch;
      while (open != 0) {
        // Each open walk reads the node it asked for in the round before and asks for the next.
        for (std::size_t i = 0; i < batch; ++i) {
          Walk& walk = walks[i];
          if (walk.leaf != nullptr) {
            // A leaf has no children: it ends the walk, as the key itself or as its prefix.
            const bool whole = !walk.takeDigit(radix);
            if (T* const payload = *walk.leaf) visit(first + i, payload, walk.depth, whole);
            walk.leaf = nullptr;
            --open;
            continue;
          }
          const Node* const node = walk.node;
          if (node == nullptr) continue;
          if (node->isTail()) {
            // The one key below ends the walk, when the key goes on through all of it.
            const typename Node::TailMatch match = node->matchTail(walk.next, walk.end);
            if (match != Node::tailDiffers && node->dataM != nullptr) {
              visit(first + i, node->dataM, walk.depth + node->tailLength(), match == Node::tailWhole);
            }
            walk.node = nullptr;
            --open;
            continue;
          }
          if (!walk.takeDigit(radix)) {
            if (walk.depth != 0 && node->dataM != nullptr) visit(first + i, node->dataM, walk.depth, true);
            walk.node = nullptr;
            --open;
            continue;
          }
          if (node->dataM != nullptr) visit(first + i, node->dataM, walk.depth, false);
          walk.node = nullptr;
          if (node->hasLeaf(walk.digit)) {
            walk.leaf = node->leaf(words, walk.digit);
            __builtin_prefetch(walk.leaf);
          } else if ((node->innerM >> walk.digit & 1u) != 0) {
            walk.node = node->inner(words, walk.digit);
            __builtin_prefetch(walk.node);
          } else {
            --open;
            continue;
          }
          ++walk.depth;
        }
      }
    }
  }
};

}  // namespace PBC
