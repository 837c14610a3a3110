#include "store/OperatorTable.h"

#include "store/StoredRecord.h"

#include "BAS/CapacityExceeded.h"

#include <atomic>

namespace DAT::NumberPortability {

namespace {

// The test seam's limit; 0: the records' own. Atomic, no lock: set by a test between loads.
std::atomic<std::uint32_t> limitForTestingCM{0};

}  // namespace

void OperatorTable::setLimitForTesting(std::uint32_t limit) { limitForTestingCM.store(limit); }

OperatorTable& OperatorTable::operator=(const OperatorTable& other) {
  if (this == &other) return *this;
  clear();
  for (const BAS::SimpleString& text : other.textsM) intern(text);
  lastM = other.lastM;
  return *this;
}

std::uint32_t OperatorTable::intern(std::string_view view) {
  if (lastM < textsM.size() && textsM[lastM].view() == view) return lastM;
  if (const auto found = indexM.find(view); found != indexM.end()) return lastM = found->second;
  const std::uint32_t testLimit = limitForTestingCM.load(std::memory_order_relaxed);
  if (textsM.size() >= (testLimit != 0 ? testLimit : StoredRecord::operatorLimitCM)) {
    // The limit's own words, whatever the seam set: what an operator reads is what the records hold.
    throw BAS::CapacityExceeded("more than 16,777,216 distinct operator identifiers");
  }
  const auto index = static_cast<std::uint32_t>(textsM.size());
  textsM.emplace_back(view);
  try {
    indexM.emplace(textsM.back().view(), index);
  } catch (...) {
    textsM.pop_back();
    throw;
  }
  return lastM = index;
}

void OperatorTable::clear() noexcept {
  indexM.clear();
  textsM.clear();
  lastM = 0;
}

}  // namespace DAT::NumberPortability
