#include "store/NumberPortabilityList.h"

#include "store/HistoryArena.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

namespace DAT::NumberPortability {

namespace {

// Blanks only, as BAS::String::trim: a tabulator would not survive the data file's split anyway.
std::string_view trimBlanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

constexpr std::size_t dateWidthCM = 14;
constexpr std::string_view columnGapCM = "  ";

// One data-file line for `record` of the number `key` (trimmed already).
void appendLine(std::string& out, std::string_view key, const NumberPortabilityData& record) {
  const std::string_view networkOperator = trimBlanks(record.networkOperatorM.view());
  char date[dateWidthCM];
  const std::size_t dateLength = record.validFromM.writeCompact(date);
  out.append(key);
  out.append(columnGapCM);
  out.append(date, dateLength);
  out.append(columnGapCM);
  out.append(networkOperator);
  out.push_back('\n');
}

}  // namespace

void NumberPortabilityList::growWith(std::uint32_t gap, const NumberPortabilityData& record, HistoryArena* arena) {
  // A count that no longer fits is an array that cannot be had: report it like any other
  // allocation failure.
  if (countM == std::numeric_limits<std::uint32_t>::max()) throw std::bad_array_new_length();
  const std::uint32_t newCount = countM + 1;
  // Everything that can fail comes first, so that a failure leaves the list as it was.
  NumberPortabilityData copy(record);
  NumberPortabilityData* const grown =
      arena != nullptr ? arena->allocate(newCount)
                       : static_cast<NumberPortabilityData*>(::operator new(newCount * sizeof(NumberPortabilityData)));
  // Records are moved bytewise: a date-time and a text whose heap block, if any, moves along.
  if (countM != 0) {
    std::memcpy(static_cast<void*>(grown), recordsM, gap * sizeof(NumberPortabilityData));
    std::memcpy(static_cast<void*>(grown + gap + 1), recordsM + gap, (countM - gap) * sizeof(NumberPortabilityData));
  }
  NumberPortabilityData* const slot = ::new (static_cast<void*>(grown + gap)) NumberPortabilityData();
  slot->validFromM = copy.validFromM;
  slot->networkOperatorM = std::move(copy.networkOperatorM);
  if (arena != nullptr) {
    arena->release(recordsM, countM);
  } else {
    ::operator delete(recordsM);
  }
  inArenaM = arena != nullptr;
  recordsM = grown;
  countM = newCount;
}

void NumberPortabilityList::releaseHeapArray() noexcept {
  std::destroy_n(recordsM, countM);
  ::operator delete(recordsM);
  recordsM = nullptr;
  countM = 0;
}

void NumberPortabilityList::releaseRecords() noexcept {
  std::destroy_n(recordsM, countM);
  recordsM = nullptr;
  countM = 0;
}

bool NumberPortabilityList::insertAt(const NumberPortabilityData& record, HistoryArena* arena) {
  std::uint32_t position = 0;
  for (const NumberPortabilityData& stored : records()) {
    if (stored == record) return false;
    if (stored < record) break;
    ++position;
  }
  growWith(position, record, arena);
  return true;
}

void NumberPortabilityList::insert(const NumberPortabilityData& record, HistoryArena* arena) {
  growWith(countM, record, arena);
}

void NumberPortabilityList::appendLines(std::string& out, std::string_view number) const {
  const std::string_view key = trimBlanks(number);
  for (const NumberPortabilityData& record : records()) appendLine(out, key, record);
}

void NumberPortabilityList::printTree(std::ostream& out, const BAS::String& number) const {
  const std::string_view key = trimBlanks(number.view());
  std::string line;
  for (const NumberPortabilityData& record : records()) {
    line.clear();
    appendLine(line, key, record);
    out.write(line.data(), static_cast<std::streamsize>(line.size()));
    out.flush();
  }
}

}  // namespace DAT::NumberPortability
