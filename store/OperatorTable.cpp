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
  return *this;
}

OperatorTable::Short OperatorTable::shortOf(std::string_view text) noexcept {
  Short found;
  found.lengthM = static_cast<std::uint32_t>(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) found.wordM |= std::uint64_t{static_cast<unsigned char>(text[i])} << (8 * i);
  found.placeM = static_cast<std::uint32_t>(((found.wordM + found.lengthM) * 0x9E3779B97F4A7C15u) >> (64 - cacheBitsCM));
  return found;
}

std::uint32_t OperatorTable::intern(std::string_view view) {
  if (view.size() > sizeof(std::uint64_t)) return internInMap(view);
  const Short text = shortOf(view);
  Cached& cached = cacheM[text.placeM];
  if (cached.indexM != 0 && cached.wordM == text.wordM && cached.lengthM == text.lengthM) return cached.indexM - 1;
  const std::uint32_t index = internInMap(view);
  cached = Cached{text.wordM, text.lengthM, index + 1};
  return index;
}

std::uint32_t OperatorTable::internInMap(std::string_view view) {
  if (const auto found = indexM.find(view); found != indexM.end()) return found->second;
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
  return index;
}

void OperatorTable::clear() noexcept {
  indexM.clear();
  textsM.clear();
  cacheM.fill(Cached{});
}

}  // namespace DAT::NumberPortability
