// Fuzzes the host's command line handling: each line of the input (cut at line feeds, as the
// script reader reads them) goes through Host::WordSplitter and Host::CommandInterpreter,
// which drives a started in-process plug-in on a tiny data file. Commands whose effect reaches
// beyond this process or takes time (a real sleep or wait, shut-down, a print or delta load to
// a named file, a probe write) are split but not carried out; their refusals still are.
// Properties:
//  - the splitter fails exactly when a quote is left open; without quotes it splits at blanks;
//    the words, each re-quoted (or quoted as two touching halves) and joined by blanks or
//    tabulators, split back to the same words;
//  - the interpreter answers nothing exactly for a blank or comment line, "error malformed
//    quoting" when the splitter fails, and otherwise one line without a line end that starts
//    with the command's answer word or "error ";
//  - a search answers as the plug-in's own search does; an update without a command key is
//    answered "update result=true taken=false".
#include "BAS/DateTime.h"
#include "BAS/InstrumentationProbeAttribute.h"
#include "BAS/InstrumentationProbeGroup.h"
#include "BAS/InstrumentationProbeList.h"
#include "cache/fuzz/FuzzPlugIn.h"
#include "host/CommandInterpreter.h"
#include "host/CountingLogSink.h"
#include "host/WordSplitter.h"

#include <charconv>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using NpFuzz::failProperty;
using Words = std::vector<std::string>;

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::string quoted(std::string_view word) {
  std::string out = "\"";
  for (const char c : word) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + '"';
}

// A quote opens outside quotes; inside, a backslash takes the quote or backslash after it
// along, and a quote closes.
bool quotesClosed(std::string_view line) {
  bool inQuotes = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (!inQuotes) {
      inQuotes = line[i] == '"';
    } else if (line[i] == '\\' && i + 1 < line.size() && (line[i + 1] == '"' || line[i + 1] == '\\')) {
      ++i;
    } else if (line[i] == '"') {
      inQuotes = false;
    }
  }
  return !inQuotes;
}

Words blankSplit(std::string_view line) {
  Words words;
  std::string word;
  for (const char c : line) {
    if (!isBlank(c)) {
      word += c;
    } else if (!word.empty()) {
      words.push_back(std::move(word));
      word.clear();
    }
  }
  if (!word.empty()) words.push_back(std::move(word));
  return words;
}

void checkSplitting(std::string_view line, bool& splitOk, Words& words) {
  splitOk = Host::WordSplitter::split(line, words);
  if (splitOk != quotesClosed(line)) failProperty("the splitter fails exactly for an open quote", line);
  if (!splitOk) return;
  if (line.find('"') == std::string_view::npos && words != blankSplit(line))
    failProperty("a line without quotes splits at blanks", line);

  std::string spaced, tabbed, halves;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string_view word = words[i];
    spaced += (i ? " " : "") + quoted(word);
    tabbed += (i ? "\t\t" : "\t") + quoted(word);
    halves += (i ? " " : "") + quoted(word.substr(0, word.size() / 2)) + quoted(word.substr(word.size() / 2));
  }
  for (const std::string& again : {spaced, tabbed, halves}) {
    Words back;
    if (!Host::WordSplitter::split(again, back) || back != words)
      failProperty("re-quoted words split back to the same words", again);
  }
}

