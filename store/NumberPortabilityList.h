// The portability history of one number, newest record first, in an array of exactly its
// length. The portability tree creates, fills and searches one per stored number; its lists
// take their arrays from the tree's HistoryArena, and the tree drops them all at once. A list
// filled without an arena (the one-argument inserts) owns a heap array and frees it itself.
// Not synchronised: search, appendLines and printTree may run concurrently, inserts alone.
#pragma once

#include "store/NumberPortabilityData.h"

#include "BAS/DateTime.h"
#include "BAS/String.h"

#include <cstdint>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>

namespace DAT::NumberPortability {

class HistoryArena;

class NumberPortabilityList {
public:
  NumberPortabilityList() noexcept = default;
  ~NumberPortabilityList() {
    if (!inArenaM) releaseHeapArray();
  }
  NumberPortabilityList(const NumberPortabilityList&) = delete;
  NumberPortabilityList& operator=(const NumberPortabilityList&) = delete;

  // Ordered insertion keeping the history newest first. False, and the list unchanged, when a
  // record of the same date is already stored (the stored operator wins). Out of memory
  // propagates and leaves the previous records in place.
  // With an arena, the arrays come from it (and a list must then always be given the same one).
  bool insertAt(const NumberPortabilityData& record, HistoryArena* arena = nullptr);
  // Appends without ordering or duplicate check; search then answers in stored order.
  void insert(const NumberPortabilityData& record, HistoryArena* arena = nullptr);

  // For a list filled from an arena that is about to be reset: ends the records' lives (their
  // operator texts may own heap blocks) and leaves the list empty. The array stays the arena's.
  void releaseRecords() noexcept;

  // True and `result` set to the first record, in stored order, valid at or before `dateTime`
  // (for an ordered history: the record that holds then). False and `result` untouched when
  // none is. Inline, because it is part of every lookup.
  bool search(const BAS::DateTime& dateTime, NumberPortabilityData& result) const {
    for (const NumberPortabilityData& record : records()) {
      if (record.validFromM <= dateTime) {
        result = record;
        return true;
      }
    }
    return false;
  }

  // Appends one data-file line per record, in stored order: the number and the operator with
  // blanks trimmed, the date as 14 digits in UTC, columns separated by two blanks. An empty
  // history appends nothing. The tree's dump collects the lines of many numbers this way
  // before it writes them.
  void appendLines(std::string& out, std::string_view number) const;
  // The lines of appendLines written to `out`, each flushed on its own, so that a reader of the
  // stream sees every record as soon as it is written. The digit trie's printTree calls it with
  // the key of the node that holds the history.
  void printTree(std::ostream& out, const BAS::String& number) const;

  // Asks the processor for the records, for a dump that will read many histories in a row.
  void prefetch() const noexcept { __builtin_prefetch(recordsM); }

  std::span<const NumberPortabilityData> records() const noexcept { return {recordsM, countM}; }
  std::uint32_t size() const noexcept { return countM; }
  bool empty() const noexcept { return countM == 0; }

private:
  // Replaces the array by one of count + 1 records with `record` at index `gap` and the old
  // records moved around it. Out of memory propagates with the list unchanged.
  void growWith(std::uint32_t gap, const NumberPortabilityData& record, HistoryArena* arena);
  void releaseHeapArray() noexcept;

  NumberPortabilityData* recordsM = nullptr;  // null exactly when countM is 0; owned unless inArenaM
  std::uint32_t countM = 0;
  bool inArenaM = false;  // the array belongs to the tree's HistoryArena
};

static_assert(sizeof(NumberPortabilityList) == 16, "a history is one pointer, a count and a flag");

}  // namespace DAT::NumberPortability
