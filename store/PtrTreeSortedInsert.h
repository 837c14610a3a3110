// Finds or makes the nodes of keys that come in ascending order, for a decimal PBC::PtrTree
// that already holds nodes: the portability tree merges each sorted chunk of a load with it.
// Consecutive sorted keys share most of their digits, so each walk starts where the path of
// the key before leaves off instead of at the root, and reads only the few levels below.
// Inserting one key at a time from the root, or a batch of walks level by level, read every
// level of every key and spent most of a chunk's merge there. One cursor per run of keys; it
// runs alone, as every change of the trie, and the trie must not change otherwise while it is
// used, but for restart().
#pragma once

#include "store/DigitKey.h"
#include "store/PtrTreeDigits.h"
#include "store/PtrTreeNode.h"

#include <algorithm>
#include <cstdint>
#include <string_view>

namespace PBC {

template <class T, class Release>
class PtrTree;

template <class T, class Release>
class PtrTreeSortedInsert {
public:
  using Tree = PtrTree<T, Release>;
  using Node = PtrTreeNode<T>;

  // The tree must be decimal.
  explicit PtrTreeSortedInsert(Tree& tree) : treeM(tree) { tree.createRoot(); }

  // The payload field of the node of `key`, created with its path where missing, as
  // PtrTree::payloadSlot makes it; null for a key without digits. Valid until the next call.
  // Keys must not go down from one call to the next. Out of memory propagates; what was
  // linked in before stays, and the cursor may go on.
  T** reach(const DigitKey& key) {
    const unsigned length = key.length();
    if (length == 0) return nullptr;
    unsigned depth = std::min(key.commonPrefix(previousM), validM);
    previousM = key;
    validM = depth;  // until the walk below has made the path deeper
    std::uint32_t at = pathM[depth];
    for (; depth < length; ++depth) {
      const int digit = key.digit(depth);
      const Node& node = treeM.nodeAt(at);
      const bool last = depth + 1 == length;
      if ((node.innerM >> digit & 1u) != 0) {
        at = node.innerAt(digit);
        if (treeM.nodeAt(at).isTail()) {
          if (tailHolds(treeM.nodeAt(at), key, depth + 1)) return &treeM.nodeAt(at).dataM;
          treeM.peel(at);
        }
      } else if (node.hasLeaf(digit)) {
        if (last) return treeM.slotOf(at, digit);
        at = treeM.reshape(at, digit, true);
      } else if (last) {
        treeM.reshape(at, digit, false);
        return treeM.slotOf(at, digit);
      } else if (T** const slot = newTail(at, digit, key, depth + 1)) {
        return slot;
      } else {
        at = treeM.reshape(at, digit, true);
      }
      pathM[depth + 1] = at;
      validM = depth + 1;
    }
    return &treeM.nodeAt(at).dataM;
  }

  // Forgets the path of the last key, after the trie changed otherwise: the next walk starts
  // at the root.
  void restart() noexcept { validM = 0; }

private:
  // Whether the tail `tail`, the node of the first `from` digits of `key`, holds exactly the
  // rest of `key`.
  static bool tailHolds(const Node& tail, const DigitKey& key, unsigned from) noexcept {
    const unsigned count = tail.tailLength();
    if (from + count != key.length()) return false;
    for (unsigned i = 0; i < count; ++i) {
      if (tail.tailDigit(i) != key.digit(from + i)) return false;
    }
    return true;
  }

  // PtrTree::newTail for the digits of `key` from `from` on.
  T** newTail(std::uint32_t parent, int digit, const DigitKey& key, unsigned from) {
    char rest[DigitKey::maxDigitsCM];
    unsigned count = 0;
    for (unsigned i = from; i < key.length(); ++i) rest[count++] = PtrTreeDigits::character(key.digit(i));
    return treeM.newTail(parent, digit, std::string_view(rest, count));
  }

  Tree& treeM;
  DigitKey previousM;
  // pathM[d]: the inner node of the first d digits of the last key, for d up to validM; a
  // change of the trie below depth d leaves it where it is.
  std::uint32_t pathM[DigitKey::maxDigitsCM + 1] = {};
  unsigned validM = 0;
};

}  // namespace PBC
