// A second, deliberately naive reading of the 14-digit date-time form for the data line fuzzer
// and the calendar test: field checks written out by hand and a day count summed year by year,
// so that it shares no arithmetic with BAS::DateTime and a fault in one shows up as a disagreement.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace NpFuzz {

struct CalendarFields {
  int year, month, day, hour, minute, second;
};

inline bool isLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

inline int monthLength(int year, int month) {
  if (month == 2) return isLeapYear(year) ? 29 : 28;
  return month == 4 || month == 6 || month == 9 || month == 11 ? 30 : 31;
}

// The fields of "%Y%m%d%H%M%S" when `text` is exactly that and names a real UTC second of the
// years 0001 to 9999; nothing otherwise.
inline std::optional<CalendarFields> readCompact(std::string_view text) {
  if (text.size() != 14) return std::nullopt;
  for (char c : text)
    if (c < '0' || c > '9') return std::nullopt;
  const auto number = [&text](std::size_t at, std::size_t width) {
    int value = 0;
    for (std::size_t i = at; i < at + width; ++i) value = value * 10 + (text[i] - '0');
    return value;
  };
  const CalendarFields f{number(0, 4), number(4, 2), number(6, 2), number(8, 2), number(10, 2), number(12, 2)};
  if (f.year < 1 || f.month < 1 || f.month > 12 || f.day < 1 || f.day > monthLength(f.year, f.month)) return std::nullopt;
  if (f.hour > 23 || f.minute > 59 || f.second > 59) return std::nullopt;
  return f;
}

// Days from 0001-01-01 to the date, counted the slow way: whole years, then whole months.
inline std::int64_t daysSinceYearOne(const CalendarFields& f) {
  // Whole 400-year cycles first (146097 days each), so a year near 9999 costs at most 399 steps.
  std::int64_t days = static_cast<std::int64_t>((f.year - 1) / 400) * 146097;
  for (int y = (f.year - 1) / 400 * 400 + 1; y < f.year; ++y) days += isLeapYear(y) ? 366 : 365;
  for (int m = 1; m < f.month; ++m) days += monthLength(f.year, m);
  return days + f.day - 1;
}

inline std::uint64_t secsSinceYearOne(const CalendarFields& f) {
  return static_cast<std::uint64_t>(daysSinceYearOne(f)) * 86400u + static_cast<std::uint64_t>(f.hour) * 3600u +
         static_cast<std::uint64_t>(f.minute) * 60u + static_cast<std::uint64_t>(f.second);
}

}  // namespace NpFuzz
