#include "host/script/CommandInterpreter.h"

#include "BAS/DateTime.h"
#include "BAS/InstrumentationProbeGroup.h"
#include "BAS/ProtectedBool.h"
#include "BAS/RegistryEntry.h"
#include "PLG/DataPlugIn.h"
#include "host/script/WordSplitter.h"
#include "plugin/PortabilityLookup.h"

#include <cctype>
#include <charconv>
#include <thread>

namespace Host {

namespace {

// A whole decimal number not above `largest`: no sign, no blank, no fraction.
bool readNumber(const std::string& text, unsigned long long largest, unsigned long long& number) {
  unsigned long long value = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || failure != std::errc() || end != text.data() + text.size() || value > largest) return false;
  number = value;
  return true;
}

const char* truth(bool value) { return value ? "true" : "false"; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i]))) return false;
  return true;
}

}  // namespace

CommandInterpreter::CommandInterpreter(PLG::DataPlugIn& plugIn, DAT::NumberPortability::PortabilityLookup& lookup,
                                       const CountingLogSink& counts, Mode mode)
    : plugInM(plugIn), lookupM(lookup), countsM(counts), modeM(mode) {}

std::optional<std::string> CommandInterpreter::execute(std::string_view line) {
  const auto first = line.find_first_not_of(" \t\r");
  if (first == std::string_view::npos || line[first] == '#') return std::nullopt;
  if (!WordSplitter::split(line, wordsM)) return "error malformed quoting";
  if (wordsM.empty()) return std::nullopt;

  const std::string& command = wordsM.front();
  if (modeM == Mode::CONTROL) {
    if (auto refused = refusal(wordsM)) return refused;
  }
  if (command == "search") return search(wordsM);
  if (command == "usable") return usable(wordsM);
  if (command == "update") return update(wordsM);
  if (command == "probe") return probe(wordsM);
  if (command == "await") return await(wordsM);
  if (command == "sleep") return sleep(wordsM);
  if (command == "shutdown") return shutdown(wordsM);
  return "error unknown command " + command;
}

std::string CommandInterpreter::search(const Words& words) {
  if (words.size() != 3) return "error usage: search NUMBER DATETIME";
  const BAS::DateTime dateTime{std::string_view(words[2])};
  if (!dateTime.isValid()) return "error invalid date-time";
  const std::string_view number = words[1];
  DAT::NumberPortability::PortabilityLookup::Answer answer;
  bool found = false;
  lookupM.lookUp(&number, &dateTime, 1, &answer, &found);
  if (!found) return "not-found";
  return "found " + std::string(answer.networkOperator.view()) + " " + answer.validFrom.asString("%Y%m%d%H%M%S").str();
}

std::string CommandInterpreter::usable(const Words& words) {
  if (words.size() != 1) return "error usage: usable";
  return std::string("usable ") + truth(plugInM.isUsable());
}

std::string CommandInterpreter::update(const Words& words) {
  if (words.size() < 2) return "error usage: update KEY=VALUE ...";
  BAS::RegistryEntry entry(plugInM.lockedName());
  for (std::size_t i = 1; i < words.size(); ++i) {
    const std::string& word = words[i];
    const auto equals = word.find('=');
    const std::string key = word.substr(0, equals);
    if (key.empty()) return "error empty key in update";
    const std::string value = equals == std::string::npos ? std::string() : word.substr(equals + 1);
    entry.child(BAS::String(key)).setValue(BAS::String(value));
  }
  BAS::ProtectedBool taken(false);
  const bool result = plugInM.registryUpdate(&entry, taken);
  return std::string("update result=") + truth(result) + " taken=" + truth(taken.get());
}

std::string CommandInterpreter::probe(const Words& words) {
  if (words.size() < 2 || words.size() > 3) return "error usage: probe NAME [VALUE]";
  const std::string& name = words[1];
  BAS::InstrumentationProbeList groups;
  plugInM.getInstrumentationProbe(groups);
  for (const BAS::InstrumentationProbeGroup* group : groups) {
    const BAS::InstrumentationProbeAttribute* attribute = group ? group->find(BAS::String(name)) : nullptr;
    if (attribute == nullptr || attribute->value() == nullptr) continue;
    const bool result = attribute->value()->setValue(BAS::String(words.size() == 3 ? words[2] : std::string()));
    return "probe " + name + " result=" + truth(result);
  }
  return "error unknown probe " + name;
}

std::string CommandInterpreter::await(const Words& words) {
  if (words.size() < 2 || words.size() > 4) return "error usage: await ID [COUNT [TIMEOUT_MS]]";
  unsigned long long count = 1;
  unsigned long long timeoutMs = defaultAwaitTimeoutMsCM;
  const unsigned long long longest = modeM == Mode::CONTROL ? longestControlWaitMsCM : longestWaitMsCM;
  if (words.size() >= 3 && !readNumber(words[2], ~0ULL, count)) return "error COUNT must be a whole number";
  if (words.size() == 4 && !readNumber(words[3], longest, timeoutMs))
    return "error TIMEOUT_MS must be a whole number of milliseconds up to " + std::to_string(longest);
  const bool reached = countsM.waitFor(words[1], static_cast<std::size_t>(count), std::chrono::milliseconds(timeoutMs));
  return "await " + words[1] + (reached ? " ok" : " timeout");
}

std::string CommandInterpreter::sleep(const Words& words) {
  unsigned long long ms = 0;
  if (words.size() != 2) return "error usage: sleep MS";
  if (!readNumber(words[1], longestWaitMsCM, ms))
    return "error MS must be a whole number of milliseconds up to " + std::to_string(longestWaitMsCM);
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
  return "sleep " + words[1];
}

std::string CommandInterpreter::shutdown(const Words& words) {
  if (words.size() != 1) return "error usage: shutdown";
  // Shut-down is the plug-in's last life-cycle step and, as from a framework, comes once.
  if (shutDownM) return "error the plug-in is already shut down";
  shutDownM = true;
  return std::string("shutdown result=") + truth(plugInM.shutdown());
}

std::optional<std::string> CommandInterpreter::refusal(const Words& words) const {
  const std::string& command = words.front();
  if (command == "sleep" || command == "shutdown") return "error " + command + " is not available on the control socket";
  // An empty PrintData value and the probe value NULL print to standard output, where the
  // enriched records go.
  bool toStandardOutput = false;
  if (command == "update") {
    for (std::size_t i = 1; i < words.size(); ++i)
      toStandardOutput = toStandardOutput || words[i] == "PrintData" || words[i] == "PrintData=";
  } else if (command == "probe" && words.size() >= 2 && words[1] == "printData") {
    toStandardOutput = words.size() == 2 || equalsIgnoringCase(words[2], "NULL");
  }
  if (toStandardOutput) return "error printing to standard output is not available on the control socket; name a file";
  return std::nullopt;
}

}  // namespace Host
