// NpTest::Report is one status message as the tests of the cache and of the plug-in compare it:
// identifier, severity and arguments in order, printed readably when a comparison fails; and
// the report that the cache gives for a rejected data line.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace NpTest {

struct Report {
  std::string id;
  int severity;
  std::vector<std::string> args;
  friend bool operator==(const Report&, const Report&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Report& report) {
    out << report.id << " sev " << report.severity << " [";
    for (std::size_t i = 0; i < report.args.size(); ++i) out << (i ? " | " : "") << '"' << report.args[i] << '"';
    return out << "]";
  }
};

// The report of a rejected data line: the identifier's arguments with the line's location.
inline Report rejected(const std::string& id, const std::string& file, unsigned long line, std::vector<std::string> args) {
  const std::string where = std::to_string(line) + " in File '" + file + "'. ";
  const bool count = id == "ERR_NUMBER_OF_FIELDS_IN_RECORD";
  args.insert(count ? args.end() : args.begin(), (count ? "At Line# " : "Invalid N-Port Data at Line# ") + where);
  return {id, 2, args};
}

}  // namespace NpTest
