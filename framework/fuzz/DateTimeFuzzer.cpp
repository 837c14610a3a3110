// Fuzzes BAS::DateTime's reading of the 14-digit form and its formatting.
// Properties, checked against the hand-written calendar of CalendarOracle.h:
//  - a text is valid exactly when it is 14 digits naming a real second of the years 1 to 9999;
//  - a valid one counts the seconds since 0001-01-01 00:00:00, formats back to the same text
//    through asString("%Y%m%d%H%M%S") and writeCompact, and survives fromSecs, fromFields and
//    the Unix-time round trip; an invalid one formats as nothing;
//  - two valid halves of the input compare as their texts compare;
//  - after a valid leading date-time, the rest of the input used as a format gives the text
//    that the documented conversions give.
#include "BAS/DateTime.h"
#include "CalendarOracle.h"

#include <compare>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

using BAS::DateTime;

// Seconds from 0001-01-01 to 1970-01-01.
constexpr std::int64_t unixEpochSecsCM = 62135596800;

[[noreturn]] void fail(const char* property, std::string_view input) {
  std::fprintf(stderr, "property violated: %s\ninput (%zu bytes): '%.*s'\n", property, input.size(),
               static_cast<int>(input.size()), input.data());
  std::abort();
}

#define CHECK(condition, input) \
  do {                          \
    if (!(condition)) fail(#condition, input); \
  } while (false)

std::string digits(int value, int width) {
  std::string text = std::to_string(value);
  return text.size() < static_cast<std::size_t>(width) ? std::string(width - text.size(), '0') + text : text;
}

// What asString must give: the documented conversions, every other character copied, an
// unknown conversion and a trailing '%' copied as written.
std::string expectedFormat(const NpFuzz::CalendarFields& f, std::string_view format) {
  std::string out;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%' || i + 1 == format.size()) {
      out += format[i];
      continue;
    }
    const char conversion = format[++i];
    switch (conversion) {
      case 'Y': out += digits(f.year, 4); break;
      case 'y': out += digits(f.year % 100, 2); break;
      case 'm': out += digits(f.month, 2); break;
      case 'd': out += digits(f.day, 2); break;
      case 'H': out += digits(f.hour, 2); break;
      case 'M': out += digits(f.minute, 2); break;
      case 'S': out += digits(f.second, 2); break;
      case 'j': out += digits(NpFuzz::dayOfYear(f), 3); break;
      case 'F': out += digits(f.year, 4) + "-" + digits(f.month, 2) + "-" + digits(f.day, 2); break;
      case 'T': out += digits(f.hour, 2) + ":" + digits(f.minute, 2) + ":" + digits(f.second, 2); break;
      case '%': out += '%'; break;
      default: out += '%', out += conversion; break;
    }
  }
  return out;
}

// Checks one text on its own; the date-time it reads as.
DateTime checkOne(std::string_view text) {
  const DateTime d(text);
  const auto fields = NpFuzz::readCompact(text);
  CHECK(d.isValid() == fields.has_value(), text);
  // The two constructors from text must agree.
  CHECK(DateTime(BAS::String(text)) == d, text);
  char compact[14];
  if (!fields) {
    CHECK(d.secs() >= DateTime::invalidSecsCM, text);
    CHECK(d == DateTime(), text);
    CHECK(d.asString("%Y%m%d%H%M%S").empty(), text);
    CHECK(d.writeCompact(compact) == 0, text);
    return d;
  }
  CHECK(d.secs() == NpFuzz::secsSinceYearOne(*fields), text);
  CHECK(d.asString("%Y%m%d%H%M%S").view() == text, text);
  CHECK(d.writeCompact(compact) == 14, text);
  CHECK(std::string_view(compact, 14) == text, text);
  CHECK(DateTime::fromSecs(d.secs()) == d, text);
  CHECK(DateTime::fromFields(fields->year, fields->month, fields->day, fields->hour, fields->minute, fields->second) == d,
        text);
  CHECK(d.unixTime() == static_cast<std::int64_t>(d.secs()) - unixEpochSecsCM, text);
  CHECK(DateTime::fromUnixTime(d.unixTime()) == d, text);
  CHECK(DateTime(d.asString("%Y%m%d%H%M%S")) == d, text);
  return d;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  checkOne(input);

  const std::string_view first = input.substr(0, size / 2);
  const std::string_view second = input.substr(size / 2);
  const DateTime a = checkOne(first);
  const DateTime b = checkOne(second);
  if (a.isValid() && b.isValid()) {
    // Fixed-width digits: text order is time order.
    CHECK((a <=> b) == (first <=> second), input);
    CHECK((a == b) == (first == second), input);
  }

  if (size >= 14) {
    const std::string_view head = input.substr(0, 14);
    if (const auto fields = NpFuzz::readCompact(head)) {
      const std::string_view format = input.substr(14);
      CHECK(DateTime(head).asString(format).str() == expectedFormat(*fields, format), input);
    }
  }
  return 0;
}
