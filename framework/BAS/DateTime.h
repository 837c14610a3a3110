// BAS::DateTime is a point in time in whole seconds, in one machine word, totally ordered.
// It reads the 14-digit form "%Y%m%d%H%M%S" as UTC and formats with a strftime-like format.
// A value type; no shared state.
#pragma once

#include "BAS/Export.h"
#include "BAS/String.h"

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string_view>

namespace BAS {

class BAS_EXPORT DateTime {
public:
  using Secs = std::uint64_t;
  enum class Zone { UTC, LOCAL };

  // Seconds count from 0001-01-01 00:00:00 UTC (proleptic Gregorian calendar), so every
  // readable date-time is below invalidSecsCM and compares correctly as an unsigned number.
  // A text that cannot be read gives a value not below invalidSecsCM.
  static constexpr Secs invalidSecsCM = ~Secs{0};

  // The invalid date-time.
  DateTime() noexcept = default;
  // Reads exactly 14 digits "%Y%m%d%H%M%S" as UTC, years 0001 to 9999. Anything else (another
  // length, a non-digit, month 13, 30 February, 31 April, hour 24, minute or second 60) is invalid.
  explicit DateTime(const String& text) noexcept : DateTime(text.view()) {}
  explicit DateTime(std::string_view text) noexcept;
  // Without it a literal would be ambiguous between the two above.
  explicit DateTime(const char* text) noexcept : DateTime(std::string_view(text ? text : "")) {}

  static DateTime fromSecs(Secs secs) noexcept { DateTime d; d.secsM = secs; return d; }
  static DateTime fromUnixTime(std::int64_t unixSecs) noexcept;
  // The calendar fields in UTC; invalid fields give the invalid date-time.
  static DateTime fromFields(int year, int month, int day, int hour, int minute, int second) noexcept;
  static DateTime now() noexcept;

  Secs secs() const noexcept { return secsM; }
  bool isValid() const noexcept { return secsM < invalidSecsCM; }
  std::int64_t unixTime() const noexcept;

  // Formats with %Y %m %d %H %M %S %y %j %F %T %%; any other character is copied. The invalid
  // date-time formats as the empty text. LOCAL uses the process's time zone.
  String asString(std::string_view format, Zone zone = Zone::UTC) const;
  // The 14-digit form "%Y%m%d%H%M%S" in UTC, written without a temporary: the data dump and
  // the rewrite of the data file call it once per record. Returns the digits written (0 when invalid).
  std::size_t writeCompact(char (&out)[14]) const noexcept;

  friend bool operator==(const DateTime&, const DateTime&) noexcept = default;
  friend std::strong_ordering operator<=>(const DateTime&, const DateTime&) noexcept = default;

private:
  Secs secsM = invalidSecsCM;
};

// Readable form "2023-03-01 00:00:00 UTC", or "invalid date-time".
BAS_EXPORT std::ostream& operator<<(std::ostream& out, const DateTime& dateTime);

}  // namespace BAS
