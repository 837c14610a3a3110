#include "host/script/CommandInterpreter.h"

#include "BAS/DateTime.h"
#include "BAS/FailureText.h"
#include "BAS/InstrumentationProbeGroup.h"
#include "BAS/Log.h"
#include "BAS/ProtectedBool.h"
#include "BAS/RegistryEntry.h"
#include "BAS/Status.h"
#include "PLG/DataPlugIn.h"
#include "host/common/GenerationText.h"
#include "host/script/WordSplitter.h"
#include "plugin/PortabilityLookup.h"

#include <sys/stat.h>

#include <cctype>
#include <charconv>
#include <cstdio>
#include <ctime>
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

// The log's form of a time: UTC, milliseconds.
std::string isoTime(std::chrono::system_clock::time_point time) {
  const auto sinceEpoch = std::chrono::floor<std::chrono::milliseconds>(time).time_since_epoch().count();
  const std::time_t seconds = static_cast<std::time_t>(sinceEpoch / 1000);
  std::tm utc{};
  if (gmtime_r(&seconds, &utc) == nullptr) return "never";
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(sinceEpoch % 1000));
  return text;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i]))) return false;
  return true;
}

}  // namespace

CommandInterpreter::CommandInterpreter(const Services& services) : servicesM(services), modeM(Mode::SCRIPT) {}

CommandInterpreter::CommandInterpreter(const Services& services, Mode mode, ControlLimits limits)
    : servicesM(services), modeM(mode), limitsM(std::move(limits)) {}

std::optional<std::string> CommandInterpreter::execute(std::string_view line) {
  const auto first = line.find_first_not_of(" \t\r");
  if (first == std::string_view::npos || line[first] == '#') return std::nullopt;
  if (!WordSplitter::split(line, wordsM)) return "error malformed quoting";
  if (wordsM.empty()) return std::nullopt;
  pendingM.reset();
  std::string answer;
  try {
    answer = dispatch(wordsM);
  } catch (...) {
    // The plug-in lets an allocation failure (or any exception) of an update or a probe write
    // through; it ends this command only, and the data that served before goes on serving.
    pendingM.reset();
    const std::string cause = BAS::failureText(std::current_exception());
    BAS::Status status;
    status.set(BAS::String(reporterNameCM), commandFailedIdCM, BAS::Status::CRITICAL,
               {BAS::String(std::string(line)), BAS::String(cause)});
    servicesM.log.writeStatus(status);
    return "error the command was ended by an unexpected failure: " + cause;
  }
  // Only an "await" of the control socket answers nothing now: its wait answers later.
  if (answer.empty()) return std::nullopt;
  return answer;
}

std::string CommandInterpreter::dispatch(const Words& words) {
  const std::string& command = words.front();
  if (modeM == Mode::CONTROL) {
    if (auto refused = refusal(words)) return *refused;
  }
  if (command == "search") return search(words);
  if (command == "explain") return explain(words);
  if (command == "usable") return usable(words);
  if (command == "status") return status(words);
  if (command == "update") return update(words);
  if (command == "probe") return probe(words);
  if (command == "await") return await(words);
  if (command == "after") return after(words);
  if (command == "sleep") return sleep(words);
  if (command == "shutdown") return shutdown(words);
  return "error unknown command " + command;
}

// search and explain: one lookup of NUMBER at DATETIME, counted as every lookup is; an error
// answer when the words are not that.
namespace {
std::string lookUpOne(const CommandInterpreter::Services& services, const std::vector<std::string>& words,
                      DAT::NumberPortability::PortabilityLookup::Answer& answer, bool& found) {
  if (words.size() != 3) return "error usage: " + words[0] + " NUMBER DATETIME";
  const BAS::DateTime dateTime{std::string_view(words[2])};
  if (!dateTime.isValid()) return "error invalid date-time";
  const std::string_view number = words[1];
  services.lookup.lookUp(&number, &dateTime, 1, &answer, &found);
  services.metrics.addLookups(found ? 1 : 0, found ? 0 : 1);
  return {};
}
}  // namespace

