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

#include "BAS/DateTime.h"
#include "BAS/String.h"
#include "store/NumberPortabilityData.h"

#include <cstddef>
#include <span>
#include <string>
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

  // What parse takes from a line it accepts, for a loader that reports a rejected line later
  // (by parse): the number in stored form and the two other fields as they stand in the line.
  struct Accepted {
    std::string_view numberM;           // in the caller's room, or in spillM
    BAS::DateTime validFromM;
    std::string_view networkOperatorM;  // in the line
    std::string spillM;                 // a stored form longer than the room
  };
  // parse's decision on `line` without its messages and without building a string per field:
  // true when parse accepts it, with `accepted` filled. `room` is reused from line to line.
  bool accept(std::string_view line, Accepted& accepted, std::span<char> room) const;

  unsigned int numberOfColumns() const { return numberOfColumnsM; }

  // Where a message about a data line points: `prefix` ("At Line# " or "Invalid N-Port Data at
  // Line# "), the line number, " in File '", the file's name and "'. ".
  static BAS::String location(const char* prefix, unsigned long lineNumber, const BAS::String& fileName);

private:
  // Fields looked at in a line; more are only counted.
  static constexpr std::size_t columnsRoomCM = 8;

  // A field of a line.
  struct Field {
    const char* begin;
    std::size_t size;
    std::string_view view() const { return {begin, size}; }
  };
  // Splits `line` at runs of white space into `fields` (the first columnsRoomCM of them) and
  // says how many there are. Left unset beyond the count: setting every entry of the room
  // beforehand cost more than the split of a short line.
  static std::size_t split(std::string_view line, Field (&fields)[columnsRoomCM]);
  // How a number's stored form is made: the international access code, and after it the
  // country code, when asked for, before the number's text from keptFromM on.
  struct StoredForm {
    bool accessCodeM = false;
    bool countryCodeM = false;
    std::size_t keptFromM = 0;
  };
  StoredForm storedForm(std::string_view number) const;

  const BAS::String& nationalAccessCodeM;
  const BAS::String& internationalAccessCodeM;
  const BAS::String& countryCodeM;
  const BAS::String& internationalAccessCodeSignM;
  unsigned int numberOfColumnsM;
};

}  // namespace DAT::NumberPortability