// A whole decimal number as the interpreter reads one, or nothing.
std::optional<unsigned long long> number(const std::string& text) {
  unsigned long long value = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || failure != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

bool isProbe(DAT::NumberPortability::PlugIn& plugIn, const std::string& name) {
  BAS::InstrumentationProbeList groups;
  plugIn.getInstrumentationProbe(groups);
  for (const BAS::InstrumentationProbeGroup* group : groups) {
    const BAS::InstrumentationProbeAttribute* attribute = group ? group->find(BAS::String(name)) : nullptr;
    if (attribute != nullptr && attribute->value() != nullptr) return true;
  }
  return false;
}

// Whether carrying out the line stays inside this process and returns at once.
bool harmless(const Words& words, DAT::NumberPortability::PlugIn& plugIn, const Host::CountingLogSink& counts) {
  if (words.empty()) return true;
  const std::string& command = words.front();
  constexpr auto longest = Host::CommandInterpreter::longestWaitMsCM;
  if (command == "sleep") {
    if (words.size() != 2) return true;
    const auto ms = number(words[1]);
    return !ms || *ms > longest || *ms == 0;
  }
  if (command == "await") {
    if (words.size() < 2 || words.size() > 4) return true;
    const auto count = words.size() >= 3 ? number(words[2]) : std::optional<unsigned long long>(1);
    if (!count) return true;
    if (words.size() == 4) {
      const auto timeout = number(words[3]);
      if (!timeout || *timeout > longest || *timeout == 0) return true;
    }
    return *count == 0 || counts.count(words[1]) >= *count;
  }
  if (command == "shutdown") return words.size() != 1;
  if (command == "probe") return words.size() < 2 || words.size() > 3 || !isProbe(plugIn, words[1]);
  if (command == "update") {
    bool reload = false, delta = false, print = false;
    for (std::size_t i = 1; i < words.size(); ++i) {
      const std::string key = words[i].substr(0, words[i].find('='));
      if (key.empty()) return true;  // refused before the plug-in sees anything
      reload = reload || key == "Reload";
      delta = delta || key == "AdditionalNumPortData";
      print = print || key == "PrintData";
    }
    return !print && (!delta || reload);
  }
  return true;
}

bool commandKey(const std::string& word) {
  const std::string key = word.substr(0, word.find('='));
  return key == "Reload" || key == "AdditionalNumPortData" || key == "PrintData";
}

void checkAnswer(std::string_view line, bool splitOk, const Words& words, const std::optional<std::string>& answer,
                 DAT::NumberPortability::PlugIn& plugIn) {
  const auto first = line.find_first_not_of(" \t\r");
  const bool silent = first == std::string_view::npos || line[first] == '#';
  if (answer.has_value() == silent) failProperty("only blank and comment lines go unanswered", line);
  if (silent) return;
  const std::string& text = *answer;
  if (text.find('\n') != std::string::npos) failProperty("an answer is one line", text);
  if (!splitOk) {
    if (text != "error malformed quoting") failProperty("an open quote is answered as malformed quoting", text);
    return;
  }
  if (text.starts_with("error ")) return;
  const std::string& command = words.front();
  if (!text.starts_with(command == "search" ? std::string("found ") : command + " ") &&
      !(command == "search" && text == "not-found"))
    failProperty("an answer starts with its command's word", text);
  if (command == "search") {
    DAT::NumberPortability::NumberPortabilityData record;
    const BAS::DateTime dateTime{std::string_view(words[2])};
    const std::string expected =
        plugIn.search(BAS::String(words[1]), dateTime, record)
            ? "found " + std::string(record.networkOperatorM.view()) + " " + record.validFromM.asString("%Y%m%d%H%M%S").str()
            : "not-found";
    if (text != expected) failProperty("a search answers as the plug-in's search", text);
  }
  if (command == "update") {
    bool anyCommand = false;
    for (std::size_t i = 1; i < words.size(); ++i) anyCommand = anyCommand || commandKey(words[i]);
    if (!anyCommand && text != "update result=true taken=false")
      failProperty("an update without a command key is not taken", text);
  }
}

struct Session {
  std::shared_ptr<Host::CountingLogSink> counts = std::make_shared<Host::CountingLogSink>();
  NpFuzz::PlugInEnvironment& environment = NpFuzz::PlugInEnvironment::instance(true, counts);
  Host::CommandInterpreter interpreter{environment.plugIn(), *counts};
};

Session& session() {
  static Session* theSession = new Session;
  return *theSession;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  session();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Session& s = session();
  DAT::NumberPortability::PlugIn& plugIn = s.environment.plugIn();
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  std::size_t start = 0;
  while (start <= input.size()) {
    const std::size_t end = std::min(input.find('\n', start), input.size());
    const std::string_view line = input.substr(start, end - start);
    start = end + 1;

    bool splitOk = false;
    Words words;
    checkSplitting(line, splitOk, words);
    if (splitOk && !harmless(words, plugIn, *s.counts)) continue;
    const std::optional<std::string> answer = s.interpreter.execute(line);
    checkAnswer(line, splitOk, words, answer, plugIn);
  }
  return 0;
}
