// The log: one line per status or event, as text or JSON, whole and in order whatever the
// data and however many threads write; and the catalogue that gives each identifier its text.
#include "BAS/FileLogSink.h"
#include "BAS/Log.h"
#include "BAS/MemoryLogSink.h"
#include "BAS/Message.h"
#include "BAS/MessageCatalogue.h"
#include "BAS/Status.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono;
using BAS::Log;
using BAS::LogRecord;
using BAS::String;
using nlohmann::json;

LogRecord record(std::vector<String> args, String id = "INF_NUM_PORT_PRINT_DATA", int severity = 1) {
  LogRecord r;
  r.time = sys_days{year{2026} / 11 / 22} + 20h + 38min + 22s + 123ms;
  r.id = id, r.text = BAS::MessageCatalogue::text(id, args), r.args = std::move(args);
  r.object = "NumberPortability", r.severity = severity;
  return r;
}

LogRecord event(bool delivered, String receiver) {
  LogRecord r = record({""}, "EVT::RELOAD_SUCCESSFUL");
  r.kind = LogRecord::Kind::EVENT, r.sender = "NumberPortability", r.receiver = receiver, r.delivered = delivered;
  return r;
}

TEST(Log, TextLinesShowEveryFieldAndDataCannotBreakThem) {
  const std::pair<LogRecord, std::string> rows[] = {
      {record({"12", "File : out.txt"}), "NORMAL(1) NumberPortability INF_NUM_PORT_PRINT_DATA [\"12\", \"File : out.txt\"] "
                                         "12 number portability records were printed to File : out.txt."},
      {event(true, "EventHandler"), "EVENT NumberPortability -> EventHandler EVT::RELOAD_SUCCESSFUL [\"\"] delivered"},
      {event(false, ""), "EVENT NumberPortability -> \"\" EVT::RELOAD_SUCCESSFUL [\"\"] not-delivered"},
      {record({"2", "3", "a \"q\"\tl\r\n\x01", "At Line# 7. "}, "ERR_NUMBER_OF_FIELDS_IN_RECORD", 2),
       "MINOR(2) NumberPortability ERR_NUMBER_OF_FIELDS_IN_RECORD [\"2\", \"3\", \"a \\\"q\\\"\\tl\\r\\n\\u0001\", "
       "\"At Line# 7. \"] At Line# 7. The record has 2 fields instead of 3 and is skipped: \"a \"q\"\\tl\\r\\n\\u0001\"."},
  };
  for (const auto& [r, expected] : rows) EXPECT_EQ(Log::formatLine(r, Log::Format::TEXT), "2026-11-22T20:38:22.123Z " + expected);
}

TEST(Log, JsonLinesHaveTheDocumentedMembersAndEscapeControlsAndInvalidUtf8) {
  std::string controls = "\x7f say \"hi\" \\";
  for (int c = 0; c < 0x20; ++c) controls += static_cast<char>(c);
  const std::string valid = "M\xC3\xBCller \xE2\x82\xAC \xF0\x9F\x93\x9E";
  // A stray continuation byte, a truncated sequence, an overlong form, a surrogate, a code point
  // past U+10FFFF, 0xFF; a reader makes U+00XX of each byte written as \u00XX.
  const std::string invalid = "a\x80" "b\xE2\x82" "c\xC0\xAF" "d\xED\xA0\x80" "e\xF4\x90\x80\x80" "f\xFF";
  std::string readBack;
  for (const unsigned char c : invalid) readBack += c < 0x80 ? std::string(1, c) : std::string{char(0xC0 | c >> 6), char(0x80 | (c & 0x3F))};
  LogRecord status = record({controls, valid, invalid});
  status.object = "obj\n", status.text = "plain";
  const std::string line = Log::formatLine(status, Log::Format::JSON);
  for (const char c : line) EXPECT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != '\x7f') << line;
  EXPECT_NE(line.find(valid), std::string::npos) << "valid UTF-8 is written as it is";
  EXPECT_EQ(json::parse(line), json({{"time", "2026-11-22T20:38:22.123Z"}, {"kind", "status"}, {"object", "obj\n"},
                                     {"id", "INF_NUM_PORT_PRINT_DATA"}, {"severity", 1}, {"args", {controls, valid, readBack}},
                                     {"text", "plain"}}));
  EXPECT_EQ(json::parse(Log::formatLine(event(false, "EventHandler"), Log::Format::JSON)),
            json({{"time", "2026-11-22T20:38:22.123Z"}, {"kind", "event"}, {"sender", "NumberPortability"},
                  {"receiver", "EventHandler"}, {"id", "EVT::RELOAD_SUCCESSFUL"}, {"args", {""}}, {"delivered", false}}));
}