std::string CommandInterpreter::search(const Words& words) {
  DAT::NumberPortability::PortabilityLookup::Answer answer;
  bool found = false;
  if (std::string error = lookUpOne(servicesM, words, answer, found); !error.empty()) return error;
  if (!found) return "not-found";
  return "found " + std::string(answer.networkOperator.view()) + " " + answer.validFrom.asString("%Y%m%d%H%M%S").str();
}

std::string CommandInterpreter::explain(const Words& words) {
  DAT::NumberPortability::PortabilityLookup::Answer answer;
  bool found = false;
  if (std::string error = lookUpOne(servicesM, words, answer, found); !error.empty()) return error;
  std::string match = "none";
  if (found) {
    match = answer.keyLength == DAT::NumberPortability::PortabilityLookup::digitCount(words[1])
                ? std::string("number")
                : "prefix:" + std::to_string(answer.keyLength);
  }
  // The record and the generation come from one lookup, so they name the same data.
  return "explain operator=" + (found ? WordSplitter::quote(answer.networkOperator.view()) : std::string()) +
         " valid_from=" + (found ? answer.validFrom.asString("%Y%m%d%H%M%S").str() : std::string()) +
         " match=" + match + " generation=" + GenerationText::of(answer.generation);
}

std::string CommandInterpreter::usable(const Words& words) {
  if (words.size() != 1) return "error usage: usable";
  return std::string("usable ") + truth(servicesM.plugIn.isUsable());
}

std::string CommandInterpreter::status(const Words& words) {
  if (words.size() != 1) return "error usage: status";
  std::string line = "status";
  const auto add = [&line](const char* key, const std::string& value) {
    line += ' ';
    line += key;
    line += '=';
    line += WordSplitter::quote(value);
  };
  // Nothing here waits for the cache's exchange or holds up lookups: the record count and the
  // figures are read without the cache's lock.
  DAT::NumberPortability::PortabilityLookup& lookup = servicesM.lookup;
  const auto figures = lookup.loadFigures();
  add("records", std::to_string(lookup.activeRecords()));
  add("usable", truth(servicesM.plugIn.isUsable()));
  add("file", lookup.dataFileName());
  add("loading", truth(figures.loading));
  // The last load of any kind (start-up, reload, delta load), named so that its figures are not
  // taken for the start-up load's in the run's summary.
  add("last_load_lines_loaded", std::to_string(figures.linesTaken));
  add("last_load_lines_rejected", std::to_string(figures.linesRejected));
  // Reloads and delta loads come through registry updates and through the worker alike; both
  // end in one of these events, which the log sees whatever road they took.
  const CountingLogSink& counts = servicesM.counts;
  const auto lastOf = [&counts](const char* succeeded, const char* failed, std::string& time, std::string& result) {
    const auto ok = counts.lastTime(succeeded);
    const auto bad = counts.lastTime(failed);
    if (!ok && !bad) {
      time = "never";
      result = "none";
      return;
    }
    const bool lastOk = ok && (!bad || *ok >= *bad);
    time = isoTime(lastOk ? *ok : *bad);
    result = lastOk ? "ok" : "failed";
  };
  std::string time, result;
  lastOf("EVT::RELOAD_SUCCESSFUL", "EVT::RELOAD_FAILED", time, result);
  add("reload", time);
  add("reload_result", result);
  lastOf("EVT::ADD_NUM_PORT_DATA_SUCCESSFUL", "EVT::ADD_NUM_PORT_DATA_FAILED", time, result);
  add("delta", time);
  // The events say what the plug-in did; the framework saw whether the data file holds it.
  switch (servicesM.rewrites.delta()) {
    case RewriteWatch::Delta::UNSAVED: result = "unsaved"; break;
    case RewriteWatch::Delta::DROPPED: result = "failed"; break;
    case RewriteWatch::Delta::UNKNOWN: break;
  }
  add("delta_result", result);
  add("lookups", std::to_string(servicesM.metrics.lookups()));
  add("worker", lookup.workerRunning() ? "running" : "stopped");
  add("generation", GenerationText::of(lookup.generation()));
  return line;
}

