// The portability history of one number on its own, newest first: the history rules of the
// portability tree (StoredHistory) over an array and an operator table that the list owns.
// The tree keeps its histories packed in its own arenas instead; a list serves callers that
// hold one history by itself. Not synchronised: search, appendLines and printTree may run
// concurrently, inserts alone.
#pragma once

#include "store/NumberPortabilityData.h"
#include "store/OperatorTable.h"
#include "store/StoredHistory.h"
#include "store/StoredRecord.h"

#include "BAS/DateTime.h"
#include "BAS/String.h"

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {

class NumberPortabilityList {
public:
  // Ordered insertion keeping the history newest first. False, and the list unchanged, when a
  // record of the same date is already stored (the stored operator wins). Out of memory
  // propagates and leaves the previous records in place.
  bool insertAt(const NumberPortabilityData& record);
  // Appends without ordering or duplicate check; search then answers in stored order.
  void insert(const NumberPortabilityData& record);

  // True and `result` set to the first record, in stored order, valid at or before `dateTime`
  // (for an ordered history: the record that holds then). False and `result` untouched when
  // none is.
  bool search(const BAS::DateTime& dateTime, NumberPortabilityData& result) const {
    const StoredRecord* const found = StoredHistory::find(recordsM, dateTime);
    if (found == nullptr) return false;
    StoredHistory::expand(*found, operatorsM, result);
    return true;
  }

  // Appends one data-file line per record, in stored order (StoredHistory::appendLines).
  void appendLines(std::string& out, std::string_view number) const {
    StoredHistory::appendLines(recordsM, operatorsM, out, number);
  }
  // The lines of appendLines written to `out`, each flushed on its own, so that a reader of the
  // stream sees every record as soon as it is written.
  void printTree(std::ostream& out, const BAS::String& number) const;

  // Copies of the records, in stored order.
  std::vector<NumberPortabilityData> records() const;
  std::uint32_t size() const noexcept { return static_cast<std::uint32_t>(recordsM.size()); }
  bool empty() const noexcept { return recordsM.empty(); }

private:
  std::vector<StoredRecord> recordsM;
  OperatorTable operatorsM;
};

}  // namespace DAT::NumberPortability
