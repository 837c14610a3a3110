#include "BAS/DateTime.h"

#include <array>
#include <cstring>
#include <ctime>
#include <ostream>

namespace BAS {

namespace {

constexpr std::int64_t secsPerDay = 86400;

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's algorithm).
constexpr std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) noexcept {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

struct Civil {
  std::int64_t year;
  unsigned month, day;
};

constexpr Civil civilFromDays(std::int64_t z) noexcept {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const unsigned d = doy - (153 * mp + 2) / 5 + 1;
  const unsigned m = mp < 10 ? mp + 3 : mp - 9;
  return {static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2), m, d};
}

constexpr std::int64_t epochDays = daysFromCivil(1, 1, 1);  // day 0 of our count, in Unix days

constexpr bool isLeap(int y) noexcept { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

constexpr int daysInMonth(int y, int m) noexcept {
  constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && isLeap(y) ? 29 : days[m - 1];
}

struct Fields {
  int year, month, day, hour, minute, second, yday;
};

Fields fieldsOf(DateTime::Secs secs) noexcept {
  const auto days = static_cast<std::int64_t>(secs / secsPerDay) + epochDays;
  const auto rest = static_cast<int>(secs % secsPerDay);
  const Civil c = civilFromDays(days);
  const int year = static_cast<int>(c.year);
  const int yday = static_cast<int>(days - daysFromCivil(year, 1, 1)) + 1;
  return {year, static_cast<int>(c.month), static_cast<int>(c.day), rest / 3600, rest / 60 % 60, rest % 60, yday};
}

void putDigits(std::string& out, int value, int width) {
  char buffer[12];
  int n = 0;
  do {
    buffer[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value > 0 && n < 11);
  while (n < width) buffer[n++] = '0';
  while (n > 0) out += buffer[--n];
}

}  // namespace

DateTime::DateTime(std::string_view text) noexcept {
  if (text.size() != 14) return;
  int v[14];
  for (std::size_t i = 0; i < 14; ++i) {
    const char c = text[i];
    if (c < '0' || c > '9') return;
    v[i] = c - '0';
  }
  const int year = v[0] * 1000 + v[1] * 100 + v[2] * 10 + v[3];
  *this = fromFields(year, v[4] * 10 + v[5], v[6] * 10 + v[7], v[8] * 10 + v[9], v[10] * 10 + v[11],
                     v[12] * 10 + v[13]);
}

DateTime DateTime::fromFields(int year, int month, int day, int hour, int minute, int second) noexcept {
  DateTime d;
  if (year < 1 || year > 9999 || month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) ||
      hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 59) {
    return d;
  }
  const std::int64_t days = daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) - epochDays;
  d.secsM = static_cast<Secs>(days * secsPerDay + hour * 3600 + minute * 60 + second);
  return d;
}

DateTime DateTime::fromUnixTime(std::int64_t unixSecs) noexcept {
  const std::int64_t secs = unixSecs - epochDays * secsPerDay;
  return secs < 0 ? DateTime() : fromSecs(static_cast<Secs>(secs));
}

std::int64_t DateTime::unixTime() const noexcept {
  return static_cast<std::int64_t>(secsM) + epochDays * secsPerDay;
}

DateTime DateTime::now() noexcept { return fromUnixTime(static_cast<std::int64_t>(std::time(nullptr))); }

String DateTime::asString(std::string_view format, Zone zone) const {
  if (!isValid()) return String();
  Secs secs = secsM;
  if (zone == Zone::LOCAL) {
    const std::time_t t = static_cast<std::time_t>(unixTime());
    std::tm local{};
    if (localtime_r(&t, &local) != nullptr) secs = static_cast<Secs>(static_cast<std::int64_t>(secs) + local.tm_gmtoff);
  }
  const Fields f = fieldsOf(secs);
  std::string out;
  out.reserve(format.size() + 16);
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%' || i + 1 == format.size()) {
      out += format[i];
      continue;
    }
    switch (format[++i]) {
      case 'Y': putDigits(out, f.year, 4); break;
      case 'y': putDigits(out, f.year % 100, 2); break;
      case 'm': putDigits(out, f.month, 2); break;
      case 'd': putDigits(out, f.day, 2); break;
      case 'H': putDigits(out, f.hour, 2); break;
      case 'M': putDigits(out, f.minute, 2); break;
      case 'S': putDigits(out, f.second, 2); break;
      case 'j': putDigits(out, f.yday, 3); break;
      case 'F':
        putDigits(out, f.year, 4), out += '-', putDigits(out, f.month, 2), out += '-', putDigits(out, f.day, 2);
        break;
      case 'T':
        putDigits(out, f.hour, 2), out += ':', putDigits(out, f.minute, 2), out += ':', putDigits(out, f.second, 2);
        break;
      case '%': out += '%'; break;
      default: out += '%', out += format[i]; break;
    }
  }
  return String(std::move(out));
}

std::size_t DateTime::writeCompact(char (&out)[14]) const noexcept {
  if (!isValid()) return 0;
  // A dump writes one per record, tens of millions: the civil date alone (no day of the year)
  // and two digits per table lookup.
  static constexpr auto pairs = [] {
    std::array<char, 200> table{};
    for (int i = 0; i < 100; ++i) {
      table[static_cast<std::size_t>(2 * i)] = static_cast<char>('0' + i / 10);
      table[static_cast<std::size_t>(2 * i + 1)] = static_cast<char>('0' + i % 10);
    }
    return table;
  }();
  const Civil c = civilFromDays(static_cast<std::int64_t>(secsM / secsPerDay) + epochDays);
  const auto rest = static_cast<unsigned>(secsM % secsPerDay);
  const unsigned year = static_cast<unsigned>(c.year);
  const unsigned parts[] = {year / 100, year % 100, c.month, c.day, rest / 3600, rest / 60 % 60, rest % 60};
  for (std::size_t i = 0; i < 7; ++i) std::memcpy(out + 2 * i, pairs.data() + 2 * parts[i], 2);
  return 14;
}

std::ostream& operator<<(std::ostream& out, const DateTime& dateTime) {
  if (!dateTime.isValid()) return out << "invalid date-time";
  return out << dateTime.asString("%F %T UTC");
}

}  // namespace BAS
