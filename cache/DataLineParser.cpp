#include "cache/DataLineParser.h"

#include "BAS/DateTime.h"
#include "BAS/SimpleString.h"

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

// A field found by the split. Left unset until found: a line's fields are few, and setting
// every entry of the room beforehand cost more than the split of a short line.
struct Field {
  const char* begin;
  std::size_t size;
  std::string_view view() const { return {begin, size}; }
};

}  // namespace

DataLineParser::DataLineParser(const BAS::String& nationalAccessCode, const BAS::String& internationalAccessCode,
                               const BAS::String& countryCode, const BAS::String& internationalAccessCodeSign,
                               unsigned int numberOfColumns)
    : nationalAccessCodeM(nationalAccessCode),
      internationalAccessCodeM(internationalAccessCode),
      countryCodeM(countryCode),
      internationalAccessCodeSignM(internationalAccessCodeSign),
      numberOfColumnsM(numberOfColumns) {}

void DataLineParser::normalize(BAS::String& number) const {
  // In place, without temporaries: the loaders normalise every line of a data file.
  std::string& text = number.mutableStr();
  const std::string_view iac = internationalAccessCodeM.view();
  const std::string_view countryCode = countryCodeM.view();
  const std::string_view sign = internationalAccessCodeSignM.view();
  const std::string_view national = nationalAccessCodeM.view();
  if (text.empty()) {
    text.assign(iac);
    text.append(countryCode);
  } else if (text.starts_with(sign)) {
    text.replace(0, sign.size(), iac);
  } else if (text.starts_with(iac)) {
    // already in the stored form
  } else if (text.starts_with(national)) {
    text.replace(0, national.size(), iac);
    text.insert(iac.size(), countryCode);
  } else {
    text.insert(0, iac);
    text.insert(iac.size(), countryCode);
  }
}

bool DataLineParser::parse(std::string_view line, unsigned long lineNumber, const BAS::String& fileName,
                           BAS::String& number, NumberPortabilityData& record, Rejection* rejection) const {
  // The fields as String::split finds them (runs of white space separate, none at either end);
  // counted to the end, because a rejected line reports how many it has. Split fields hold no
  // blank, so trimming them changes nothing.
  Field fields[columnsRoomCM];
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

BAS::String DataLineParser::location(const char* prefix, unsigned long lineNumber, const BAS::String& fileName) {
  BAS::String text(prefix);
  text += BAS::String::decimal(lineNumber);
  text += " in File '";
  text += fileName;
  text += "'. ";
  return text;
}

}  // namespace DAT::NumberPortability
