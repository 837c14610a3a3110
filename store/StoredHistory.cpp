#include "store/StoredHistory.h"

#include <algorithm>

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

}  // namespace

std::uint32_t StoredHistory::findPosition(std::span<const StoredRecord> records, const BAS::DateTime& dateTime) noexcept {
  const BAS::DateTime::Secs secs = dateTime.secs();
  std::uint32_t position = 0;
  for (const StoredRecord& stored : records) {
    if (stored.secs() == secs) return takenCM;
    if (stored.secs() < secs) break;
    ++position;
  }
  return position;
}

void StoredHistory::appendLines(std::span<const StoredRecord> records, const OperatorTable& operators,
                                std::string& out, std::string_view number) {
  const std::string_view key = trimBlanks(number);
  for (const StoredRecord& record : records) {
    const std::string_view networkOperator = trimBlanks(operators.text(record.operatorIndex()).view());
    char date[dateWidthCM];
    const std::string_view dateText(date, record.validFrom().writeCompact(date));
    // One growth and plain copies per line rather than an append per column: a dump writes
    // tens of millions of lines.
    const std::size_t start = out.size();
    out.resize(start + key.size() + dateText.size() + networkOperator.size() + 2 * columnGapCM.size() + 1);
    char* at = out.data() + start;
    for (const std::string_view part : {key, columnGapCM, dateText, columnGapCM, networkOperator}) {
      at = std::copy(part.begin(), part.end(), at);
    }
    *at = '\n';
  }
}

}  // namespace DAT::NumberPortability
