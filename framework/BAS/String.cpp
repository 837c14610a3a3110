#include "BAS/String.h"

#include <charconv>
#include <limits>
#include <ostream>

namespace BAS {

const String NULL_STRING;

namespace {

bool isSeparator(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

}  // namespace

std::vector<String> String::split() const {
  std::vector<String> fields;
  split(fields);
  return fields;
}

void String::split(std::vector<String>& fields) const {
  std::size_t used = 0;
  const char* p = textM.data();
  const char* end = p + textM.size();
  while (p != end) {
    while (p != end && isSeparator(*p)) ++p;
    if (p == end) break;
    const char* start = p;
    while (p != end && !isSeparator(*p)) ++p;
    if (used < fields.size()) {
      fields[used].textM.assign(start, static_cast<std::size_t>(p - start));
    } else {
      fields.emplace_back(start, static_cast<std::size_t>(p - start));
    }
    ++used;
  }
  fields.resize(used);
}

String& String::trim() {
  const auto first = textM.find_first_not_of(' ');
  if (first == std::string::npos) {
    textM.clear();
    return *this;
  }
  const auto last = textM.find_last_not_of(' ');
  textM.erase(last + 1);
  textM.erase(0, first);
  return *this;
}

bool String::toNum(unsigned int& number) const {
  if (textM.empty() || textM.front() < '0' || textM.front() > '9') return false;
  unsigned int value = 0;
  const char* end = textM.data() + textM.size();
  const auto [ptr, ec] = std::from_chars(textM.data(), end, value, 10);
  if (ec != std::errc() || ptr != end) return false;
  number = value;
  return true;
}

String& String::convert(unsigned long number) {
  char buffer[std::numeric_limits<unsigned long>::digits10 + 2];
  const auto [ptr, ec] = std::to_chars(buffer, buffer + sizeof buffer, number);
  (void)ec;  // the buffer always holds the largest unsigned long
  textM.assign(buffer, ptr);
  return *this;
}

std::ostream& operator<<(std::ostream& out, const String& text) { return out << text.str(); }

}  // namespace BAS
