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
    const Node* node = tree.root();
    if (node == nullptr) return;
    const int radix = tree.radixM;
    // The key of the node being visited, and the nodes above it; the digit to continue with in
    // a parent follows from the last character of the key.
    BAS::String path;
    std::string& pathText = path.mutableStr();
    std::vector<const Node*> parents;
    int slot = 0;
    for (;;) {
      if (slot == 0) prefetchChildren(tree, *node);
      while (slot < radix && !node->hasChild(slot)) ++slot;
      if (slot < radix) {
        if (pathText.size() == pathText.capacity()) {
          // Telephone numbers need a step or two of ten characters. Keys far deeper than any
          // number grow by their own length, so a pathological key is not copied over and over.
          const std::size_t step = pathText.size() < deepPathCM ? pathStepCM : pathText.size();
          pathText.reserve(pathText.size() + step);
        }
        pathText.push_back(PtrTreeDigits::character(slot));
        if (node->hasLeaf(slot)) {
          // A leaf is visited in place: there is nothing below it to descend into.
          if (const T* const payload = *node->leaf(tree.wordsM, slot)) visit(static_cast<const BAS::String&>(path), *payload);
          pathText.pop_back();
          ++slot;
          continue;
        }
        const Node* const child = node->inner(tree.wordsM, slot);
        if (child->isTail()) {
          // So is a tail: its one key is the only one below it.
          const std::size_t length = pathText.size();
          for (unsigned i = 0, count = child->tailLength(); i < count; ++i) {
            pathText.push_back(PtrTreeDigits::character(child->tailDigit(i)));
          }
          if (child->dataM != nullptr) visit(static_cast<const BAS::String&>(path), static_cast<const T&>(*child->dataM));
          pathText.resize(length - 1);
          ++slot;
          continue;
        }
        parents.push_back(node);
        node = child;
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
    const Node* const root = tree.root();
    if (root == nullptr) return cut;
    appendChildPieces(tree, *root, std::string(), cut);
    for (std::size_t depth = 1; depth < deepest && cut.size() < least; ++depth) {
      std::vector<Piece> next;
      next.reserve(cut.size() * 4);
      bool deeper = false;
      for (Piece& piece : cut) {
        if (piece.ownOnly || piece.node == nullptr || !piece.node->hasChildren()) {
          next.push_back(std::move(piece));
          continue;
        }
        deeper = true;
        if (piece.node->dataM != nullptr) next.push_back(Piece{piece.node, piece.key, true, piece.words});
        appendChildPieces(tree, *piece.node, piece.key, next);
      }
      cut = std::move(next);
      if (!deeper) break;
    }
    return cut;
  }

private:
  static constexpr std::size_t pathStepCM = 10;
  static constexpr std::size_t deepPathCM = 100;

  // The walk visits a node's children one after the other; they lie side by side, but their
  // payloads and their own children lie elsewhere. So before the first child is visited, the
  // children, then their payloads and child groups are requested, each round for all children
  // at once, and the cache misses of the siblings overlap.
  static void prefetchChildren(const Tree& tree, const Node& node) noexcept {
    if (!node.hasChildren()) return;
    const auto* const group = tree.wordsM + node.childrenM;
    __builtin_prefetch(group);
    __builtin_prefetch(group + node.groupWords() - 1);
    const unsigned inner = Node::bitCount(node.innerM);
    const unsigned leaves = Node::bitCount(node.leafM);
    const Node* const children = reinterpret_cast<const Node*>(group);
    for (unsigned i = 0; i < inner; ++i) {
      const Node& child = children[i];
      if (child.hasChildren()) __builtin_prefetch(tree.wordsM + child.childrenM);
      if (child.dataM != nullptr) __builtin_prefetch(child.dataM);
    }
    T* const* const payloads = reinterpret_cast<T* const*>(group + Node::wordsCM * inner);
    for (unsigned i = 0; i < leaves; ++i) {
      if (payloads[i] != nullptr) __builtin_prefetch(payloads[i]);
    }
  }

  static void appendChildPieces(const Tree& tree, const Node& node, const std::string& key, std::vector<Piece>& out) {
    for (int slot = 0; slot < tree.radixM; ++slot) {
      if (node.hasLeaf(slot)) {
        out.push_back(Piece{nullptr, key + PtrTreeDigits::character(slot), false, tree.wordsM, node.leaf(tree.wordsM, slot)});
      } else if (node.hasChild(slot)) {
        out.push_back(Piece{node.inner(tree.wordsM, slot), key + PtrTreeDigits::character(slot), false, tree.wordsM});
      }
    }
  }
};

}  // namespace PBC
