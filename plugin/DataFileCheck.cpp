#include "plugin/DataFileCheck.h"

#include "BAS/RegistryEntry.h"
#include "cache/DataFileLines.h"
#include "plugin/NumberPortabilityPlugIn.h"
#include "plugin/RegistryTableCheck.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

namespace DAT::NumberPortability {

namespace {

// The second argument of every openFile in the program.
constexpr long openModeCM = 8;
// Quoted text is cut here, so that one odd line cannot flood the report.
constexpr std::size_t quotedRoomCM = 100;

// The separators of the parser's split.
bool isSeparator(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// `text` in double quotes, every byte that would not show as itself written as \xNN.
std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (std::size_t i = 0; i < text.size() && i < quotedRoomCM; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
      result += static_cast<char>(c);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
      result += escaped;
    }
  }
  if (text.size() > quotedRoomCM) result += "...";
  return result + "\"";
}

// The key as the tree reads it: its digits only.
void digitsInto(std::string_view text, std::string& digits) {
  digits.clear();
  for (const char c : text)
    if (isDigit(c)) digits += c;
}
std::string digitsOf(std::string_view text) {
  std::string digits;
  digitsInto(text, digits);
  return digits;
}

}  // namespace

DataFileCheck::DataFileCheck(DataFileCheckListener& listener)
    : listenerM(listener),
      parserM(nationalAccessCodeM, internationalAccessCodeM, countryCodeM, internationalAccessCodeSignM,
              PlugIn::numberOfColumnsCM) {
  for (BAS::DateTime& latest : latestPossibleM) latest = BAS::DateTime::fromSecs(BAS::DateTime::invalidSecsCM - 1);
}

bool DataFileCheck::readRegistry(const BAS::RegistryEntry& subtree, const BAS::String& name) {
  const std::pair<const BAS::String*, BAS::String*> mandatory[] = {
      {&PlugIn::registryFileNameCM, &fileNameM},
      {&PlugIn::registryCountryCodeCM, &countryCodeM},
      {&PlugIn::registryNationalAccessCodeCM, &nationalAccessCodeM},
  };
  for (const auto& [key, field] : mandatory) {
    const BAS::RegistryEntry* entry = subtree.find(*key);
    if (entry == nullptr) {
      listenerM.cannotCheck("the plug-in needs the key " + name + "." + *key + ", which the registry lacks.");
      return false;
    }
    *field = entry->value();
  }
  const BAS::RegistryEntry* entry = subtree.find(PlugIn::registryInternationalAccessCodeCM);
  internationalAccessCodeM = entry != nullptr ? entry->value() : PlugIn::defaultInternationalAccessCodeCM;
  entry = subtree.find(PlugIn::registryInternationalAccessCodeSignCM);
  internationalAccessCodeSignM = entry != nullptr ? entry->value() : PlugIn::defaultInternationalAccessCodeSignCM;
  // The search method does not change how the file loads, but the plug-in refuses to start
  // on one it cannot read, and then loads nothing at all; the table's remarks said why.
  unsigned int searchMethod = 0;
  entry = subtree.find(PlugIn::registrySearchMethodCM);
  if (entry != nullptr && !entry->value().toNum(searchMethod)) {
    listenerM.cannotCheck("the plug-in '" + name + "' would not start: it cannot read " + name + "." +
                          PlugIn::registrySearchMethodCM + " as a search method.");
    return false;
  }
  return true;
}

