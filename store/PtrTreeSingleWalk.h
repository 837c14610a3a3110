// The single-key walks of the digit trie PBC::PtrTree: the exact and shortest-prefix search,
// the all-prefixes search, and the walk of an insert that finds or makes the node of a key.
// PtrTree::search, insert and payloadSlot hand their work to it. The searches may run
// concurrently; an insert runs alone, as every change of the trie.
#pragma once

#include "store/PtrTreeNode.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

namespace PBC {

template <class T, class Release>
class PtrTree;

template <class T, class Release>
class PtrTreeSingleWalk {
public:
  using Tree = PtrTree<T, Release>;
  using Node = PtrTreeNode<T>;

  // PtrTree::search(key, exact).
  static T* search(const Tree& tree, std::string_view text, bool exact) noexcept {
    if (tree.usedM == 0) return nullptr;
    const Node* node = &tree.rootNode();
    bool digitRead = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
      const int digit = tree.digitValue(text[i]);
      if (digit < 0) continue;
      if (!exact && node->dataM != nullptr) return node->dataM;
      if (node->hasLeaf(digit)) {
        // A leaf has no children: a longer key ends with it only as its prefix.
        T* const payload = *node->leaf(tree.wordsM, digit);
        return exact && tree.containsDigit(text.substr(i + 1)) ? nullptr : payload;
      }
      if ((node->innerM >> digit & 1u) == 0) return nullptr;
      node = node->inner(tree.wordsM, digit);
      digitRead = true;
      if (node->isTail()) {
        // The one key below: the rest must be it, or for a prefix search begin with it.
        const char* next = text.data() + i + 1;
        const typename Node::TailMatch match = node->matchTail(next, text.data() + text.size());
        return match == Node::tailWhole || (match == Node::tailLonger && !exact) ? node->dataM : nullptr;
      }
    }
    return digitRead ? node->dataM : nullptr;
  }

  // PtrTree::search(key, stack).
  template <class Stack>
  static void search(const Tree& tree, std::string_view text, Stack& stack) {
    if (tree.usedM == 0) return;
    const Node* node = &tree.rootNode();
    bool digitRead = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
      const int digit = tree.digitValue(text[i]);
      if (digit < 0) continue;
      if (node->dataM != nullptr) stack.push_back(node->dataM);
      if (node->hasLeaf(digit)) {
        if (T* const payload = *node->leaf(tree.wordsM, digit)) stack.push_back(payload);
        return;
      }
      if ((node->innerM >> digit & 1u) == 0) return;
      node = node->inner(tree.wordsM, digit);
      digitRead = true;
      if (node->isTail()) {
        const char* next = text.data() + i + 1;
        if (node->matchTail(next, text.data() + text.size()) != Node::tailDiffers && node->dataM != nullptr) {
          stack.push_back(node->dataM);
        }
        return;
      }
    }
    if (digitRead && node->dataM != nullptr) stack.push_back(node->dataM);
  }

  // The payload field of the node of `key`, created with its path where missing; `digitRead`
  // tells whether the key had a digit at all (without one it is the root's). A new node that
  // ends the key is a leaf, a new node whose key alone lies below a tail where the rest fits
  // one; a leaf that the key passes through becomes an inner node, a tail that the key leaves
  // or ends inside is peeled down to where it does.
  static T** reach(Tree& tree, std::string_view key, bool* digitRead) {
    tree.createRoot();
    std::size_t lastDigit = key.size();  // where the key's last digit is
    while (lastDigit != 0 && tree.digitValue(key[lastDigit - 1]) < 0) --lastDigit;
    std::uint32_t at = 0;  // the inner node reached
    int leafDigit = -1;    // when the key stands at a leaf below `at`: its digit
    for (std::size_t i = 0; i < lastDigit; ++i) {
      const int digit = tree.digitValue(key[i]);
      if (digit < 0) continue;
      if (digitRead != nullptr) *digitRead = true;
      if (leafDigit >= 0) at = tree.reshape(at, std::exchange(leafDigit, -1), true);
      const Node& node = tree.nodeAt(at);
      const std::string_view rest = key.substr(i + 1, lastDigit - i - 1);
      if ((node.innerM >> digit & 1u) != 0) {
        at = node.innerAt(digit);
        if (tree.nodeAt(at).isTail()) {
          const char* next = rest.data();
          if (tree.nodeAt(at).matchTail(next, rest.data() + rest.size()) == Node::tailWhole) return &tree.nodeAt(at).dataM;
          tree.peel(at);
        }
      } else if (node.hasLeaf(digit) || i + 1 == lastDigit) {
        if (!node.hasLeaf(digit)) tree.reshape(at, digit, false);
        leafDigit = digit;
      } else if (T** const slot = tree.newTail(at, digit, rest)) {
        return slot;
      } else {
        at = tree.reshape(at, digit, true);
      }
    }
    return leafDigit >= 0 ? tree.slotOf(at, leafDigit) : &tree.nodeAt(at).dataM;
  }
};

}  // namespace PBC
