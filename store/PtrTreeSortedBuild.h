// Builds an empty decimal PBC::PtrTree from keys in sorted order, in one pass and without a
// single move: each node is written once, in its final group, when the last key below its
// parent has gone by. Inserting keys in file order instead waits on a random place of the node
// array at every level and moves a node's children each time it gains one, which made loading
// a national data set memory-bound. PtrTree::buildSorted hands its work to it. Runs alone, as
// every change of the trie.
#pragma once

#include "store/DigitKey.h"
#include "store/PtrTreeNode.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace PBC {

template <class T, class Release>
class PtrTree;

template <class T, class Release>
class PtrTreeSortedBuild {
public:
  using Tree = PtrTree<T, Release>;
  using Node = PtrTreeNode<T>;
  using Word = typename Node::Word;

  // PtrTree::buildSorted: keyAt(i) for i below count are the keys, sorted; for each run of equal
  // keys with a digit, the node of that key gets payload make(first, length) (null for none).
  // Runs of keys without a digit are passed over. The tree must hold its root only.
  template <class KeyAt, class Make>
  static void build(Tree& tree, std::size_t count, KeyAt&& keyAt, Make&& make) {
    PtrTreeSortedBuild build(tree);
    try {
      DigitKey previous;
      for (std::size_t first = 0; first < count;) {
        const DigitKey key = keyAt(first);
        std::size_t end = first + 1;
        while (end < count && keyAt(end) == key) ++end;
        if (key.length() != 0) {
          build.openPath(key, key.commonPrefix(previous));
          build.openNode(key.length()).dataM = make(first, end - first);
          previous = key;
        }
        first = end;
      }
      build.closeDownTo(0);
      build.close(0);
    } catch (...) {
      build.releaseStaged();
      throw;
    }
    tree.nodeAt(0) = build.rootM;
  }

private:
  // The staged children of one open node, and their digits.
  struct Level {
    Node nodes[16];
    int digits[16];
    unsigned count = 0;
  };

  explicit PtrTreeSortedBuild(Tree& tree) : treeM(tree), rootM(tree.nodeAt(0)) {}

  // The open node at `depth`: the root, or the last child staged below the open node above.
  Node& openNode(unsigned depth) noexcept {
    return depth == 0 ? rootM : levelsM[depth - 1].nodes[levelsM[depth - 1].count - 1];
  }

  // Closes the open nodes deeper than `shared` and opens the nodes of `key` below it.
  void openPath(const DigitKey& key, unsigned shared) {
    closeDownTo(shared);
    const unsigned length = key.length();
    for (unsigned depth = shared; depth < length; ++depth) {
      Level& level = levelsM[depth];
      level.digits[level.count] = key.digit(depth);
      level.nodes[level.count++] = Node();
    }
    openM = length;
  }

  void closeDownTo(unsigned depth) {
    for (; openM > depth; --openM) close(openM);
  }

  // The children of the open node at `depth` are final: they go to the array as one group,
  // those without children of their own as their payload word only. An open node below the
  // root without payload whose one child is a leaf or a tail with room left becomes a tail
  // itself, with no group: the chain of a key alone below a branch folds up into one node.
  void close(unsigned depth) {
    Level& level = levelsM[depth];
    if (level.count == 0) return;
    Node& parent = openNode(depth);
    if (depth != 0 && level.count == 1 && parent.dataM == nullptr) {
      const Node& child = level.nodes[0];
      const auto digit = static_cast<unsigned>(level.digits[0]);
      if (!child.hasChildren() && !child.isTail()) {
        parent = Node::tail(digit, 1, child.dataM);
        ++treeM.liveM;
        level.count = 0;
        return;
      }
      if (child.isTail() && child.tailLength() < Node::tailDigitsCM) {
        parent = Node::tail(child.tailDigits() << 4 | digit, child.tailLength() + 1, child.dataM);
        ++treeM.liveM;
        level.count = 0;
        return;
      }
    }
    unsigned inner = 0;
    unsigned leaves = 0;
    for (unsigned i = 0; i < level.count; ++i) {
      const unsigned bit = 1u << level.digits[i];
      if (level.nodes[i].hasChildren() || level.nodes[i].isTail()) {
        inner |= bit;
      } else {
        leaves |= bit;
      }
    }
    const unsigned innerCount = Node::bitCount(inner);
    const std::uint32_t group = treeM.newGroup(Node::wordsCM * innerCount + level.count - innerCount);
    Word* to = treeM.wordsM + group;
    Word* leaf = to + Node::wordsCM * innerCount;
    for (unsigned i = 0; i < level.count; ++i) {
      if (level.nodes[i].hasChildren() || level.nodes[i].isTail()) {
        std::memcpy(to, &level.nodes[i], sizeof(Node));
        to += Node::wordsCM;
      } else {
        std::memcpy(leaf++, &level.nodes[i].dataM, sizeof(Word));
      }
    }
    treeM.liveM += level.count;
    parent.childrenM = group;
    parent.innerM = static_cast<std::uint16_t>(inner);
    parent.leafM = static_cast<std::uint16_t>(leaves);
    level.count = 0;
  }

  // After a failure: the payloads of the staged nodes, and of the groups written below them,
  // are in no node that the root reaches, where the tree's own clean-up would find them. An
  // open node has no digit set yet (close gives it its group and digits together), so only the
  // groups already written are walked.
  void releaseStaged() noexcept {
    const auto release = [](T*& payload) {
      if (payload != nullptr) Release()(std::exchange(payload, nullptr));
    };
    for (Level& level : levelsM) {
      for (unsigned i = 0; i < level.count; ++i) {
        release(level.nodes[i].dataM);
        treeM.forEachPayloadWordBelow(level.nodes[i], release);
      }
    }
    release(rootM.dataM);
  }

  Tree& treeM;
  Node rootM;  // written back to the array once the build is done
  Level levelsM[DigitKey::maxDigitsCM + 1];  // levelsM[d]: the children of the open node at depth d
  unsigned openM = 0;                        // depth of the deepest open node
};

}  // namespace PBC
