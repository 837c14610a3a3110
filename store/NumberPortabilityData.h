// One portability record: from validFromM on, the number is served by networkOperatorM.
// The loader builds them, histories store them in a compact form (StoredRecord) and lookups hand out
// copies. A value type without shared state; records are compared by their date alone.
#pragma once

#include "BAS/DateTime.h"
#include "BAS/SimpleString.h"

#include <compare>
#include <iosfwd>

namespace DAT::NumberPortability {

class NumberPortabilityData {
public:
  // The invalid date-time and an empty operator. Such a record only exists for a moment while
  // a history grows, before a real record is assigned to it.
  NumberPortabilityData() noexcept = default;
  NumberPortabilityData(const BAS::DateTime& validFrom, const BAS::SimpleString& networkOperator)
      : validFromM(validFrom), networkOperatorM(networkOperator) {}
  NumberPortabilityData(const NumberPortabilityData& other) = default;
  ~NumberPortabilityData() = default;

  NumberPortabilityData& operator=(const NumberPortabilityData& other) {
    if (this != &other) {
      validFromM = other.validFromM;
      networkOperatorM = other.networkOperatorM;
    }
    return *this;
  }

  // Only the date takes part: a history holds at most one record per date, whatever the
  // operator. Weak ordering, since records of equal date may still differ in their operator.
  friend bool operator==(const NumberPortabilityData& a, const NumberPortabilityData& b) noexcept {
    return a.validFromM == b.validFromM;
  }
  friend std::weak_ordering operator<=>(const NumberPortabilityData& a, const NumberPortabilityData& b) noexcept {
    return a.validFromM <=> b.validFromM;
  }

  // Public: processing modules read both fields of a found record.
  BAS::DateTime validFromM;
  BAS::SimpleString networkOperatorM;
};

static_assert(sizeof(NumberPortabilityData) == 24, "a record is a date-time and an inline operator text");

// Diagnostic form "(<date-time> <operator>)", no newline; the data dump does not use it.
std::ostream& operator<<(std::ostream& out, const NumberPortabilityData& record);

}  // namespace DAT::NumberPortability
