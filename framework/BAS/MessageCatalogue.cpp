#include "BAS/MessageCatalogue.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

namespace BAS {

namespace {

struct CatalogueEntry {
  std::string_view id;
  const char* text;
};

// The one table of message texts. {n} stands for the n-th argument. Location texts that the
// data file parser passes already end in ". ", so the sentences after them start directly.
// Whoever adds identifiers adds them here.
constexpr CatalogueEntry entriesCM[] = {
    // The framework's own messages.
    {"ERR_PROBE_INFO_FILE", "The probe information file {1} cannot be used: {2}."},
    {"ERR_FILE_NOT_WRITTEN", "The file {1} was not written as asked: {2}."},
    {"ERR_FILE_NOT_READ", "The file {1} cannot be read: {2}."},
    {"ERR_LINE_TOO_LONG", "Line {2} of the file {1} is longer than {3} bytes; it is not read."},
    {"INF_FILE_REWRITE_FINISHED", "An interrupted rewrite of {1} was finished from its complete staged copy {2}."},
    {"INF_FILE_TEMPORARY_REMOVED", "The temporary file {1}, left by an interrupted write of {2}, was removed."},
    {"ERR_THREAD_FAILED", "The thread {1} was ended by an unexpected failure: {2}. It carries out nothing more."},

    // The number portability data plug-in: data file lines.
    {"ERR_NUMBER_OF_FIELDS_IN_RECORD", "{4}The record has {1} fields instead of {2} and is skipped: \"{3}\"."},
    {"ERR_INVALID_DATETIME", "{1}The date-time '{2}' of the number {3} is not valid; the record is skipped."},
    {"ERR_DUPLICATE_NUMPORTDATA", "{1}The number {2} already has a record valid from {3}; the record is skipped."},

    // Loading and files.
    {"INF_FILE_CLOSED", "The file {1} was closed."},
    {"INF_FILE_EOF", "The end of the file {1} was reached."},
    {"ERR_FILE_READ_ERR", "Reading the file {1} failed before its end."},
    {"INF_DELETE_OLD_DATA", "{1}: the new number portability data is in use and the old data was deleted."},
    {"ERR_CLOSE_NP_FILE", "The number portability data file {1} could not be closed."},
    {"ERR_OBJ_NOT_INITIALIZED", "An object of the class {1} was not initialised and cannot be used."},
    {"INF_LOAD_DATA", "{1}: loading the number portability data."},
    {"INF_NUM_NPORT_LOADED", "{1} number portability records were loaded."},

    // Registry configuration and file checks.
    {"ERR_REG_SUBTREE_NOT_FOUND", "The registry has no subtree for {1}."},
    {"ERR_REG_NAME_NOT_FOUND", "The mandatory registry key {1} is missing."},
    {"ERR_REG_VALUE_INVALID", "The registry key {1} has the invalid value '{2}'."},
    {"ERR_FILE_NOT_FOUND", "The file {1} was not found."},
    {"ERR_OPEN_FILE_FAILED", "The file {1} exists but could not be opened."},
    {"INF_FILE_OPENED", "The file {1} was opened."},

    // nphost: the plug-in's registry table as the plug-in would take it, judged at start.
    {"ERR_NPHOST_CONFIGURATION", "{1}:{2}: {3} {4}"},
    {"INF_NPHOST_CONFIGURATION", "{1}:{2}: note: {3} {4}"},

    // Run-time registry updates and worker requests.
    {"ERR_INVALID_REG_ENTRIES", "The registry update was refused: {1}"},
    {"ERR_INVALID_REG_VALUE", "The value '{1}' of the registry key {2} is not valid."},
    {"INF_RELOAD_DATA", "{1}: reloading the number portability data."},
    {"INF_NUM_NPORT_RELOADED", "{1} number portability records were reloaded."},
    {"INF_ADD_DATA", "{1}: adding number portability data."},
    {"INF_NUM_NPORT_ADDED", "Number portability records added: {1}."},
    {"ERR_NUM_PORT_RELOAD", "Reloading the number portability data from {1} failed."},
    {"ERR_NUM_PORT_DELTALOAD", "Adding the number portability data of {1} failed."},
    {"INF_NUM_PORT_PRINT_DATA", "{1} number portability records were printed to {2}."},
    {"ERR_NUM_PORT_PRINT_DATA", "Printing the number portability data to '{1}' failed."},

    // nphost: event records that pass through without an operator.
    {"ERR_EVENT_RECORD_FIELDS", "Line {1} of the input {2} has fewer than two fields and is passed on without an operator: \"{3}\"."},
    {"ERR_EVENT_RECORD_TOO_LONG", "Line {1} of the input {2} is longer than {3} bytes; it is passed on unchanged, without an operator."},
    {"ERR_NPHOST_COMMAND_FAILED", "The command \"{1}\" was ended by an unexpected failure: {2}. The data that served before goes on serving."},
    {"ERR_EVENT_RECORD_DATETIME", "Line {1} of the input {2}: the date-time '{3}' is not valid; the record is passed on without an operator."},

    // nphost: the story of a run or a script. The counts stand after a colon or in brackets, so
    // that the texts read right for one as for many.
    {"INF_NPHOST_START", "nphost {1} starts with the registry file {2}: instance {3}, data file {4}, lookup threads: {5}."},
    {"INF_NPHOST_READY", "nphost is ready: the start-up load took {2} s; records in service: {1}."},
    {"INF_NPHOST_METRICS", "nphost serves metrics at http://{1}/metrics."},
    {"INF_NPHOST_COMMAND", "Control socket command \"{1}\", answer \"{2}\"."},
    {"INF_NPHOST_SUMMARY", "Event records: {1} ({2} found, {3} not found, {4} rejected) in {5} s, {6} per second; data lines of the start-up load: {7} loaded, {8} rejected."},
    {"INF_NPHOST_STOP", "nphost stops ({1})."},
    {"INF_NPHOST_GENERATION", "Generation {1} answers lookups from now on ({2}): the data file {3}, {4} bytes, modified {5}, XXH3-128 {6}."},
};

const std::unordered_map<std::string_view, const char*>& index() {
  static const std::unordered_map<std::string_view, const char*> byId = [] {
    std::unordered_map<std::string_view, const char*> map;
    for (const CatalogueEntry& entry : entriesCM) map.emplace(entry.id, entry.text);
    return map;
  }();
  return byId;
}

void appendJoined(std::string& out, const std::vector<String>& args, const std::vector<bool>& skip) {
  bool first = true;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (i < skip.size() && skip[i]) continue;
    out += first ? "" : ", ";
    out += args[i].str();
    first = false;
  }
}

}  // namespace

