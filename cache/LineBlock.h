// DAT::NumberPortability::LineBlock holds some thousands of consecutive lines of a data file as
// read, and once parse() ran, what each gave: a record (its number packed for a RecordChunk, its
// operator index into the block's own table), a rejection, or nothing (a line the reader failed
// to deliver). The cache manager reads lines into blocks and has every second block parsed on
// its helper thread, then adds the results to its chunk in file order. One thread at a time
// uses a block; parse() only reads the parser.
#pragma once

#include "BAS/String.h"
#include "cache/DataLineParser.h"
#include "store/OperatorTable.h"
#include "store/RecordChunk.h"
#include "store/StoredRecord.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {

class LineBlock {
public:
  static constexpr std::size_t linesCM = 16384;
  // Room for a number in stored form; a longer one takes a string of its own.
  static constexpr std::size_t numberRoomCM = 64;

  enum class Kind : std::uint8_t { failed, parsed, rejected };

  // Line `lineNumber`, at place `kept` among the processed lines; the block's first line sets
  // where the block begins.
  void append(std::string_view line, unsigned long lineNumber, std::size_t kept);
  // A line that the reader failed to deliver.
  void appendFailed(unsigned long lineNumber, std::size_t kept);
  std::size_t size() const noexcept { return kindsM.size(); }
  bool empty() const noexcept { return kindsM.empty(); }
  bool full() const noexcept { return kindsM.size() == linesCM; }
  // Forgets the lines and keeps the memory.
  void clear() noexcept;

  // Parses every delivered line with `parser`.
  void parse(const DataLineParser& parser);

  unsigned long firstLine() const noexcept { return firstLineM; }
  std::size_t firstKept() const noexcept { return firstKeptM; }
  Kind kind(std::size_t i) const noexcept { return kindsM[i]; }
  std::string_view line(std::size_t i) const noexcept {
    const std::size_t begin = i == 0 ? 0 : endsM[i - 1];
    return std::string_view(textM).substr(begin, endsM[i] - begin);
  }
  // For a parsed line: its number, the number's text (when the number says it is needed), and
  // its record with an operator index into operators().
  const RecordChunk::Number& number(std::size_t i) const noexcept { return parsedM[i].numberM; }
  std::string_view numberText(std::size_t i) const noexcept {
    return std::string_view(numberTextsM).substr(parsedM[i].textBeginM, parsedM[i].textEndM - parsedM[i].textBeginM);
  }
  const StoredRecord& record(std::size_t i) const noexcept { return parsedM[i].recordM; }
  const OperatorTable& operators() const noexcept { return operatorsM; }

private:
  struct Parsed {
    RecordChunk::Number numberM;
    StoredRecord recordM;
    std::size_t textBeginM = 0;  // the number's text in numberTextsM, when needed
    std::size_t textEndM = 0;
  };

  unsigned long firstLineM = 0;
  std::size_t firstKeptM = 0;
  std::string textM;               // the lines back to back
  std::vector<std::size_t> endsM;  // where each line ends in textM
  std::vector<Kind> kindsM;
  std::vector<Parsed> parsedM;  // by line, filled by parse()
  std::string numberTextsM;     // the texts of the numbers that need them
  OperatorTable operatorsM;
};

}  // namespace DAT::NumberPortability
