// DAT::NumberPortability::RecordChunk holds up to millions of parsed data lines, compactly, for
// NumberPortabilityTree::insertChunk: each number's digits as a PBC::DigitKey beside its record,
// a StoredRecord whose operator index points into the chunk's own OperatorTable. sort() orders
// them by number, the order of add kept among equal numbers, which is what lets a tree build
// itself in one pass, reading the chunk front to back. The cache manager fills one per file it
// reads. Used by one thread at a time; once sorted, any number of trees may read it at once.
#pragma once

#include "store/DigitKey.h"
#include "store/LargeArray.h"
#include "store/NumberPortabilityData.h"
#include "store/OperatorTable.h"
#include "store/StoredRecord.h"

#include "BAS/String.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace DAT::NumberPortability {

class RecordChunk {
public:
  // What add needs to know of a number, worked out by any thread: its key, whether it has more
  // digits than a key holds, and whether a message needs its text (it is more than its digits).
  struct Number {
    PBC::DigitKey keyM;
    bool keyedM = false;
    bool textualM = false;
  };
  static Number pack(std::string_view number) noexcept {
    Number packed;
    packed.keyedM = PBC::DigitKey::pack(number, packed.keyM);
    // A number of digits only, sixteen at most, is written back from its key's high word alone.
    packed.textualM = !packed.keyedM || packed.keyM.low() != 0 || packed.keyM.length() != number.size();
    return packed;
  }

  // The index in operators() of an operator text, added when new. Out of memory propagates,
  // and so does a full table (as BAS::CapacityExceeded).
  std::uint32_t intern(const BAS::SimpleString& text) { return operatorsM.intern(text); }
  // Adds `record` (its operator index from intern) of a number that pack gave `number` for;
  // `text` is the number, read only when number.textualM. Its index is the number of records
  // added before. Out of memory propagates.
  void add(const Number& number, std::string_view text, const StoredRecord& record);
  // Adds the record of `number` (the stored form), as pack, intern and add do.
  void add(std::string_view number, const NumberPortabilityData& record) {
    add(pack(number), number, StoredRecord(record.validFromM, intern(record.networkOperatorM)));
  }
  std::size_t size() const noexcept { return keyedM.size() + unkeyedM.size(); }
  bool empty() const noexcept { return size() == 0; }
  // Forgets every record and keeps the memory for the next fill.
  void clear() noexcept;
  // Forgets every record and returns all of its memory to the system at once, the arrays that
  // sort() uses included, so that the process's resident memory after a load is the trees'.
  void release() noexcept;

  // Orders the records by number, in the order of add among equal numbers.
  void sort();

  // The records are read by place: places below keyedCount() are the records whose number has
  // at most DigitKey::maxDigitsCM digits, in sorted order once sort() ran; the places after
  // them hold the numbers with more digits, in the order of add.
  std::size_t keyedCount() const noexcept { return keyedM.size(); }
  PBC::DigitKey key(std::size_t place) const noexcept {
    const Entry& entry = keyedM[place];
    return PBC::DigitKey(entry.highM, entry.lowM == 0 ? 0 : lowsM[entry.lowM - 1]);
  }
  // The record at `place`, its operator index into operators(); its index in the order of add.
  const StoredRecord& stored(std::size_t place) const noexcept { return entry(place).recordM; }
  std::uint32_t index(std::size_t place) const noexcept { return entry(place).indexM; }
  const OperatorTable& operators() const noexcept { return operatorsM; }
  // The number at `place` as it was added, and its record, for a message.
  BAS::String number(std::size_t place) const;
  NumberPortabilityData record(std::size_t place) const;

private:
  // One record: the high word of its key, its index, where the low word of its key is (0: the
  // low word is 0, else its place in lowsM plus one), and the record itself, so that a sorted
  // chunk is read front to back.
  struct Entry {
    std::uint64_t highM;
    std::uint32_t indexM;
    std::uint32_t lowM;
    StoredRecord recordM;
  };

  const Entry& entry(std::size_t place) const noexcept {
    return place < keyedM.size() ? keyedM[place] : unkeyedM[place - keyedM.size()];
  }

  PBC::LargeArray<Entry> keyedM;     // in the order of add, then of sort()
  PBC::LargeArray<Entry> spareM;     // sort()'s second array, kept for the next chunk's sort
  std::vector<Entry> unkeyedM;       // numbers of more digits than a key holds
  std::vector<std::uint64_t> lowsM;  // the low words that are not 0 (numbers of more than 16 digits)
  std::uint64_t firstHighM = 0;      // the high word of the first keyed record
  std::uint64_t differM = 0;         // the bits in which a keyed record's high word differs from it
  // The numbers that are not just their digits (other characters, or more than sixteen
  // digits), by index, so that a message can name them as they were added.
  std::vector<std::pair<std::uint32_t, std::string>> textsM;
  OperatorTable operatorsM;
};

}  // namespace DAT::NumberPortability