std::string CommandInterpreter::after(const Words& words) {
  static constexpr const char* usage = "error usage: after ID TIMEOUT_MS COMMAND [ARGS...]";
  if (words.size() < 4) return usage;
  unsigned long long timeoutMs = 0;
  if (!readNumber(words[2], longestWaitMsCM, timeoutMs))
    return "error TIMEOUT_MS must be a whole number of milliseconds up to " + std::to_string(longestWaitMsCM);
  if (words[3] == "after" || words[3] == "await") return "error after cannot wrap " + words[3];
  const std::string& id = words[1];
  // Noted before the command runs: only an entry logged after this counts, so an earlier
  // reload's event cannot answer for the one this command starts, nor an earlier failure end
  // the wait.
  CountingLogSink::Goal goal{id, servicesM.counts.count(id) + 1, failureOf(id), 0};
  if (!goal.failureId.empty()) goal.failureCount = servicesM.counts.count(goal.failureId) + 1;
  // The slot is taken before the command runs: a wait refused afterwards would leave a command
  // carried out whose end nobody hears of.
  WaitSlots::Slot slot = takeWaitSlot();
  if (modeM == Mode::CONTROL && !slot) return "error too many waits";
  const std::string answer = dispatch(Words(words.begin() + 3, words.end()));
  // A refused command started nothing to wait for.
  if (answer.starts_with("error")) return answer;
  if (modeM == Mode::CONTROL) {
    pendingM = PendingWait{std::move(goal), std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs),
                           std::move(slot)};
    return answer;
  }
  return answer + "\n" + waitAnswer(id, servicesM.counts.waitFor(goal, std::chrono::milliseconds(timeoutMs)));
}

std::string CommandInterpreter::waitAnswer(const std::string& id, CountingLogSink::Outcome outcome) {
  switch (outcome) {
    case CountingLogSink::Outcome::REACHED: return "await " + id + " ok";
    case CountingLogSink::Outcome::FAILED: return "await " + id + " failed";
    case CountingLogSink::Outcome::PENDING: break;
  }
  return "await " + id + " timeout";
}

std::string CommandInterpreter::failureOf(std::string_view id) {
  // A reload and a delta load end in one of two events whichever road they took; once the
  // failure is logged, the success will not come.
  if (id == "EVT::RELOAD_SUCCESSFUL") return "EVT::RELOAD_FAILED";
  if (id == "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL") return "EVT::ADD_NUM_PORT_DATA_FAILED";
  return {};
}

std::string CommandInterpreter::update(const Words& words) {
  if (words.size() < 2) return "error usage: update KEY=VALUE ...";
  BAS::RegistryEntry entry(servicesM.plugIn.lockedName());
  for (std::size_t i = 1; i < words.size(); ++i) {
    const std::string& word = words[i];
    const auto equals = word.find('=');
    const std::string key = word.substr(0, equals);
    if (key.empty()) return "error empty key in update";
    const std::string value = equals == std::string::npos ? std::string() : word.substr(equals + 1);
    entry.child(BAS::String(key)).setValue(BAS::String(value));
  }
  BAS::ProtectedBool taken(false);
  const RewriteWatch::CommandScope watched(servicesM.rewrites);
  const bool result = servicesM.plugIn.registryUpdate(&entry, taken);
  // The log names the data this update published before its answer tells of it.
  if (servicesM.publications != nullptr) servicesM.publications->flush();
  // The plug-in answers for the records it serves; whether the data file holds them is what the
  // framework saw on this thread.
  return std::string("update result=") + truth(result) + " taken=" + truth(taken.get()) +
         (watched.rewriteFailed() ? " saved=false" : "");
}

