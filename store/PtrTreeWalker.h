// A step-at-a-time walk of one piece of the digit trie PBC::PtrTree in key order, and the
// piece it walks; a tail is one step, to its key. The portability tree's dump runs several
// walkers in turn, each asking the processor for what its next step will read before the turn
// passes, so that their cache misses overlap; PtrTree cuts the pieces
// (PtrTreeKeyOrderWalk::pieces). A walker belongs to one thread; the trie must not change
// while it walks.
#pragma once

#include "store/PtrTreeDigits.h"
#include "store/PtrTreeNode.h"

#include <bit>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace PBC {

template <class T>
class PtrTreeWalker {
public:
  using Node = PtrTreeNode<T>;

  // A part of the trie for a walk in key order: the subtree under `node` (the node's own payload
  // included), or with `ownOnly` the node's payload alone; for a leaf, `node` is null and
  // `leaf` its payload word. `key` is the key of the node or leaf, `words` the word array of
  // its trie.
  struct Piece {
    const Node* node;
    std::string key;
    bool ownOnly;
    const typename Node::Word* words;
    T* const* leaf = nullptr;
  };

  // Begins a new piece; whatever the walker walked before is forgotten.
  void start(const Piece& piece) {
    framesM.clear();
    keyM.assign(piece.key);
    wordsM = piece.words;
    pendingM = piece.node;
    pendingLeafM = piece.leaf;
    ownOnlyM = piece.ownOnly;
    if (pendingM != nullptr) __builtin_prefetch(pendingM);
    if (pendingLeafM != nullptr) __builtin_prefetch(pendingLeafM);
  }

  // One step: false when the piece is done. Otherwise `payload` is the payload of the node
  // that this step visited, null when it has none or the step only moved between nodes.
  bool step(const T*& payload, int radix) {
    payload = nullptr;
    if (pendingLeafM != nullptr) {
      payload = *std::exchange(pendingLeafM, nullptr);
      // A leaf gets a frame too, so that every frame but the first stands for one key character.
      framesM.push_back(Frame{nullptr, 0, 0, 0});
      return true;
    }
    if (pendingM != nullptr) {
      const Node* const node = std::exchange(pendingM, nullptr);
      payload = node->dataM;
      if (node->isTail()) {
        // The step visits the tail's one key, whose frame stands for all of its digits.
        const unsigned count = node->tailLength();
        for (unsigned i = 0; i < count; ++i) keyM.push_back(PtrTreeDigits::character(node->tailDigit(i)));
        framesM.push_back(Frame{nullptr, 0, 0, count});
        return true;
      }
      const bool descend = !ownOnlyM && node->hasChildren();
      if (descend) {
        const typename Node::Word* const group = wordsM + node->childrenM;
        __builtin_prefetch(group);
        __builtin_prefetch(group + node->groupWords() - 1);
      }
      framesM.push_back(Frame{descend ? node : nullptr, descend ? unsigned{node->innerM} | node->leafM : 0u, 0, 0});
      return true;
    }
    while (!framesM.empty()) {
      Frame& frame = framesM.back();
      // The digits still to visit, the next one in the lowest bit: a frame skips the absent
      // digits in one step rather than one by one.
      const unsigned rest = frame.slot < radix ? frame.digits >> frame.slot : 0u;
      if (rest != 0) {
        frame.slot += std::countr_zero(rest);
        if (frame.node->hasLeaf(frame.slot)) {
          pendingLeafM = frame.node->leaf(wordsM, frame.slot);
          __builtin_prefetch(pendingLeafM);
        } else {
          pendingM = frame.node->inner(wordsM, frame.slot);
          __builtin_prefetch(pendingM);
        }
        keyM.push_back(PtrTreeDigits::character(frame.slot));
        ++frame.slot;
        return true;
      }
      const unsigned tailDigits = frame.tailDigits;
      framesM.pop_back();
      keyM.resize(keyM.size() - tailDigits - (framesM.empty() ? 0 : 1));
    }
    return false;
  }

  // The key of the node that the last step visited.
  const std::string& currentKey() const noexcept { return keyM; }

private:
  struct Frame {
    const Node* node;  // null for a node without children and for a leaf
    unsigned digits;   // the digits that have a child
    int slot;          // the next digit to look at
    unsigned tailDigits;  // key characters of a tail beyond the one the frame stands for
  };
  std::vector<Frame> framesM;
  std::string keyM;
  const typename Node::Word* wordsM = nullptr;
  const Node* pendingM = nullptr;  // visited by the next step
  T* const* pendingLeafM = nullptr;
  bool ownOnlyM = false;
};

}  // namespace PBC
