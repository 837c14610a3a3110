// DAT::NumberPortability::DataLineParser reads one line of a portability data file: a number,
// a valid-from date-time and a network operator, separated by white space. It gives the number
// in stored form (international access code, country code, national number) and the record,
// or the reason the line is rejected as a message identifier with its arguments, ready for the
// owner of the cache to report. It stores nothing and reports nothing itself, so the cache
// manager uses it for every line it loads, and the benchmark and the fuzzers use it alone.
//
// Thread contract: const and free of shared state; the dialling codes it refers to must not
// change while it runs.
#pragma once

#include "BAS/String.h"
#include "store/NumberPortabilityData.h"

#include <cstddef>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {

class DataLineParser {
public:
  // Why a line was not read: the message identifier and its arguments, as reported.
  struct Rejection {
    const char* messageIdM = nullptr;
    std::vector<BAS::String> argumentsM;
  };

  // Keeps references to the four codes, so that it always reads the owner's current ones.
  DataLineParser(const BAS::String& nationalAccessCode, const BAS::String& internationalAccessCode,
                 const BAS::String& countryCode, const BAS::String& internationalAccessCodeSign,
                 unsigned int numberOfColumns);

  // Reads `line`, line `lineNumber` of `fileName`: true with `number` and `record` filled;
  // false when the line has the wrong number of fields ("ERR_NUMBER_OF_FIELDS_IN_RECORD") or
  // an unreadable date-time ("ERR_INVALID_DATETIME"), with `rejection` (when not null) saying
  // so. `number` may have changed either way.
  bool parse(std::string_view line, unsigned long lineNumber, const BAS::String& fileName, BAS::String& number,
             NumberPortabilityData& record, Rejection* rejection) const;
  bool parse(const BAS::String& line, unsigned long lineNumber, const BAS::String& fileName, BAS::String& number,
             NumberPortabilityData& record, Rejection* rejection) const {
    return parse(line.view(), lineNumber, fileName, number, record, rejection);
  }

  // Brings a number to the stored form: a leading sign becomes the international access
  // code, a national access code becomes the international one and the country code, a number
  // without either gets both; a number that starts with the international code stays.
  void normalize(BAS::String& number) const;

  unsigned int numberOfColumns() const { return numberOfColumnsM; }

  // Where a message about a data line points: `prefix` ("At Line# " or "Invalid N-Port Data at
  // Line# "), the line number, " in File '", the file's name and "'. ".
  static BAS::String location(const char* prefix, unsigned long lineNumber, const BAS::String& fileName);

private:
  // Fields looked at in a line; more are only counted.
  static constexpr std::size_t columnsRoomCM = 8;

  const BAS::String& nationalAccessCodeM;
  const BAS::String& internationalAccessCodeM;
  const BAS::String& countryCodeM;
  const BAS::String& internationalAccessCodeSignM;
  unsigned int numberOfColumnsM;
};

}  // namespace DAT::NumberPortability
