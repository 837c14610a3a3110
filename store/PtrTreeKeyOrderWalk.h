// The key-order walks of the digit trie PBC::PtrTree: the whole trie visited without recursion
// (PtrTree::forEach, which the portability tree's copy and PtrTree::printTree use), and the
// cutting of the trie into pieces that PtrTreeWalker walks one after another (PtrTree::pieces,
// which the portability tree's dump uses). Both only read the trie and may run concurrently
// with searches and with each other, never with insert or destroy.
#pragma once

#include "store/PtrTreeDigits.h"
#include "store/PtrTreeNode.h"
#include "store/PtrTreeWalker.h"

#include "BAS/String.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace PBC {

template <class T, class Release>
class PtrTree;

template <class T, class Release>
class PtrTreeKeyOrderWalk {
public:
  using Tree = PtrTree<T, Release>;
  using Node = PtrTreeNode<T>;
  using Piece = typename PtrTreeWalker<T>::Piece;

  // PtrTree::forEach: visit(key, payload) for each stored payload but the root's, in key order,
  // a key before the keys that extend it.
  template <class Visitor>
  static void forEach(const Tree& tree, Visitor&& visit) {
    if (tree.rootM == nullptr) return;
    const int radix = tree.radixM;
    // The key of the node being visited, and the nodes above it; the slot to continue with in
    // a parent follows from the last character of the key.
    BAS::String path;
    std::string& pathText = path.mutableStr();
    std::vector<const Node*> parents;
    const Node* node = tree.rootM;
    int slot = 0;
    for (;;) {
      if (slot == 0) prefetchChildren(node, radix);
      while (slot < radix && node->child(slot) == nullptr) ++slot;
      if (slot < radix) {
        if (pathText.size() == pathText.capacity()) {
          // Telephone numbers need a step or two of ten characters. Keys far deeper than any
          // number grow by their own length, so a pathological key is not copied over and over.
          const std::size_t step = pathText.size() < deepPathCM ? pathStepCM : pathText.size();
          pathText.reserve(pathText.size() + step);
        }
        parents.push_back(node);
        pathText.push_back(PtrTreeDigits::character(slot));
        node = node->child(slot);
        slot = 0;
        if (node->dataM != nullptr) visit(static_cast<const BAS::String&>(path), static_cast<const T&>(*node->dataM));
        continue;
      }
      if (parents.empty()) return;
      slot = PtrTreeDigits::DIGIT_INDEX[static_cast<unsigned char>(pathText.back())] + 1;
      pathText.pop_back();
      node = parents.back();
      parents.pop_back();
    }
  }

  // PtrTree::pieces: at least `least` pieces where the trie has that many nodes within
  // `deepest` levels, cutting one level deeper at a time; walked in turn they visit the
  // payloads in the order of forEach, the root's left out.
  static std::vector<Piece> pieces(const Tree& tree, std::size_t least, std::size_t deepest) {
    std::vector<Piece> cut;
    if (tree.rootM == nullptr) return cut;
    const int radix = tree.radixM;
    appendChildPieces(*tree.rootM, std::string(), radix, cut);
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
        appendChildPieces(*piece.node, piece.key, radix, next);
      }
      cut = std::move(next);
      if (!deeper) break;
    }
    return cut;
  }

private:
  static constexpr std::size_t pathStepCM = 10;
  static constexpr std::size_t deepPathCM = 100;

  // The walk visits a node's children one after the other, and nodes lie in the order they were
  // created, not in key order; so before the first child is visited, all children, then their
  // slot arrays and payloads, then the grandchildren are requested, each round for all children
  // at once, and the cache misses of the siblings overlap.
  static void prefetchChildren(const Node* node, int radix) noexcept {
    Node* const* const slots = node->childrenM;
    if (slots == nullptr) return;
    for (int slot = 0; slot < radix; ++slot) {
      if (slots[slot] != nullptr) __builtin_prefetch(slots[slot]);
    }
    for (int slot = 0; slot < radix; ++slot) {
      if (const Node* const child = slots[slot]) {
        if (child->childrenM != nullptr) __builtin_prefetch(child->childrenM);
        if (child->dataM != nullptr) __builtin_prefetch(child->dataM);
      }
    }
    // One level further, so that the grandchildren are on their way while the children are visited.
    for (int slot = 0; slot < radix; ++slot) {
      const Node* const child = slots[slot];
      if (child == nullptr || child->childrenM == nullptr) continue;
      for (int below = 0; below < radix; ++below) {
        if (child->childrenM[below] != nullptr) __builtin_prefetch(child->childrenM[below]);
      }
    }
  }

  static void appendChildPieces(const Node& node, const std::string& key, int radix, std::vector<Piece>& out) {
    if (node.childrenM == nullptr) return;
    for (int slot = 0; slot < radix; ++slot) {
      if (const Node* const child = node.childrenM[slot]) out.push_back(Piece{child, key + PtrTreeDigits::character(slot), false});
    }
  }
};

}  // namespace PBC
