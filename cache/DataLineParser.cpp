#include "cache/DataLineParser.h"

#include "BAS/DateTime.h"
#include "BAS/SimpleString.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

namespace DAT::NumberPortability {

namespace {

// The separators of BAS::String::split, as a table: the split looks at every character of
// every line a load reads, and one load and test per character is half the work of the
// comparisons.
constexpr std::array<bool, 256> separators = [] {
  std::array<bool, 256> table{};
  for (const unsigned char c : {' ', '\t', '\r', '\n', '\v', '\f'}) table[c] = true;
  return table;
}();
bool isSeparator(char c) { return separators[static_cast<unsigned char>(c)]; }

// Whether `text` begins with `prefix`. The codes are a few characters long, and a call to
// memcmp for each of them cost more than the comparison.
bool startsWith(std::string_view text, std::string_view prefix) {
  if (prefix.size() > text.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i) {
    if (text[i] != prefix[i]) return false;
  }
  return true;
}

}  // namespace

DataLineParser::DataLineParser(const BAS::String& nationalAccessCode, const BAS::String& internationalAccessCode,
                               const BAS::String& countryCode, const BAS::String& internationalAccessCodeSign,
                               unsigned int numberOfColumns)
    : nationalAccessCodeM(nationalAccessCode),
      internationalAccessCodeM(internationalAccessCode),
      countryCodeM(countryCode),
      internationalAccessCodeSignM(internationalAccessCodeSign),
      numberOfColumnsM(numberOfColumns) {}

DataLineParser::StoredForm DataLineParser::storedForm(std::string_view number) const {
  if (number.empty()) return {true, true, 0};
  if (startsWith(number, internationalAccessCodeSignM.view())) return {true, false, internationalAccessCodeSignM.length()};
  if (startsWith(number, internationalAccessCodeM.view())) return {};  // already in the stored form
  if (startsWith(number, nationalAccessCodeM.view())) return {true, true, nationalAccessCodeM.length()};
  return {true, true, 0};
}

void DataLineParser::normalize(BAS::String& number) const {
  // In place, without temporaries: a check of a data file normalises every line.
  std::string& text = number.mutableStr();
  const StoredForm form = storedForm(text);
  if (!form.accessCodeM) return;
  const std::string_view iac = internationalAccessCodeM.view();
  text.replace(0, form.keptFromM, iac);
  if (form.countryCodeM) text.insert(iac.size(), countryCodeM.view());
}

std::size_t DataLineParser::split(std::string_view line, Field (&fields)[columnsRoomCM]) {
  // As String::split finds them (runs of white space separate, none at either end); counted to
  // the end, because a rejected line reports how many it has. Split fields hold no blank, so
  // trimming them changes nothing.
  std::size_t count = 0;
  const char* p = line.data();
  const char* const end = p + line.size();
  while (true) {
    while (p != end && isSeparator(*p)) ++p;
    if (p == end) break;
    const char* const start = p;
    while (p != end && !isSeparator(*p)) ++p;
    if (count < columnsRoomCM) fields[count] = Field{start, static_cast<std::size_t>(p - start)};
    ++count;
  }
  return count;
}

bool DataLineParser::parse(std::string_view line, unsigned long lineNumber, const BAS::String& fileName,
                           BAS::String& number, NumberPortabilityData& record, Rejection* rejection) const {
  Field fields[columnsRoomCM];
  const std::size_t count = split(line, fields);
  if (count != numberOfColumnsM || count < 3) {
    if (rejection != nullptr) {
      *rejection = {"ERR_NUMBER_OF_FIELDS_IN_RECORD",
                    {BAS::String::decimal(count), BAS::String::decimal(numberOfColumnsM), BAS::String(line),
                     location("At Line# ", lineNumber, fileName)}};
    }
    return false;
  }
  number.assign(fields[0].begin, fields[0].size);
  normalize(number);
  const BAS::DateTime validFrom(fields[1].view());
  if (!(validFrom.secs() < BAS::DateTime::invalidSecsCM)) {
    if (rejection != nullptr) {
      *rejection = {"ERR_INVALID_DATETIME",
                    {location("Invalid N-Port Data at Line# ", lineNumber, fileName), BAS::String(fields[1].view()), number}};
    }
    return false;
  }
  record.validFromM = validFrom;
  record.networkOperatorM = BAS::SimpleString(fields[2].view());
  return true;
}

bool DataLineParser::accept(std::string_view line, Accepted& accepted, std::span<char> room) const {
  Field fields[columnsRoomCM];
  const std::size_t count = split(line, fields);
  if (count != numberOfColumnsM || count < 3) return false;
  accepted.validFromM = BAS::DateTime(fields[1].view());
  if (!(accepted.validFromM.secs() < BAS::DateTime::invalidSecsCM)) return false;
  accepted.networkOperatorM = fields[2].view();
  const std::string_view text = fields[0].view();
  const StoredForm form = storedForm(text);
  const std::string_view iac = form.accessCodeM ? internationalAccessCodeM.view() : std::string_view();
  const std::string_view countryCode = form.countryCodeM ? countryCodeM.view() : std::string_view();
  const std::string_view kept = text.substr(form.keptFromM);
  const std::size_t size = iac.size() + countryCode.size() + kept.size();
  char* into = room.data();
  if (size > room.size()) {
    accepted.spillM.resize(size);
    into = accepted.spillM.data();
  }
  char* p = into;
  for (const std::string_view piece : {iac, countryCode, kept}) p = std::copy(piece.begin(), piece.end(), p);
  accepted.numberM = std::string_view(into, size);
  return true;
}

BAS::String DataLineParser::location(const char* prefix, unsigned long lineNumber, const BAS::String& fileName) {
  BAS::String text(prefix);
  text += BAS::String::decimal(lineNumber);
  text += " in File '";
  text += fileName;
  text += "'. ";
  return text;
}

}  // namespace DAT::NumberPortability
