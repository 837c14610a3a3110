#include "bench/ReferenceTrie.h"

#include <algorithm>

namespace Bench {

ReferenceTrie::~ReferenceTrie() {
  clear();
  delete rootM;
}

bool ReferenceTrie::insert(std::string_view number, const BAS::DateTime& validFrom, std::string_view networkOperator) {
  if (std::none_of(number.begin(), number.end(), [](char c) { return digitValue(c) >= 0; })) return false;
  Node* node = rootM;
  for (const char c : number) {
    const int digit = digitValue(c);
    if (digit < 0) continue;
    Node*& child = node->childrenM[static_cast<std::size_t>(digit)];
    if (child == nullptr) child = new Node;
    node = child;
  }
  if (node->historyM == nullptr) node->historyM = new History;
  History& history = *node->historyM;
  const auto position = std::find_if(history.begin(), history.end(),
                                     [&](const Record& record) { return record.validFromM <= validFrom; });
  if (position != history.end() && position->validFromM == validFrom) return false;
  history.insert(position, Record{validFrom, std::string(networkOperator)});
  ++recordCountM;
  return true;
}

const ReferenceTrie::Record* ReferenceTrie::holding(const History& history, const BAS::DateTime& dateTime) {
  for (const Record& record : history) {
    if (record.validFromM <= dateTime) return &record;
  }
  return nullptr;
}

const ReferenceTrie::Record* ReferenceTrie::search(std::string_view number, const BAS::DateTime& dateTime,
                                                   unsigned method) const {
  const Node* node = rootM;
  bool digitRead = false;
  if (method == exactMatchCM) {
    for (const char c : number) {
      const int digit = digitValue(c);
      if (digit < 0) continue;
      node = node->childrenM[static_cast<std::size_t>(digit)];
      if (node == nullptr) return nullptr;
      digitRead = true;
    }
    return digitRead && node->historyM != nullptr ? holding(*node->historyM, dateTime) : nullptr;
  }
  if (method != bestMatchCM) {
    for (const char c : number) {
      const int digit = digitValue(c);
      if (digit < 0) continue;
      if (node->historyM != nullptr) return holding(*node->historyM, dateTime);
      node = node->childrenM[static_cast<std::size_t>(digit)];
      if (node == nullptr) return nullptr;
      digitRead = true;
    }
    return digitRead && node->historyM != nullptr ? holding(*node->historyM, dateTime) : nullptr;
  }
  // Longest prefix first: remember every history on the way down, then try them backwards.
  std::vector<const History*> prefixes;
  for (const char c : number) {
    const int digit = digitValue(c);
    if (digit < 0) continue;
    if (node->historyM != nullptr) prefixes.push_back(node->historyM);
    node = node->childrenM[static_cast<std::size_t>(digit)];
    if (node == nullptr) break;
    digitRead = true;
  }
  if (node != nullptr && digitRead && node->historyM != nullptr) prefixes.push_back(node->historyM);
  for (auto it = prefixes.rbegin(); it != prefixes.rend(); ++it) {
    if (const Record* record = holding(**it, dateTime)) return record;
  }
  return nullptr;
}

void ReferenceTrie::clear() {
  std::vector<Node*> pending;
  for (Node*& child : rootM->childrenM) {
    if (child != nullptr) pending.push_back(child);
    child = nullptr;
  }
  delete rootM->historyM;
  rootM->historyM = nullptr;
  while (!pending.empty()) {
    Node* const node = pending.back();
    pending.pop_back();
    for (Node* const child : node->childrenM) {
      if (child != nullptr) pending.push_back(child);
    }
    delete node->historyM;
    delete node;
  }
  recordCountM = 0;
}

ReferenceTrie::Shape ReferenceTrie::shape() const {
  Shape shape;
  std::vector<const Node*> pending{rootM};
  while (!pending.empty()) {
    const Node* const node = pending.back();
    pending.pop_back();
    ++shape.nodesM;
    bool inner = false;
    for (const Node* const child : node->childrenM) {
      if (child == nullptr) continue;
      pending.push_back(child);
      inner = true;
    }
    if (inner) ++shape.innerNodesM;
    if (node->historyM != nullptr) {
      const std::size_t length = node->historyM->size();
      ++shape.numbersM;
      shape.recordsM += length;
      shape.recordCapacityM += node->historyM->capacity();
      if (shape.historiesByLengthM.size() <= length) shape.historiesByLengthM.resize(length + 1, 0);
      ++shape.historiesByLengthM[length];
    }
  }
  return shape;
}

}  // namespace Bench
