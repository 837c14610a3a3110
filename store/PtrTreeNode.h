// One node of the digit trie PBC::PtrTree: its slot array (one child per digit value, in a
// separate block that only inner nodes have) and its payload. Only PtrTree and its walks create,
// link and fill nodes, in memory that the tree owns; anyone may read them. No synchronisation:
// reads may run concurrently, changes must run alone.
//
// No virtual table and no fan-out: every node of a tree has the tree's radix as its fan-out,
// and nodes are taken apart with their tree's memory, never one by one. That keeps a node at
// two pointers, and ten million of them at 160 MB instead of 320 MB.
#pragma once

namespace PBC {

template <class T, class Release>
class PtrTree;
template <class T, class Release>
class PtrTreeBatchWalk;
template <class T, class Release>
class PtrTreeKeyOrderWalk;
template <class T>
class PtrTreeWalker;

template <class T>
class PtrTreeNode {
public:
  // The child for digit value `digit`, which must be below the tree's radix; null when there is none.
  PtrTreeNode* child(int digit) const noexcept { return childrenM != nullptr ? childrenM[digit] : nullptr; }
  bool hasData() const noexcept { return dataM != nullptr; }
  // The payload, still owned by the tree; null when none was stored.
  T* data() const noexcept { return dataM; }
  bool hasChildren() const noexcept { return childrenM != nullptr; }

private:
  // The trie and its walks, which read and link nodes on the hot paths without accessors.
  template <class, class>
  friend class PtrTree;
  template <class, class>
  friend class PtrTreeBatchWalk;
  template <class, class>
  friend class PtrTreeKeyOrderWalk;
  template <class>
  friend class PtrTreeWalker;

  PtrTreeNode() noexcept = default;

  PtrTreeNode** childrenM = nullptr;  // radix slots in the tree's memory; null means every slot is empty
  T* dataM = nullptr;                 // owned through the tree's release policy
};

static_assert(sizeof(PtrTreeNode<int>) == 2 * sizeof(void*), "a node is its slot array and its payload");

}  // namespace PBC
