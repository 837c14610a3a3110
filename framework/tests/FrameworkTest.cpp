// The framework's directory of named objects with their requests, messages, statuses and
// registry subtrees; the chain of live frameworks; probes; the log, one whole line per status or
// event whatever the data and however many threads write; and the message catalogue.
#include "BAS/EventHandler.h"
#include "BAS/FileLogSink.h"
#include "BAS/Framework.h"
#include "BAS/MemoryLogSink.h"
#include "BAS/Message.h"
#include "BAS/MessageCatalogue.h"
#include "OMF/InstrumentationProbeBrokerIf.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>
#include <tuple>

namespace {

using namespace std::chrono;
using namespace BAS;
using Strings = std::vector<String>;

// Answers requests with its name and the argument. Passes messages on to "Target" and registers
// an object while being delivered to, which deadlocks if the framework holds its lock meanwhile.
struct Recorder : RegisteredObject {
  using RegisteredObject::RegisteredObject;
  void receiveMessage(const Message& message) override {
    received.push_back(message.messageId());
    Message onward(lockedName(), "Target", message.messageId(), message.argument());
    if (lockedName() != "Target") sendMessage(onward), Recorder("Late");
  }
  bool receiveRequest(Message& request) override {
    request.answer() = {lockedName(), request.argument()};
    return true;
  }
  Strings received;
};

struct FrameworkTest : ::testing::Test {
  FrameworkTest() { framework.log().addSink(sink); }
  Framework framework;
  std::shared_ptr<MemoryLogSink> sink = std::make_shared<MemoryLogSink>();
};

TEST_F(FrameworkTest, RequestsReachTheRootOrTheirObjectAndMessagesAreDeliveredAndLoggedAsEvents) {
  framework.setEventHandlerName(String("First"));
  framework.setEventHandlerName(String("EventHandler"));  // replaces the first handler
  Recorder target("Target"), forwarder("Forwarder");
  RegisteredObject silent("Silent");
  for (const auto& [receiver, id, answer] :
       {std::tuple{"Framework", "REQ_EVENTHANDLER_NAME", Strings{"EventHandler"}}, {"Framework", "REQ_OTHER", {}},
        {"Target", "REQ_ECHO", {"Target", "argument"}}, {"Nobody", "REQ_ECHO", {}}, {"Silent", "REQ_ECHO", {}}}) {
    Message request("NP", receiver, id, "argument");
    EXPECT_TRUE(RegisteredObject::sendRequest(request) == !answer.empty() && request.answer() == answer) << receiver;
  }
  Message reload("NP", "EventHandler", "EVT::RELOADED", ""), lost("NP", "First", "EVT::FAILED", "why");
  Message chain("NP", "Forwarder", "EVT::CHAIN", "x");
  EXPECT_TRUE(RegisteredObject::sendMessage(reload) && !RegisteredObject::sendMessage(lost) &&
              RegisteredObject::sendMessage(chain));
  EXPECT_TRUE(framework.eventHandler()->received() == 1 && target.received == Strings{"EVT::CHAIN"});
  const std::vector<std::string> lines = sink->lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_TRUE(lines[1].ends_with(" EVENT NP -> First EVT::FAILED [\"why\"] not-delivered")) << lines[1];
  EXPECT_TRUE(lines[2].ends_with(" EVENT Forwarder -> Target EVT::CHAIN [\"x\"] delivered")) << lines[2];
  framework.setEventHandlerName(std::nullopt);
  Message request("NP", "Framework", "REQ_EVENTHANDLER_NAME", "");
  EXPECT_FALSE(RegisteredObject::sendRequest(request) || framework.findObject("EventHandler"));
}

TEST_F(FrameworkTest, RegistrationRefusesTakenEmptyAndRootNamesAndObjectsFindTheirStatusAndRegistrySubtree) {
  {
    Recorder first("NumberPortability");
    for (const char* name : {"NumberPortability", "", "Framework"}) EXPECT_FALSE(Recorder(name).isUsable()) << name;
    EXPECT_TRUE(framework.findObject("NumberPortability") == &first && first.isUsable());
  }
  EXPECT_TRUE(framework.findObject("NumberPortability") == nullptr && Recorder("NumberPortability").isUsable());
  Recorder object("NumberPortability"), dotted("pipeline.np"), missing("Missing");
  object.setStatus(Status("ERR_INVALID_REG_VALUE", Status::CRITICAL, "MAYBE"), true);
  object.setStatus(Status("INF_FILE_OPENED", Status::NORMAL, "np.txt"), false);  // not written
  ASSERT_EQ(sink->lines().size(), 1u);
  EXPECT_NE(sink->lines()[0].find(" CRITICAL(5) NumberPortability ERR_INVALID_REG_VALUE [\"MAYBE\"] "), std::string::npos);
  framework.registry().child("NumberPortability").add("FileName", "old.txt");
  framework.registry().child("NumberPortability").add("FileName", "np.txt");  // a key is set, not repeated
  framework.registry().child("pipeline").child("np").add("CountryCode", "49");
  EXPECT_TRUE(object.registry()->children().size() == 1 && object.registry()->find("FileName")->value() == "np.txt");
  EXPECT_TRUE(dotted.registry()->find("CountryCode")->value() == "49" && missing.registry() == nullptr);
}

TEST(Framework, CurrentIsTheLatestLiveFrameworkAndWithoutOneNothingIsRegisteredOrSent) {
  {
    Recorder lonely("Lonely");
    Message request("Lonely", "Framework", "REQ_EVENTHANDLER_NAME", ""), message("Lonely", "Lonely", "EVT::X", "");
    EXPECT_FALSE(Framework::current() || lonely.isUsable() || lonely.registry() ||
                 RegisteredObject::sendRequest(request) || RegisteredObject::sendMessage(message));
  }
  auto outer = std::make_unique<Framework>();
  auto survivor = std::make_unique<Recorder>("Survivor");
  {
    Framework inner;
    EXPECT_TRUE(Framework::current() == &inner && Recorder("Survivor").isUsable()) << "a directory of its own";
  }
  EXPECT_EQ(outer->findObject("Survivor"), survivor.get());
  auto newer = std::make_unique<Framework>();
  outer.reset();  // out of order, while a newer one is current
  EXPECT_EQ(Framework::current(), newer.get());
  survivor.reset();  // its framework is gone; ending must not touch it
  newer.reset();
  EXPECT_EQ(Framework::current(), nullptr);
}

// The plug-in's tests read a good probe file; here: odd entries, and files that cannot be read.
TEST_F(FrameworkTest, ProbeFilesGiveEachTableItsDescriptionOrAreReportedOnBehalfOfTheObject) {
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / ("np-probe-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir / "folder.probe");
  framework.setProbeDirectory(String(dir.string()));
  std::ofstream(dir / "np.probe") << "version = 3\n[group]\ndescription = \"Ctl\"\n[print]\n[delta]\ndescription = 4\n";
  std::ofstream(dir / "broken.probe") << "[group]\ndescription = \"fine\"\n[reload\n";
  RegisteredObject reader("NumberPortability");
  std::map<String, InstrumentationProbe::ProbeInfo> infos;
  ASSERT_TRUE(OMF::InstrumentationProbeBrokerIf::ReadProbeInfoFile(&reader, "np.probe", infos));
  EXPECT_TRUE(infos.size() == 3 && infos["print"].name == "print" && infos["delta"].description.empty());
  for (const auto& [name, reason] :
       {std::pair{"absent.probe", "No such file"}, {"broken.probe", "line 3"}, {"folder.probe", ""}}) {
    infos.clear(), sink->clear();
    EXPECT_FALSE(OMF::InstrumentationProbeBrokerIf::ReadProbeInfoFile(&reader, name, infos) || !infos.empty());
    ASSERT_EQ(sink->withId("ERR_PROBE_INFO_FILE").size(), 1u) << name;
    const LogRecord report = sink->records()[0];
    EXPECT_TRUE(report.object == "NumberPortability" && report.args.at(0) == (dir / name).string());
    EXPECT_NE(report.args.at(1).str().find(reason), std::string::npos) << report.args[1];
  }
  std::filesystem::remove_all(dir);
}

LogRecord record(Strings args, String id = "INF_NUM_PORT_PRINT_DATA", int severity = 1) {
  LogRecord r;
  r.time = sys_days{year{2026} / 11 / 22} + 20h + 38min + 22s + 123ms;
  r.id = id, r.text = MessageCatalogue::text(id, args), r.args = std::move(args), r.object = "NP", r.severity = severity;
  return r;
}

TEST(Log, TextAndJsonLinesShowEveryFieldAndDataCannotBreakThem) {
  LogRecord event = record({""}, "EVT::RELOADED");
  event.kind = LogRecord::Kind::EVENT, event.sender = "NP", event.delivered = false;
  const std::pair<LogRecord, std::string> rows[] = {
      {record({"12", "File : out.txt"}), "NORMAL(1) NP INF_NUM_PORT_PRINT_DATA [\"12\", \"File : out.txt\"] "
                                         "12 number portability records were printed to File : out.txt."},
      {event, "EVENT NP -> \"\" EVT::RELOADED [\"\"] not-delivered"},
      {record({"2", "3", "a \"q\"\tl\r\n\x01", "At Line# 7. "}, "ERR_NUMBER_OF_FIELDS_IN_RECORD", 2),
       "MINOR(2) NP ERR_NUMBER_OF_FIELDS_IN_RECORD [\"2\", \"3\", \"a \\\"q\\\"\\tl\\r\\n\\u0001\", \"At Line# 7. \"] "
       "At Line# 7. The record has 2 fields instead of 3 and is skipped: \"a \"q\"\\tl\\r\\n\\u0001\"."}};
  for (const auto& [r, line] : rows) EXPECT_EQ(Log::formatLine(r, Log::Format::TEXT), "2026-11-22T20:38:22.123Z " + line);

  std::string controls = "\x7f say \"hi\" \\";
  for (char c = 0; c < 0x20; ++c) controls += c;
  const std::string valid = "M\xC3\xBCller \xE2\x82\xAC \xF0\x9F\x93\x9E";
  // A stray continuation byte, a truncated sequence, an overlong form, a surrogate, a code point
  // past U+10FFFF, 0xFF; a reader makes U+00XX of each byte written as \u00XX.
  const std::string invalid = "a\x80" "b\xE2\x82" "c\xC0\xAF" "d\xED\xA0\x80" "e\xF4\x90\x80\x80" "f\xFF";
  std::string readBack;
  for (const unsigned char c : invalid) {
    readBack += c < 0x80 ? std::string(1, c) : std::string{char(0xC0 | c >> 6), char(0x80 | (c & 0x3F))};
  }
  LogRecord status = record({controls, valid, invalid});
  status.object = "obj\n", status.text = "plain";
  const std::string line = Log::formatLine(status, Log::Format::JSON);
  EXPECT_NE(line.find(valid), std::string::npos);
  EXPECT_TRUE(std::ranges::none_of(line, [](unsigned char c) { return c < 0x20 || c == 0x7f; })) << line;
  EXPECT_EQ(nlohmann::json::parse(line),
            nlohmann::json({{"time", "2026-11-22T20:38:22.123Z"}, {"kind", "status"}, {"object", "obj\n"},
                            {"severity", 1}, {"id", "INF_NUM_PORT_PRINT_DATA"}, {"args", {controls, valid, readBack}},
                            {"text", "plain"}}));
  EXPECT_EQ(nlohmann::json::parse(Log::formatLine(event, Log::Format::JSON)).at("delivered"), false);
}

// A rejected data line of any size must become a log argument of bounded size that stays valid
// UTF-8 and says how long it was; short arguments, and the event's, pass as they are.
TEST(Log, AnArgumentPastTheLimitIsCutBeforeACharacterAndSaysItsSize) {
  const std::string head(Log::maxArgumentBytesCM - 1, 'x'), line = head + "\xC3\xBC" + std::string(1 << 20, 'y');
  Status status;
  status.set("NP", "ERR_NUMBER_OF_FIELDS_IN_RECORD", Status::MINOR, Strings{"2", "3", String(line), "At Line# 7. "});
  const std::string cut = head + "... (" + std::to_string(line.size()) + " bytes in all)";
  EXPECT_EQ(Log::statusRecord(status).args, (Strings{"2", "3", String(cut), "At Line# 7. "}));
  EXPECT_EQ(Log::eventRecord(Message("NP", "", "EVT::RELOADED", String(line)), true).args, Strings{String(cut)});
}

TEST(Log, EverySinkGetsEveryLineWholeAndInOrderFromManyThreads) {
  const std::string path = (std::filesystem::temp_directory_path() / ("np-log-" + std::to_string(::getpid()))).string();
  std::ofstream(path) << "earlier line\n";
  const auto inFile = [&path] { std::ifstream in(path); return std::string(std::istreambuf_iterator<char>(in), {}); };
  Log log;
  auto memory = std::make_shared<MemoryLogSink>();
  auto file = std::make_shared<FileLogSink>(String(path));
  log.addSink(file), log.addSink(memory);
  std::vector<std::thread> writers;
  for (unsigned t = 0; t < 8000; t += 1000) {
    writers.emplace_back([&log, t] {
      for (unsigned i = 0; i < 200; ++i) log.writeStatus(Status("INF_LOAD_DATA", Status::NORMAL, String::decimal(t + i)));
    });
  }
  EXPECT_TRUE(memory->waitFor("INF_LOAD_DATA", 1600, hours(1)));
  for (auto& writer : writers) writer.join();
  std::string expected = "earlier line\n";
  std::map<int, int> next;
  for (const LogRecord& r : memory->records()) {
    const int value = std::stoi(r.args[0].str());
    EXPECT_EQ(value % 1000, next[value / 1000]++) << "the lines of one thread stay in its order";
  }
  for (const std::string& line : memory->lines()) expected += line + "\n";
  EXPECT_EQ(inFile(), expected) << "each line is flushed at once";
  log.removeSink(file);
  log.writeEvent(Message("NP", "EventHandler", "EVT::RELOAD_FAILED", "x"), false);
  EXPECT_TRUE(memory->count("EVT::RELOAD_FAILED") == 1 && inFile() == expected);
  std::filesystem::remove(path);
}

TEST(MessageCatalogue, FillsEachPlaceholderOnceAndLosesNoArgument) {
  for (const auto& [idAndArgs, text] :
       {std::pair{Strings{"ERR_REG_VALUE_INVALID", "NP.X", "abc"}, "The registry key NP.X has the invalid value 'abc'."},
        {{"ERR_REG_VALUE_INVALID", "NP.X"}, "The registry key NP.X has the invalid value ''."},
        {{"INF_FILE_OPENED", "np.txt", "surplus", "more"}, "The file np.txt was opened. (surplus, more)"},
        {{"INF_FILE_EOF", "{1}{2}"}, "The end of the file {1}{2} was reached."},
        {{"ERR_NOT_IN_THE_CATALOGUE", "a", "b"}, "ERR_NOT_IN_THE_CATALOGUE: a, b"}}) {
    EXPECT_EQ(MessageCatalogue::text(idAndArgs[0], {idAndArgs.begin() + 1, idAndArgs.end()}), text);
  }
  // Every identifier that the system reports, with the number of its arguments.
  for (const auto& [id, count] : std::map<std::string, int>{
           {"ERR_PROBE_INFO_FILE", 2}, {"ERR_NUMBER_OF_FIELDS_IN_RECORD", 4}, {"ERR_INVALID_DATETIME", 3},
           {"ERR_DUPLICATE_NUMPORTDATA", 3}, {"INF_FILE_CLOSED", 1}, {"INF_FILE_EOF", 1}, {"ERR_FILE_READ_ERR", 1},
           {"INF_DELETE_OLD_DATA", 1}, {"ERR_CLOSE_NP_FILE", 1}, {"ERR_OBJ_NOT_INITIALIZED", 1}, {"INF_LOAD_DATA", 1},
           {"INF_NUM_NPORT_LOADED", 1}, {"ERR_REG_SUBTREE_NOT_FOUND", 1}, {"ERR_REG_NAME_NOT_FOUND", 1},
           {"ERR_REG_VALUE_INVALID", 2}, {"ERR_FILE_NOT_FOUND", 1}, {"ERR_OPEN_FILE_FAILED", 1}, {"INF_FILE_OPENED", 1},
           {"ERR_INVALID_REG_ENTRIES", 1}, {"ERR_INVALID_REG_VALUE", 2}, {"INF_RELOAD_DATA", 1}, {"INF_ADD_DATA", 1},
           {"INF_NUM_NPORT_RELOADED", 1}, {"INF_NUM_NPORT_ADDED", 1}, {"ERR_NUM_PORT_RELOAD", 1},
           {"ERR_NUM_PORT_DELTALOAD", 1}, {"INF_NUM_PORT_PRINT_DATA", 2}, {"ERR_NUM_PORT_PRINT_DATA", 1},
           {"ERR_FILE_NOT_WRITTEN", 2}, {"ERR_EVENT_RECORD_FIELDS", 3}, {"ERR_EVENT_RECORD_DATETIME", 3}}) {
    Strings args;
    for (int i = 1; i <= count; ++i) args.push_back(String("<" + std::to_string(i) + ">"));
    const std::string text = MessageCatalogue::text(String(id), args).str();
    EXPECT_TRUE(MessageCatalogue::templateOf(String(id)) && text.find_first_of("{(") == std::string::npos) << text;
    for (const String& arg : args) {
      EXPECT_TRUE(text.find(arg.str()) != std::string::npos && text.find(arg.str()) == text.rfind(arg.str())) << text;
    }
  }
}

}  // namespace
