// The portability history of one number, newest record first, in an array of exactly its
// length. The portability tree creates, fills and searches one per stored number and owns it
// through its trie. Not synchronised: search and printTree may run concurrently, inserts alone.
#pragma once

#include "store/NumberPortabilityData.h"

#include "BAS/DateTime.h"
#include "BAS/String.h"

#include <cstdint>
#include <iosfwd>
#include <span>

namespace DAT::NumberPortability {

class NumberPortabilityList {
public:
  NumberPortabilityList() noexcept = default;
  ~NumberPortabilityList() { delete[] recordsM; }
  NumberPortabilityList(const NumberPortabilityList&) = delete;
  NumberPortabilityList& operator=(const NumberPortabilityList&) = delete;

  // Ordered insertion keeping the history newest first. False, and the list unchanged, when a
  // record of the same date is already stored (the stored operator wins). Out of memory
  // propagates and leaves the previous records in place.
  bool insertAt(const NumberPortabilityData& record);
  // Appends without ordering or duplicate check; search then answers in stored order.
  void insert(const NumberPortabilityData& record);

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

  // Writes one data-file line per record, in stored order: the number and the operator with
  // blanks trimmed, the date as 14 digits in UTC, columns separated by two blanks. Each line
  // is flushed on its own. An empty history writes nothing.
  void printTree(std::ostream& out, const BAS::String& number) const;

  std::span<const NumberPortabilityData> records() const noexcept { return {recordsM, countM}; }
  std::uint32_t size() const noexcept { return countM; }
  bool empty() const noexcept { return countM == 0; }

private:
  // Replaces the array by one of count + 1 records, the old records copied by assignment
  // around index `gap`, which is left for the caller to fill. Returns the gap's record.
  NumberPortabilityData& growAround(std::uint32_t gap);

  NumberPortabilityData* recordsM = nullptr;  // owned; null exactly when countM is 0
  std::uint32_t countM = 0;
};

static_assert(sizeof(NumberPortabilityList) == 16, "a history is one pointer and a count");

}  // namespace DAT::NumberPortability
