// Bench::ReferenceTrie is the digit trie of portability histories written the plain way, kept
// as the yardstick for the store's memory and speed: every node is a heap object with a vector
// of ten child pointers, and every number has a heap vector of records with a std::string
// operator. Same answers as the store. Not synchronised: searches may overlap, inserts not.
#pragma once

#include "BAS/DateTime.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Bench {

class ReferenceTrie {
public:
  static constexpr int radixCM = 10;
  // The same values as the store's search methods; any other value searches as ANY_PREFIX_MATCH.
  static constexpr unsigned bestMatchCM = 0;
  static constexpr unsigned exactMatchCM = 1;
  static constexpr unsigned anyPrefixMatchCM = 2;

  struct Record {
    BAS::DateTime validFromM;
    std::string networkOperatorM;
  };
  using History = std::vector<Record>;  // newest first
  struct Node {
    Node() : childrenM(radixCM, nullptr) {}
    std::vector<Node*> childrenM;
    History* historyM = nullptr;  // owned; null for a node that is only a path
  };
  // What the trie is made of, for memory models: nodes (root included), nodes with at least
  // one child, numbers, records, and how many histories have each length (index = length).
  struct Shape {
    std::size_t nodesM = 0;
    std::size_t innerNodesM = 0;
    std::size_t numbersM = 0;
    std::size_t recordsM = 0;
    std::size_t recordCapacityM = 0;
    std::vector<std::size_t> historiesByLengthM;
  };

  ReferenceTrie() : rootM(new Node) {}
  ~ReferenceTrie();
  ReferenceTrie(const ReferenceTrie&) = delete;
  ReferenceTrie& operator=(const ReferenceTrie&) = delete;

  // Adds the record to the history of `number` (non-digits skipped), keeping it newest first.
  // False when the history already has a record of that date, or the number has no digit.
  bool insert(std::string_view number, const BAS::DateTime& validFrom, std::string_view networkOperator);

  // The record that holds for `number` at `dateTime` under `method`, or null.
  const Record* search(std::string_view number, const BAS::DateTime& dateTime, unsigned method) const;

  // Releases every node and record; the trie is empty and usable afterwards.
  void clear();

  std::size_t recordCount() const { return recordCountM; }
  Shape shape() const;

private:
  static int digitValue(char c) { return c >= '0' && c <= '9' ? c - '0' : -1; }
  static const Record* holding(const History& history, const BAS::DateTime& dateTime);

  Node* rootM;  // owned, never null
  std::size_t recordCountM = 0;
};

}  // namespace Bench