TEST(Log, EverySinkGetsEveryLineWholeAndInOrderFromManyThreads) {
  const std::string path = (std::filesystem::temp_directory_path() / ("np-log-" + std::to_string(::getpid()))).string();
  std::ofstream(path, std::ios::trunc) << "earlier line\n";
  const auto fileContents = [&path] { std::ifstream in(path); return std::string(std::istreambuf_iterator<char>(in), {}); };
  Log log;
  auto memory = std::make_shared<BAS::MemoryLogSink>();
  auto file = std::make_shared<BAS::FileLogSink>(String(path));
  log.addSink(file), log.addSink(memory), log.setFormat(Log::Format::JSON);
  std::vector<std::thread> writers;
  for (int t = 0; t < 8; ++t) {
    writers.emplace_back([&log, t] {
      for (int i = 0; i < 200; ++i) log.writeStatus(BAS::Status("INF_LOAD_DATA", BAS::Status::NORMAL, String(std::to_string(t * 1000 + i))));
    });
  }
  EXPECT_TRUE(memory->waitFor("INF_LOAD_DATA", 1600, hours(1)));
  for (auto& writer : writers) writer.join();
  std::string expected = "earlier line\n";
  std::map<int, int> next;
  for (const std::string& line : memory->lines()) {
    expected += line + "\n";
    const int value = std::stoi(json::parse(line).at("args")[0].get<std::string>());
    EXPECT_EQ(value % 1000, next[value / 1000]++);
  }
  EXPECT_EQ(fileContents(), expected) << "each line is flushed at once";
  log.removeSink(file);
  log.writeEvent(BAS::Message("NumberPortability", "EventHandler", "EVT::RELOAD_FAILED", "x"), false);
  EXPECT_EQ(memory->count("EVT::RELOAD_FAILED"), 1u);
  EXPECT_EQ(fileContents(), expected);
  std::filesystem::remove(path);
  BAS::FileLogSink nowhere{String("/nonexistent-directory/np.log")};
  EXPECT_FALSE(nowhere.ok());
  nowhere.write(LogRecord(), "dropped");  // must not crash
}

TEST(MessageCatalogue, FillsEachPlaceholderOnceAndLosesNoArgument) {
  using BAS::MessageCatalogue;
  EXPECT_EQ(MessageCatalogue::text("ERR_REG_VALUE_INVALID", {"NP.SearchMethod", "abc"}),
            "The registry key NP.SearchMethod has the invalid value 'abc'.");
  EXPECT_EQ(MessageCatalogue::text("ERR_REG_VALUE_INVALID", {"NP.SearchMethod"}), "The registry key NP.SearchMethod has the invalid value ''.");
  EXPECT_EQ(MessageCatalogue::text("INF_FILE_OPENED", {"np.txt", "surplus", "more"}), "The file np.txt was opened. (surplus, more)");
  EXPECT_EQ(MessageCatalogue::text("INF_FILE_EOF", {"{1}{2}"}), "The end of the file {1}{2} was reached.");
  EXPECT_EQ(MessageCatalogue::text("ERR_NOT_IN_THE_CATALOGUE", {"a", "b"}), "ERR_NOT_IN_THE_CATALOGUE: a, b");
  EXPECT_EQ(MessageCatalogue::templateOf("ERR_NOT_IN_THE_CATALOGUE"), nullptr);
  // Every identifier that the system reports, with the number of its arguments.
  const std::map<std::string, std::size_t> argumentCounts = {
      {"ERR_PROBE_INFO_FILE", 2}, {"ERR_NUMBER_OF_FIELDS_IN_RECORD", 4}, {"ERR_INVALID_DATETIME", 3}, {"ERR_DUPLICATE_NUMPORTDATA", 3},
      {"INF_FILE_CLOSED", 1}, {"INF_FILE_EOF", 1}, {"ERR_FILE_READ_ERR", 1}, {"INF_DELETE_OLD_DATA", 1}, {"ERR_CLOSE_NP_FILE", 1},
      {"ERR_OBJ_NOT_INITIALIZED", 1}, {"INF_LOAD_DATA", 1}, {"INF_NUM_NPORT_LOADED", 1}, {"ERR_REG_SUBTREE_NOT_FOUND", 1},
      {"ERR_REG_NAME_NOT_FOUND", 1}, {"ERR_REG_VALUE_INVALID", 2}, {"ERR_FILE_NOT_FOUND", 1}, {"ERR_OPEN_FILE_FAILED", 1},
      {"INF_FILE_OPENED", 1}, {"ERR_INVALID_REG_ENTRIES", 1}, {"ERR_INVALID_REG_VALUE", 2}, {"INF_RELOAD_DATA", 1},
      {"INF_NUM_NPORT_RELOADED", 1}, {"INF_ADD_DATA", 1}, {"INF_NUM_NPORT_ADDED", 1}, {"ERR_NUM_PORT_RELOAD", 1},
      {"ERR_NUM_PORT_DELTALOAD", 1}, {"INF_NUM_PORT_PRINT_DATA", 2}, {"ERR_NUM_PORT_PRINT_DATA", 1}, {"ERR_FILE_NOT_WRITTEN", 2},
      {"ERR_EVENT_RECORD_FIELDS", 3}, {"ERR_EVENT_RECORD_DATETIME", 3}};
  for (const auto& [id, count] : argumentCounts) {
    std::vector<String> args;
    for (std::size_t i = 1; i <= count; ++i) args.push_back(String("<" + std::to_string(i) + ">"));
    const std::string text = MessageCatalogue::text(String(id), args).str();
    EXPECT_NE(MessageCatalogue::templateOf(String(id)), nullptr) << id;
    for (const String& arg : args) EXPECT_TRUE(text.find(arg.str()) != std::string::npos && text.find(arg.str()) == text.rfind(arg.str())) << text;
    EXPECT_EQ(text.find_first_of("{("), std::string::npos) << id << ": " << text;
  }
}

}  // namespace
