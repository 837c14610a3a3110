#include "host/common/GenerationText.h"

#include <cstdio>

namespace Host {

namespace {

// The UTC calendar time of `seconds` since 1970; false for a time gmtime cannot express.
bool utc(std::int64_t seconds, std::tm& into) {
  const std::time_t time = static_cast<std::time_t>(seconds);
  return gmtime_r(&time, &into) != nullptr;
}

// Floor division, so that a time before 1970 keeps milliseconds from 0 to 999.
std::int64_t floorDiv(std::int64_t value, std::int64_t by) { return value / by - (value % by < 0 ? 1 : 0); }

}  // namespace

std::string GenerationText::of(const DAT::NumberPortability::PortabilityLookup::Generation& generation) {
  if (generation.publication == 0) return {};
  const std::int64_t seconds = floorDiv(generation.publishedAtMillis, 1000);
  std::tm calendar{};
  if (!utc(seconds, calendar)) return {};
  char text[64];
  std::snprintf(text, sizeof text, "%04d%02d%02dT%02d%02d%02d.%03dZ-%llu", calendar.tm_year + 1900,
                calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour, calendar.tm_min, calendar.tm_sec,
                static_cast<int>(generation.publishedAtMillis - seconds * 1000),
                static_cast<unsigned long long>(generation.publication));
  return text;
}

std::string GenerationText::isoTime(const struct timespec& time) {
  std::tm calendar{};
  if (!utc(time.tv_sec, calendar)) return {};
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", calendar.tm_year + 1900, calendar.tm_mon + 1,
                calendar.tm_mday, calendar.tm_hour, calendar.tm_min, calendar.tm_sec,
                static_cast<int>(time.tv_nsec / 1'000'000));
  return text;
}

}  // namespace Host
