#include "DateText.h"

namespace NpGen {

namespace {

constexpr std::int64_t secondsPerDayC = 86400;

// Days since 1970-01-01 of a proleptic Gregorian date, counted in 400-year eras so the leap
// rules fall out of the era arithmetic.
std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day) {
  year -= month <= 2 ? 1 : 0;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const auto yearOfEra = static_cast<unsigned>(year - era * 400);
  const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + static_cast<std::int64_t>(dayOfEra) - 719468;
}

void writeTwo(unsigned value, char* out) {
  out[0] = static_cast<char>('0' + value / 10);
  out[1] = static_cast<char>('0' + value % 10);
}

}  // namespace

std::int64_t DateText::seconds(int year, unsigned month, unsigned day, unsigned hour, unsigned minute,
                               unsigned second) {
  return daysFromCivil(year, month, day) * secondsPerDayC + hour * 3600 + minute * 60 + second;
}

void DateText::write(std::int64_t seconds, char* out) {
  std::int64_t days = seconds / secondsPerDayC;
  std::int64_t rest = seconds % secondsPerDayC;
  if (rest < 0) {
    rest += secondsPerDayC;
    --days;
  }
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const auto dayOfEra = static_cast<unsigned>(days - era * 146097);
  const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned shiftedMonth = (5 * dayOfYear + 2) / 153;
  const unsigned day = dayOfYear - (153 * shiftedMonth + 2) / 5 + 1;
  const unsigned month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
  const auto year = static_cast<unsigned>(static_cast<std::int64_t>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0));

  writeTwo(year / 100 % 100, out);
  writeTwo(year % 100, out + 2);
  writeTwo(month, out + 4);
  writeTwo(day, out + 6);
  const auto secondOfDay = static_cast<unsigned>(rest);
  writeTwo(secondOfDay / 3600, out + 8);
  writeTwo(secondOfDay / 60 % 60, out + 10);
  writeTwo(secondOfDay % 60, out + 12);
}

}  // namespace NpGen
