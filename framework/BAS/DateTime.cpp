#include "BAS/DateTime.h"

#include <array>
#include <bit>
#include <cstdint>
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

// Eight characters as a word, the first in the lowest byte: false unless all are digits, else
// the four two-digit numbers they make, in order.
bool digitPairs(std::uint64_t word, std::uint32_t (&pairs)[4]) noexcept {
  constexpr std::uint64_t highNibbles = 0xF0F0F0F0F0F0F0F0u;
  constexpr std::uint64_t zeros = 0x3030303030303030u;
  // A digit is 0x30 to 0x39: its high nibble is 3, and stays 3 when 6 is added.
  if ((word & highNibbles) != zeros || ((word + 0x0606060606060606u) & highNibbles) != zeros) return false;
  const std::uint64_t digits = word - zeros;
  const std::uint64_t tens = (digits * 10 + (digits >> 8)) & 0x00FF00FF00FF00FFu;
  for (unsigned i = 0; i < 4; ++i) pairs[i] = static_cast<std::uint32_t>(tens >> (16 * i) & 0xFF);
  return true;
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
  // Every line of a data file has a date-time: its fourteen digits are read eight at a time as
  // a word, checked and turned into pairs of digits at once, rather than one by one.
  if (text.size() != 14) return;
  std::uint64_t date = 0;
  // Two more '0's after the six digits of the time, where the word's last two bytes lie.
  std::uint64_t time = std::endian::native == std::endian::big ? 0x3030u : 0x3030ull << 48;
  std::memcpy(&date, text.data(), 8);
  std::memcpy(&time, text.data() + 8, 6);
  if constexpr (std::endian::native == std::endian::big) {
    date = __builtin_bswap64(date);
    time = __builtin_bswap64(time);
  }
  std::uint32_t pairs[2][4];
  if (!digitPairs(date, pairs[0]) || !digitPairs(time, pairs[1])) return;
  *this = fromFields(static_cast<int>(pairs[0][0] * 100 + pairs[0][1]), static_cast<int>(pairs[0][2]),
                     static_cast<int>(pairs[0][3]), static_cast<int>(pairs[1][0]), static_cast<int>(pairs[1][1]),
                     static_cast<int>(pairs[1][2]));
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