std::string CommandInterpreter::probe(const Words& words) {
  if (words.size() < 2 || words.size() > 3) return "error usage: probe NAME [VALUE]";
  const std::string& name = words[1];
  BAS::InstrumentationProbeList groups;
  servicesM.plugIn.getInstrumentationProbe(groups);
  for (const BAS::InstrumentationProbeGroup* group : groups) {
    const BAS::InstrumentationProbeAttribute* attribute = group ? group->find(BAS::String(name)) : nullptr;
    if (attribute == nullptr || attribute->value() == nullptr) continue;
    // A request that nobody will carry out must not be answered as taken.
    if (!servicesM.lookup.workerRunning()) return "error the background worker has stopped";
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
  if (modeM == Mode::CONTROL) {
    WaitSlots::Slot slot = takeWaitSlot();
    if (!slot) return "error too many waits";
    pendingM = PendingWait{CountingLogSink::Goal{words[1], static_cast<std::size_t>(count), {}, 0},
                           std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs), std::move(slot)};
    return std::string();
  }
  const bool reached =
      servicesM.counts.waitFor(words[1], static_cast<std::size_t>(count), std::chrono::milliseconds(timeoutMs));
  return waitAnswer(words[1], reached ? CountingLogSink::Outcome::REACHED : CountingLogSink::Outcome::PENDING);
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
  return std::string("shutdown result=") + truth(servicesM.plugIn.shutdown());
}

std::optional<std::string> CommandInterpreter::refusal(const Words& words) const {
  const std::string& command = words.front();
  if (command == "sleep" || command == "shutdown") return "error " + command + " is not available on the control socket";
  // An empty PrintData value and the probe value NULL print to standard output, where the
  // enriched records go.
  bool toStandardOutput = false;
  std::optional<std::string> target;
  if (command == "update") {
    for (std::size_t i = 1; i < words.size(); ++i) {
      toStandardOutput = toStandardOutput || words[i] == "PrintData" || words[i] == "PrintData=";
      if (words[i].starts_with("PrintData=")) target = words[i].substr(std::string_view("PrintData=").size());
    }
  } else if (command == "probe" && words.size() >= 2 && words[1] == "printData") {
    toStandardOutput = words.size() == 2 || equalsIgnoringCase(words[2], "NULL");
    if (!toStandardOutput) target = words[2];
  }
  if (toStandardOutput) return "error printing to standard output is not available on the control socket; name a file";
  if (target) return printRefusal(*target);
  return std::nullopt;
}

std::optional<std::string> CommandInterpreter::printRefusal(const std::string& target) const {
  // The file a name leads to, through every link: a print there replaces what it holds. A name
  // that leads to no file yet cannot be one of them.
  struct stat leadsTo {};
  if (::stat(target.c_str(), &leadsTo) != 0) return std::nullopt;
  const auto refuse = [&target](const std::string& what) {
    return "error the print file '" + target + "' is " + what + "; name another file";
  };
  for (const OwnFile& own : limitsM.ownFiles)
    if (own.device == leadsTo.st_dev && own.inode == leadsTo.st_ino) return refuse("the run's " + own.role);
  // By its name now, not as it was at the start: a delta load's rewrite gives the data file a
  // new identity, and a second link to the old one is no longer the data file.
  struct stat dataFile {};
  const std::string dataFileName = servicesM.lookup.dataFileName();
  if (::stat(dataFileName.c_str(), &dataFile) == 0 && dataFile.st_dev == leadsTo.st_dev &&
      dataFile.st_ino == leadsTo.st_ino)
    return refuse("the main data file '" + dataFileName + "'");
  return std::nullopt;
}

WaitSlots::Slot CommandInterpreter::takeWaitSlot() const {
  if (modeM != Mode::CONTROL) return WaitSlots::Slot();
  if (limitsM.waits == nullptr) return WaitSlots::Slot();
  return limitsM.waits->take();
}

}  // namespace Host
