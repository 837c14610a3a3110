// One record as a portability tree or a history list stores it: the valid-from date-time in 40
// bits and the index of the operator text in the owner's OperatorTable in 24, eight bytes in
// two 32-bit halves instead of the 24 of a NumberPortabilityData, so that a record array needs
// only 4-byte alignment. Lookups turn the record they find back into a NumberPortabilityData.
// A value type without shared state.
#pragma once

#include "BAS/DateTime.h"

#include <cstdint>

namespace DAT::NumberPortability {

class StoredRecord {
public:
  // Operator indexes below this fit; an owner with more distinct operator texts than that
  // throws BAS::CapacityExceeded, an allocation failure that names the limit.
  static constexpr std::uint32_t operatorLimitCM = std::uint32_t{1} << 24;

  StoredRecord() noexcept = default;
  // Every date-time from year 1 to 9999 fits in 40 bits; anything above (the invalid
  // date-time) is kept as the one value that reads back as invalid.
  StoredRecord(const BAS::DateTime& validFrom, std::uint32_t operatorIndex) noexcept {
    const BAS::DateTime::Secs secs = validFrom.secs() < secsLimitCM ? validFrom.secs() : secsLimitCM;
    lowM = static_cast<std::uint32_t>(secs);
    highM = static_cast<std::uint32_t>(secs >> 32) | (operatorIndex << 8);
  }

  BAS::DateTime::Secs secs() const noexcept {
    const BAS::DateTime::Secs secs = (BAS::DateTime::Secs{highM & 0xFFu} << 32) | lowM;
    return secs == secsLimitCM ? BAS::DateTime::invalidSecsCM : secs;
  }
  BAS::DateTime validFrom() const noexcept { return BAS::DateTime::fromSecs(secs()); }
  std::uint32_t operatorIndex() const noexcept { return highM >> 8; }

  // The record as one word, operator index in the top 24 bits, and back: for an owner that
  // keeps a record where a word fits (StoredHistory's single-record form).
  std::uint64_t word() const noexcept { return std::uint64_t{highM} << 32 | lowM; }
  static StoredRecord fromWord(std::uint64_t word) noexcept {
    StoredRecord record;
    record.lowM = static_cast<std::uint32_t>(word);
    record.highM = static_cast<std::uint32_t>(word >> 32);
    return record;
  }

private:
  static constexpr BAS::DateTime::Secs secsLimitCM = (BAS::DateTime::Secs{1} << 40) - 1;

  std::uint32_t lowM = 0;   // the low 32 bits of the seconds
  std::uint32_t highM = 0;  // the high 8 bits of the seconds, then the operator index
};

static_assert(sizeof(StoredRecord) == 8 && alignof(StoredRecord) == 4, "a record is two 32-bit words");

}  // namespace DAT::NumberPortability
