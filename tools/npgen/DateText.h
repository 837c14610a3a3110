// NpGen::DateText converts between calendar dates and seconds since 1970 (UTC, whole seconds)
// and writes the 14-digit YYYYMMDDHHMMSS form that data and event files use. Integer arithmetic
// only, so no time zone or C library locale can change a generated file.
#pragma once

#include <cstdint>

namespace NpGen {

class DateText {
public:
  // Seconds since 1970-01-01 00:00:00 UTC of the given moment.
  static std::int64_t seconds(int year, unsigned month, unsigned day, unsigned hour = 0, unsigned minute = 0,
                              unsigned second = 0);

  // Writes the 14 digits of the moment into out (no terminator).
  static void write(std::int64_t seconds, char* out);

  static constexpr unsigned digitsCM = 14;
};

}  // namespace NpGen
