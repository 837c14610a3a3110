// Fuzzes the data file parser: the input, cut at line feeds, is offered line by line to
// CacheManager::insertCache of the in-process plug-in (default codes: 00, +, 49, 0), into a
// fresh tree per input. Properties:
//  - insertCache answers true exactly for a line of three white-space separated fields whose
//    second is a valid 14-digit date-time, whether the record went in or was a duplicate;
//  - the tree then holds what a plain model of the rules holds: one history per normalised
//    number (its digits), the first record of each date kept, newest first, numbers in key
//    order; its record count and its dump without banner equal the model's;
//  - the dump read back through insertCache into another fresh tree is accepted line by line
//    and dumps to the same text (a delta load rewrites the data file this way);
//  - every log line about a rejected line stays one clean line (see FuzzPlugIn.h), in the text
//    format for even-sized inputs and in JSON for odd-sized ones.
#include "cache/fuzz/FuzzPlugIn.h"
#include "framework/fuzz/CalendarOracle.h"
#include "store/NumberPortabilityTree.h"

#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using DAT::NumberPortability::NumberPortabilityTree;
using NpFuzz::failProperty;

bool isSeparator(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

std::vector<std::string_view> fieldsOf(std::string_view line) {
  std::vector<std::string_view> fields;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && isSeparator(line[i])) ++i;
    const std::size_t start = i;
    while (i < line.size() && !isSeparator(line[i])) ++i;
    if (i > start) fields.push_back(line.substr(start, i - start));
  }
  return fields;
}

// The stored key of a number under the plug-in's codes: the normalised form, then only its
// decimal digits (the trie skips everything else).
std::string keyOf(std::string_view number) {
  std::string normalised;
  if (number.starts_with('+')) {
    normalised = "00" + std::string(number.substr(1));
  } else if (number.starts_with("00")) {
    normalised = std::string(number);
  } else if (number.starts_with('0')) {
    normalised = "0049" + std::string(number.substr(1));
  } else {
    normalised = "0049" + std::string(number);
  }
  std::string key;
  for (const char c : normalised)
    if (c >= '0' && c <= '9') key += c;
  return key;
}

struct ModelRecord {
  std::string date;
  std::string networkOperator;
};
// Key -> seconds -> record; the map orders keys as the dump does (a key before its extensions).
using Model = std::map<std::string, std::map<std::uint64_t, ModelRecord>>;

std::string dumpOf(const Model& model) {
  std::string out;
  for (const auto& [key, history] : model) {
    for (auto record = history.rbegin(); record != history.rend(); ++record)
      out += key + "  " + record->second.date + "  " + record->second.networkOperator + "\n";
  }
  return out;
}

std::string dumpOf(const NumberPortabilityTree& tree) {
  std::ostringstream out;
  tree.printTree(out, false);
  return out.str();
}

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find('\n', start)) != std::string_view::npos; start = end + 1)
    lines.push_back(text.substr(start, end - start));
  lines.push_back(text.substr(start));
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  NpFuzz::PlugInEnvironment::instance(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& environment = NpFuzz::PlugInEnvironment::instance(false);
  environment.framework().log().setFormat(size % 2 ? BAS::Log::Format::JSON : BAS::Log::Format::TEXT);
  DAT::NumberPortability::CacheManager& cache = *environment.plugIn().cacheManager();
  static STR::FileIoTurbo reader;  // names the file in messages only; never opened

  const std::string_view input(reinterpret_cast<const char*>(data), size);
  NumberPortabilityTree tree;
  Model model;
  std::size_t modelCount = 0;
  unsigned long lineNumber = 0;
  for (const std::string_view line : linesOf(input)) {
    const auto fields = fieldsOf(line);
    const auto date = fields.size() == 3 ? NpFuzz::readCompact(fields[1]) : std::nullopt;
    const bool accepted = cache.insertCache(&tree, BAS::String(line), ++lineNumber, true, reader);
    if (accepted != date.has_value()) failProperty("insertCache is true exactly for three fields with a valid date", line);
    if (accepted) {
      const bool fresh = model[keyOf(fields[0])]
                             .emplace(NpFuzz::secsSinceYearOne(*date), ModelRecord{std::string(fields[1]), std::string(fields[2])})
                             .second;
      modelCount += fresh ? 1 : 0;
    }
  }
  if (tree.recordCount() != modelCount) failProperty("the record count counts the records that went in", input);
  const std::string dump = dumpOf(tree);
  if (dump != dumpOf(model)) failProperty("the dump holds exactly the records that went in, in order", dump);

  NumberPortabilityTree again;
  lineNumber = 0;
  for (const std::string_view line : linesOf(dump)) {
    if (line.empty()) continue;  // after the last line end
    if (!cache.insertCache(&again, BAS::String(line), ++lineNumber, true, reader))
      failProperty("every dumped line reads back", line);
  }
  if (again.recordCount() != tree.recordCount()) failProperty("the dump reads back to as many records", dump);
  if (dumpOf(again) != dump) failProperty("the dump reads back to the same dump", dump);
  return 0;
}
