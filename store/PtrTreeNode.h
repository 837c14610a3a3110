// One node of the digit trie PBC::PtrTree: a slot per digit value and an optional owned
// payload. Only PtrTree creates, links and fills nodes; anyone may read them. A node owns its
// subtree and payload. No synchronisation: reads may run concurrently, changes must run alone.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>

namespace PBC {

template <class T>
class PtrTree;

template <class T>
class PtrTreeNode {
public:
  // A node with `fanOut` (taken as 0 to 255) empty slots and no payload. The slot array is
  // only allocated when the first child is linked, so a leaf costs no more than the node.
  explicit PtrTreeNode(int fanOut) noexcept : fanOutM(static_cast<std::uint8_t>(std::clamp(fanOut, 0, 255))) {}
  // Destroys the subtree, each child completely and in slot order, then the payload.
  virtual ~PtrTreeNode();
  PtrTreeNode(const PtrTreeNode&) = delete;
  PtrTreeNode& operator=(const PtrTreeNode&) = delete;

  // The child for digit value `digit`; null when there is none or the value has no slot.
  PtrTreeNode* child(int digit) const noexcept {
    return childrenM != nullptr && static_cast<unsigned>(digit) < fanOutM ? childrenM[digit] : nullptr;
  }
  bool hasData() const noexcept { return hasDataM; }
  // The payload, still owned by the node; null when none was stored.
  T* data() const noexcept { return dataM; }
  int fanOut() const noexcept { return fanOutM; }

private:
  friend class PtrTree<T>;

  // The child for `digit`, created with this node's fan-out when missing. `digit` is below
  // the fan-out: the tree only passes values of its radix, which is every node's fan-out.
  PtrTreeNode& childOrCreate(int digit) {
    if (childrenM == nullptr) childrenM = new PtrTreeNode*[fanOutM]();
    PtrTreeNode*& slot = childrenM[digit];
    if (slot == nullptr) slot = new PtrTreeNode(fanOutM);
    return *slot;
  }

  // Takes ownership of `payload`. A payload stored before is released: the node owns it and
  // nobody else could.
  void store(T* payload) noexcept {
    if (dataM != payload) delete dataM;
    dataM = payload;
    hasDataM = payload != nullptr;
  }

  int firstChildSlot() const noexcept {
    if (childrenM == nullptr) return -1;
    for (int slot = 0; slot < fanOutM; ++slot) {
      if (childrenM[slot] != nullptr) return slot;
    }
    return -1;
  }

  PtrTreeNode** childrenM = nullptr;  // fanOutM owned children; null means every slot is empty
  T* dataM = nullptr;                 // owned
  std::uint8_t fanOutM;
  bool hasDataM = false;
};

template <class T>
PtrTreeNode<T>::~PtrTreeNode() {
  // A subtree is as deep as its longest key, and keys of a million digits must not exhaust
  // the stack, so the subtree is taken apart without recursion and without allocating: on the
  // way down, the slot that leads to the child being visited holds the way back up instead.
  // That slot is always the node's first non-empty one, because the slots before it have been
  // emptied already. A node is deleted once it has no children left, so its own destructor
  // only releases its payload and slot array.
  if (childrenM != nullptr) {
    for (int slot = 0; slot < fanOutM; ++slot) {
      PtrTreeNode* node = std::exchange(childrenM[slot], nullptr);
      PtrTreeNode* above = this;  // the way up ends here; this node is not part of the subtree
      while (node != nullptr) {
        const int down = node->firstChildSlot();
        if (down >= 0) {
          PtrTreeNode* const below = node->childrenM[down];
          node->childrenM[down] = above;
          above = node;
          node = below;
          continue;
        }
        PtrTreeNode* next = nullptr;
        if (above != this) {
          next = above;
          above = std::exchange(above->childrenM[above->firstChildSlot()], nullptr);
        }
        delete node;
        node = next;
      }
    }
  }
  delete dataM;
  delete[] childrenM;
}

#if defined(__x86_64__)
static_assert(sizeof(PtrTreeNode<int>) == 32, "a node is its table pointer, slot array, payload and two bytes");
#endif

}  // namespace PBC
