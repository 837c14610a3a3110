// BAS::String is the framework's text type: configuration values, data file lines, numbers
// and message arguments. A value type with no shared state; distinct objects may be used
// from different threads freely, one object from one writer at a time.
#pragma once

#include "BAS/Export.h"

#include <compare>
#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace BAS {

class BAS_EXPORT String {
public:
  String() = default;
  String(const char* text) : textM(text ? text : "") {}
  String(const char* text, std::size_t length) : textM(text, length) {}
  String(std::string text) : textM(std::move(text)) {}
  explicit String(std::string_view text) : textM(text) {}

  const std::string& str() const { return textM; }
  std::string_view view() const { return textM; }
  const char* c_str() const { return textM.c_str(); }
  const char* data() const { return textM.data(); }
  std::size_t length() const { return textM.size(); }
  bool empty() const { return textM.empty(); }
  char operator[](std::size_t index) const { return textM[index]; }

  // Splits at white space (blank, tabulator, carriage return, line feed, vertical tab,
  // form feed). Runs of separators and separators at either end give no empty field.
  std::vector<String> split() const;
  // The same into a caller's vector, reusing its elements' storage: the loaders call it once
  // per line and so avoid a fresh allocation for every field.
  void split(std::vector<String>& fields) const;

  // Removes leading and trailing blanks (the blank character only; a tabulator stays).
  String& trim();

  // True and the value in `number` when the whole text is an unsigned decimal number that fits
  // in unsigned int; false and `number` unchanged for an empty text, a sign, a blank or overflow.
  bool toNum(unsigned int& number) const;

  // Sets the text to the decimal form of `number`.
  String& convert(unsigned long number);
  // The decimal form of `number`.
  static String decimal(unsigned long number) { return String().convert(number); }

  bool startsWith(std::string_view prefix) const { return textM.starts_with(prefix); }
  bool startsWith(const String& prefix) const { return textM.starts_with(prefix.textM); }
  // Without it a literal prefix would be ambiguous between the two above.
  bool startsWith(const char* prefix) const { return textM.starts_with(prefix ? prefix : ""); }

  void assign(const char* text, std::size_t length) { textM.assign(text, length); }
  void clear() { textM.clear(); }
  String& replace(std::size_t position, std::size_t count, std::string_view with) {
    textM.replace(position, count, with);
    return *this;
  }
  String& operator+=(const String& other) { textM += other.textM; return *this; }
  String& operator+=(std::string_view other) { textM += other; return *this; }
  String& operator+=(const char* other) { textM += other; return *this; }
  String& operator+=(char c) { textM += c; return *this; }
  std::string& mutableStr() { return textM; }

  friend String operator+(const String& a, const String& b) { return String(a.textM + b.textM); }
  friend String operator+(const String& a, const char* b) { return String(a.textM + b); }
  friend String operator+(const char* a, const String& b) { return String(a + b.textM); }
  friend bool operator==(const String& a, const String& b) = default;
  friend std::strong_ordering operator<=>(const String& a, const String& b) = default;
  friend bool operator==(const String& a, const char* b) { return a.textM == b; }

private:
  std::string textM;
};

BAS_EXPORT std::ostream& operator<<(std::ostream& out, const String& text);

// The framework's null string. It is the empty string, so a print destination that is empty,
// or the worker's "NULL" keyword that maps to it, writes to standard output.
BAS_EXPORT extern const String NULL_STRING;

}  // namespace BAS

template <>
struct std::hash<BAS::String> {
  std::size_t operator()(const BAS::String& s) const noexcept { return std::hash<std::string>{}(s.str()); }
};