bool DataFileCheck::run(const BAS::RegistryEntry* subtree, const BAS::String& name,
                        DataFileCheckListener::Scope scope) {
  if (subtree == nullptr) {
    listenerM.cannotCheck("the registry holds no table for the plug-in '" + name + "'.");
    return false;
  }
  RegistryTableCheck::run(*subtree, listenerM);
  if (scope == DataFileCheckListener::Scope::SETTINGS) return true;
  if (!readRegistry(*subtree, name)) return false;
  if (!readerM.openFile(fileNameM, openModeCM)) {
    listenerM.cannotCheck("the data file '" + fileNameM + "' (" + name + "." + PlugIn::registryFileNameCM +
                          ") does not exist.");
    return false;
  }
  if (!readerM.isOpen()) {
    // The reader's words say why: a folder, a device, a FIFO whose writer never came.
    const BAS::String& failure = readerM.failure();
    listenerM.cannotCheck("cannot open the data file '" + fileNameM + "' for reading" +
                          (failure.empty() ? BAS::String() : ": " + failure) + ".");
    return false;
  }
  struct stat status;
  const std::uint64_t fileSize =
      ::fstat(::fileno(readerM.stream()), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
  summaryM.fileName = fileNameM;
  listenerM.begin(fileNameM, fileSize);

  // The initial load's reading rule and its reaction to a line that the reader fails to
  // deliver: the load stops there, and the plug-in does not start.
  std::uint64_t bytesRead = 0;
  std::string_view line;  // in the reader's buffer until the next step
  DataFileLines lines(readerM);
  for (DataFileLines::Step step; (step = lines.next(line)) != DataFileLines::Step::end;) {
    const std::uint64_t lineNumber = lines.lineNumber();
    if (step == DataFileLines::Step::failed) {
      const BAS::String& failure = readerM.failure();
      const BAS::String cause = failure.empty() ? BAS::String() : BAS::String(": ") + failure;
      listenerM.cannotCheck("reading the data file '" + fileNameM + "' failed at line " +
                            BAS::String::decimal(lineNumber) + cause + "; the plug-in would not start.");
      return false;
    }
    ++summaryM.lines;
    bytesRead += line.size() + 1;
    if (step == DataFileLines::Step::noLineEnd) {
      flush();
      reject(lineNumber, "the last line has no line end, so the plug-in never loads it: " + quoted(line) + ".");
      continue;
    }
    judge(line, lineNumber);
    if (lineNumber % progressLinesCM == 0) listenerM.progress(summaryM.lines, bytesRead);
  }
  flush();
  readerM.closeFile();

  if (summaryM.records == 0)
    listenerM.finding(0, "no line holds a record that the plug-in would load; it would start with no data.");
  summaryM.operators = operatorsM.size();
  if (summaryM.records != 0) {
    summaryM.earliest = BAS::DateTime::fromSecs(earliestM).asString("%Y%m%d%H%M%S");
    summaryM.latest = BAS::DateTime::fromSecs(latestM).asString("%Y%m%d%H%M%S");
  }
  listenerM.summary(summaryM);
  return true;
}

void DataFileCheck::reject(std::uint64_t lineNumber, const std::string& text) {
  ++summaryM.rejected;
  listenerM.finding(lineNumber, BAS::String(text));
}

void DataFileCheck::judge(std::string_view line, std::uint64_t lineNumber) {
  Pending& pending = pendingM[pendingCountM++];
  pending.lineNumberM = lineNumber;
  pending.parsedM = batchCM;
  pending.rejectionM.clear();
  pending.oddityM.clear();
  DataLineParser::Rejection rejection;
  const std::size_t parsed = parsedCountM;
  if (!parserM.parse(line, lineNumber, fileNameM, numbersM[parsed], recordsM[parsed], &rejection)) {
    if (std::strcmp(rejection.messageIdM, "ERR_INVALID_DATETIME") == 0) {
      pending.rejectionM = "the date-time " + quoted(rejection.argumentsM[1].view()) +
                           " is not a valid YYYYMMDDHHMMSS; the line is skipped.";
    } else if (rejection.argumentsM[0] == "0") {
      pending.rejectionM = "the line is blank; every line must be a record, so it is skipped.";
    } else {
      pending.rejectionM =
          "the line has " + rejection.argumentsM[0].str() + " fields, not 3: " + quoted(line) + "; it is skipped.";
    }
  } else {
    pending.parsedM = parsed;
    numberViewsM[parsed] = numbersM[parsed].view();
    ++parsedCountM;
    // The number as written: the first field, before normalisation.
    const char* start = line.data();
    const char* const end = start + line.size();
    while (start != end && isSeparator(*start)) ++start;
    const char* stop = start;
    while (stop != end && !isSeparator(*stop)) ++stop;
    pending.oddityM = oddity(std::string_view(start, static_cast<std::size_t>(stop - start)), lineNumber);
  }
  if (pendingCountM == batchCM) flush();
}

void DataFileCheck::flush() {
  // A history that holds any record at all answers the latest possible date-time.
  treeM.searchMany(numberViewsM, latestPossibleM, parsedCountM, NumberPortabilityTree::EXACT_MATCH, existingM, knownM);
  treeM.insertMany(numberViewsM, recordsM, parsedCountM, true, acceptedM);
  std::size_t newCount = 0;
  for (std::size_t i = 0; i < pendingCountM; ++i) {
    const Pending& pending = pendingM[i];
    if (pending.parsedM == batchCM) {
      reject(pending.lineNumberM, pending.rejectionM);
      continue;
    }
    const std::size_t parsed = pending.parsedM;
    const NumberPortabilityData& record = recordsM[parsed];
    if (!acceptedM[parsed]) {
      const std::string key = digitsOf(numberViewsM[parsed]);
      if (key.empty()) {
        reject(pending.lineNumberM, "the number has no digit at all; the line is skipped.");
      } else {
        reject(pending.lineNumberM, "the number " + key + " already has a record from " +
                                        record.validFromM.asString("%Y%m%d%H%M%S").str() +
                                        " on an earlier line; this one is skipped and the earlier one stays.");
      }
      continue;
    }
    ++summaryM.records;
    if (!knownM[parsed]) digitsInto(numberViewsM[parsed], newKeysM[newCount++]);
    const BAS::DateTime::Secs secs = record.validFromM.secs();
    if (secs < earliestM) earliestM = secs;
    if (secs > latestM) latestM = secs;
    // Looked up before it is added: most records name an operator already seen.
    operatorM.assign(record.networkOperatorM.view());
    if (operatorsM.find(operatorM) == operatorsM.end()) operatorsM.insert(operatorM);
    if (pending.oddityM.empty()) continue;
    ++summaryM.suspicious;
    const std::string key = digitsOf(numberViewsM[parsed]);
    std::string text = pending.oddityM + "; it would be stored as " + key;
    if (key == digitsOf(internationalAccessCodeM.view()) + digitsOf(countryCodeM.view()))
      text += ", the country code alone, and answer for every unknown number of that country";
    listenerM.finding(pending.lineNumberM, BAS::String(text + "."));
  }
  // A number new to the tree may come twice in one batch; it counts once.
  std::sort(newKeysM, newKeysM + newCount);
  summaryM.numbers += static_cast<std::uint64_t>(std::unique(newKeysM, newKeysM + newCount) - newKeysM);
  pendingCountM = 0;
  parsedCountM = 0;
}

std::string DataFileCheck::oddity(std::string_view number, std::uint64_t lineNumber) const {
  static constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
  if (lineNumber == 1 && number.starts_with(byteOrderMark)) {
    return "the file starts with a byte-order mark, which becomes part of the number " +
           quoted(number.substr(byteOrderMark.size()));
  }
  for (std::size_t i = 0; i < number.size(); ++i) {
    const char c = number[i];
    if (isDigit(c) || (c == '+' && i == 0) || std::string_view("-./()").find(c) != std::string_view::npos) continue;
    std::string what;
    if (c == '+') {
      what = number.substr(0, i).find('+') != std::string_view::npos ? "a second '+'" : "a '+' after its start";
    } else if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')) {
      what = std::string("the letter '") + c + "'";
    } else {
      what = "the character " + quoted(number.substr(i, 1));
    }
    return "the number " + quoted(number) + " holds " + what;
  }
  return {};
}

}  // namespace DAT::NumberPortability