const char* MessageCatalogue::templateOf(const String& id) {
  const auto& byId = index();
  const auto found = byId.find(id.view());
  return found == byId.end() ? nullptr : found->second;
}

String MessageCatalogue::text(const String& id, const std::vector<String>& args) {
  const char* pattern = templateOf(id);
  std::string out;
  if (pattern == nullptr) {
    out = id.str();
    if (!args.empty()) {
      out += ": ";
      appendJoined(out, args, {});
    }
    return String(std::move(out));
  }

  // A placeholder whose argument is missing (an optional one) becomes empty.
  std::vector<bool> placed(args.size(), false);
  const std::string_view text(pattern);
  std::size_t i = 0;
  while (i < text.size()) {
    if (text[i] == '{') {
      std::size_t j = i + 1;
      std::size_t number = 0;
      while (j < text.size() && j - i <= 3 && text[j] >= '0' && text[j] <= '9') {
        number = number * 10 + static_cast<std::size_t>(text[j++] - '0');
      }
      if (j > i + 1 && j < text.size() && text[j] == '}' && number >= 1) {
        if (number <= args.size()) {
          out += args[number - 1].str();
          placed[number - 1] = true;
        }
        i = j + 1;
        continue;
      }
    }
    out += text[i++];
  }
  if (std::find(placed.begin(), placed.end(), false) != placed.end()) {
    out += " (";
    appendJoined(out, args, placed);
    out += ')';
  }
  return String(std::move(out));
}

}  // namespace BAS
