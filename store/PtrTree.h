// PBC::PtrTree maps keys of decimal (or hexadecimal) digits to owned payloads, one trie level
// per digit, and answers exact, shortest-prefix and all-prefixes questions. The portability
// tree holds one over number histories. No locks: searches and dumps may run concurrently,
// insert and destroy must run alone.
#pragma once

#include "store/PtrTreeNode.h"

#include "BAS/String.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

namespace PBC {

// T must be deletable through a T* and offer printTree(std::ostream&, const BAS::String& key).
template <class T>
class PtrTree {
public:
  using Node = PtrTreeNode<T>;

  // Digit value of a character code taken as unsigned byte; -1 for codes that are no digit.
  static constexpr std::array<int, 256> DIGIT_INDEX = [] {
    std::array<int, 256> index{};
    index.fill(-1);
    for (int c = '0'; c <= '9'; ++c) index[static_cast<std::size_t>(c)] = c - '0';
    for (int c = 'A'; c <= 'F'; ++c) index[static_cast<std::size_t>(c)] = c - 'A' + 10;
    for (int c = 'a'; c <= 'f'; ++c) index[static_cast<std::size_t>(c)] = c - 'a' + 10;
    return index;
  }();
  // Digit value to the character printed in keys; hexadecimal digits print in upper case.
  static constexpr std::array<char, 16> CHAR_INDEX = {'0', '1', '2', '3', '4', '5', '6', '7',
                                                      '8', '9', 'A', 'B', 'C', 'D', 'E', 'F'};

  // Radix 10 reads decimal digits; any other radix reads hexadecimal digits of either case and
  // is held as 16, so that every digit read has a slot.
  explicit PtrTree(int radix) : radixM(radix == 10 ? 10 : 16), rootM(new Node(radixM)) {}
  virtual ~PtrTree() {
    if (rootM != nullptr) destroy();
  }
  PtrTree(const PtrTree&) = delete;
  PtrTree& operator=(const PtrTree&) = delete;

  int radix() const noexcept { return radixM; }

  // Stores `payload` (owned from now on) at the node of `key`, creating missing nodes;
  // characters that are not digits are skipped, and a key without digits addresses the root.
  // A payload already stored there is released. Out of memory propagates; nodes linked in
  // before stay, without payload, and `payload` is still the caller's.
  void insert(const BAS::String& key, T* payload) {
    if (rootM == nullptr) createRoot();
    Node* node = rootM;
    for (const char c : key.view()) {
      const int digit = digitValue(c);
      if (digit >= 0) node = &node->childOrCreate(digit);
    }
    node->store(payload);
  }

  // exact true: the payload stored for exactly `key`. exact false: the payload of the shortest
  // stored prefix of `key`, the key itself included. Null when there is none, for a key
  // without digits and after destroy.
  T* search(const BAS::String& key, bool exact) const noexcept {
    const Node* node = rootM;
    if (node == nullptr) return nullptr;
    bool digitRead = false;
    for (const char c : key.view()) {
      const int digit = digitValue(c);
      if (digit < 0) continue;
      if (!exact && node->hasDataM) return node->dataM;
      node = node->child(digit);
      if (node == nullptr) return nullptr;
      digitRead = true;
    }
    return digitRead && node->hasDataM ? node->dataM : nullptr;
  }

  // Pushes the payloads of all stored prefixes of `key`, the key itself included, shortest
  // first, so that popping yields the longest first. Pushes nothing for a key without digits.
  // The stack is not emptied first.
  template <class Stack>
    requires requires(Stack& stack, T* payload) { stack.push_back(payload); }
  void search(const BAS::String& key, Stack& stack) const {
    const Node* node = rootM;
    if (node == nullptr) return;
    bool digitRead = false;
    for (const char c : key.view()) {
      const int digit = digitValue(c);
      if (digit < 0) continue;
      if (node->hasDataM) stack.push_back(node->dataM);
      node = node->child(digit);
      if (node == nullptr) return;
      digitRead = true;
    }
    if (digitRead && node->hasDataM) stack.push_back(node->dataM);
  }

  // Whether `key` has a character that this tree reads as a digit.
  bool containsDigit(const BAS::String& key) const noexcept {
    return std::ranges::any_of(key.view(), [this](char c) { return digitValue(c) >= 0; });
  }

  // Releases every node and payload. The tree has no root afterwards: searches find nothing
  // until createRoot or insert gives it a new one.
  void destroy() noexcept {
    delete rootM;
    rootM = nullptr;
  }

  // Gives a destroyed tree a new, empty root; a tree that has one keeps it.
  void createRoot() {
    if (rootM == nullptr) rootM = new Node(radixM);
  }

  // Calls each payload's printTree with its key, in lexicographic key order, a key before the
  // keys that extend it. The root's payload is not printed. Adds nothing of its own.
  void printTree(std::ostream& out) const {
    forEach([&out](const BAS::String& key, const T& payload) { payload.printTree(out, key); });
  }

  // Calls visit(key, payload) for each stored payload but the root's, in the order of printTree,
  // walking without recursion. `key` is the node's key written with CHAR_INDEX; it is valid
  // during the call only.
  template <class Visitor>
  void forEach(Visitor&& visit) const {
    if (rootM == nullptr) return;
    // The key of the node being visited, and the nodes above it; the slot to continue with in
    // a parent follows from the last character of the key.
    BAS::String path;
    std::string& pathText = path.mutableStr();
    std::vector<const Node*> parents;
    const Node* node = rootM;
    int slot = 0;
    for (;;) {
      while (slot < radixM && node->child(slot) == nullptr) ++slot;
      if (slot < radixM) {
        if (pathText.size() == pathText.capacity()) {
          // Telephone numbers need a step or two of ten characters. Keys far deeper than any
          // number grow by their own length, so a pathological key is not copied over and over.
          const std::size_t step = pathText.size() < deepPathCM ? pathStepCM : pathText.size();
          pathText.reserve(pathText.size() + step);
        }
        parents.push_back(node);
        pathText.push_back(CHAR_INDEX[static_cast<std::size_t>(slot)]);
        node = node->child(slot);
        slot = 0;
        if (node->hasDataM) visit(static_cast<const BAS::String&>(path), static_cast<const T&>(*node->dataM));
        continue;
      }
      if (parents.empty()) return;
      slot = DIGIT_INDEX[static_cast<unsigned char>(pathText.back())] + 1;
      pathText.pop_back();
      node = parents.back();
      parents.pop_back();
    }
  }

  // Number of nodes, the root included; 0 after destroy.
  std::size_t nodeCount() const {
    if (rootM == nullptr) return 0;
    std::size_t count = 0;
    std::vector<const Node*> pending{rootM};
    while (!pending.empty()) {
      const Node* const node = pending.back();
      pending.pop_back();
      ++count;
      for (int slot = 0; slot < radixM; ++slot) {
        if (const Node* const child = node->child(slot)) pending.push_back(child);
      }
    }
    return count;
  }

private:
  static constexpr std::size_t pathStepCM = 10;
  static constexpr std::size_t deepPathCM = 100;

  // The slot for character `c`, or -1 when this tree does not read it as a digit.
  int digitValue(char c) const noexcept {
    const int value = DIGIT_INDEX[static_cast<unsigned char>(c)];
    return value < radixM ? value : -1;
  }

  int radixM;
  Node* rootM;  // owned; null only between destroy and the next createRoot or insert
};

}  // namespace PBC
