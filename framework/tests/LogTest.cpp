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

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::chrono;
using namespace std::chrono_literals;
using BAS::Log;
using BAS::LogRecord;
using BAS::String;
using nlohmann::json;

LogRecord statusRecord(std::vector<String> args, String id = "ERR_REG_NAME_NOT_FOUND", int severity = 5) {
  LogRecord record;
  record.time = sys_days{year{2026} / 11 / 22} + 20h + 38min + 22s + 123ms;
  record.id = id;
  record.text = BAS::MessageCatalogue::text(id, args);
  record.args = std::move(args);
  record.object = "NumberPortability";
  record.severity = severity;
  return record;
}

LogRecord eventRecord(bool delivered, String receiver = "EventHandler") {
  LogRecord record = statusRecord({""}, "EVT::RELOAD_SUCCESSFUL");
  record.kind = LogRecord::Kind::EVENT;
  record.sender = "NumberPortability";
  record.receiver = receiver;
  record.delivered = delivered;
  return record;
}

json parsed(const std::string& line) {
  json value = json::parse(line, nullptr, false);
  EXPECT_FALSE(value.is_discarded()) << line;
  return value;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string tempPath(const char* stem) {
  return (std::filesystem::temp_directory_path() / (std::string(stem) + "-" + std::to_string(::getpid()) + ".log"))
      .string();
}

TEST(LogFormat, TextLinesShowEveryFieldAndEscapeData) {
  const std::string time = "2026-11-22T20:38:22.123Z ";
  const std::pair<LogRecord, std::string> rows[] = {
      {statusRecord({"NumberPortability.CountryCode"}),
       "CRITICAL(5) NumberPortability ERR_REG_NAME_NOT_FOUND [\"NumberPortability.CountryCode\"] The mandatory "
       "registry key NumberPortability.CountryCode is missing."},
      {statusRecord({"12", "File : out.txt"}, "INF_NUM_PORT_PRINT_DATA", 1),
       "NORMAL(1) NumberPortability INF_NUM_PORT_PRINT_DATA [\"12\", \"File : out.txt\"] 12 number portability "
       "records were printed to File : out.txt."},
      {eventRecord(true), "EVENT NumberPortability -> EventHandler EVT::RELOAD_SUCCESSFUL [\"\"] delivered"},
      {eventRecord(false, ""), "EVENT NumberPortability -> \"\" EVT::RELOAD_SUCCESSFUL [\"\"] not-delivered"},
      // Data from a file cannot break the line.
      {statusRecord({"2", "3", "a \"quoted\"\tline\r\n\x01", "At Line# 7 in File 'np.txt'. "},
                    "ERR_NUMBER_OF_FIELDS_IN_RECORD", 2),
       "MINOR(2) NumberPortability ERR_NUMBER_OF_FIELDS_IN_RECORD [\"2\", \"3\", \"a \\\"quoted\\\"\\tline\\r\\n\\u0001\", "
       "\"At Line# 7 in File 'np.txt'. \"] At Line# 7 in File 'np.txt'. The record has 2 fields instead of 3"},
  };
  for (const auto& [record, expected] : rows) {
    const std::string line = Log::formatLine(record, Log::Format::TEXT);
    EXPECT_TRUE(line.starts_with(time + expected)) << line;
    for (const char c : line) EXPECT_GE(static_cast<unsigned char>(c), 0x20u) << line;
  }
}

TEST(LogFormat, JsonLinesHaveTheDocumentedMembers) {
  const json status = parsed(Log::formatLine(statusRecord({"3", "Console"}, "INF_NUM_PORT_PRINT_DATA", 1), Log::Format::JSON));
  EXPECT_EQ(status, json({{"time", "2026-11-22T20:38:22.123Z"},
                          {"kind", "status"},
                          {"object", "NumberPortability"},
                          {"id", "INF_NUM_PORT_PRINT_DATA"},
                          {"severity", 1},
                          {"args", {"3", "Console"}},
                          {"text", "3 number portability records were printed to Console."}}));
  for (const bool delivered : {true, false}) {
    const json event = parsed(Log::formatLine(eventRecord(delivered), Log::Format::JSON));
    EXPECT_EQ(event, json({{"time", "2026-11-22T20:38:22.123Z"},
                           {"kind", "event"},
                           {"sender", "NumberPortability"},
                           {"receiver", "EventHandler"},
                           {"id", "EVT::RELOAD_SUCCESSFUL"},
                           {"args", json::array({""})},
                           {"delivered", delivered}}));
  }
}

TEST(LogFormat, JsonEscapesControlBytesQuotesAndInvalidUtf8) {
  std::string controls;
  for (int c = 0; c < 0x20; ++c) controls += static_cast<char>(c);
  controls += '\x7f';
  const std::string quoted = "say \"hi\" \\ back\\slash";
  const std::string valid = "M\xC3\xBCller \xE2\x82\xAC \xF0\x9F\x93\x9E";  // two-, three- and four-byte forms
  // A stray continuation byte, a truncated sequence, an overlong form, an encoded surrogate, a
  // code point past U+10FFFF and 0xFF.
  const std::string invalid = "a\x80" "b\xE2\x82" "c\xC0\xAF" "d\xED\xA0\x80" "e\xF4\x90\x80\x80" "f\xFF";
  // What a JSON reader makes of a byte written as \u00XX: U+00XX in UTF-8.
  std::string expectedInvalid;
  for (const char c : invalid) {
    const auto byte = static_cast<unsigned char>(c);
    expectedInvalid += byte < 0x80 ? std::string(1, c)
                                   : std::string{static_cast<char>(0xC0 | (byte >> 6)), static_cast<char>(0x80 | (byte & 0x3F))};
  }
  LogRecord record = statusRecord({controls, quoted, valid, invalid}, "ERR_UNKNOWN_TO_THE_CATALOGUE");
  record.object = "obj\n\"x\"";
  const std::string text = Log::formatLine(record, Log::Format::JSON);
  for (const char c : text) EXPECT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != '\x7f') << text;
  EXPECT_NE(text.find(valid), std::string::npos) << "valid UTF-8 is written as it is";
  const json line = parsed(text);  // nlohmann refuses invalid UTF-8, so this also checks that
  ASSERT_TRUE(line.is_object());
  EXPECT_EQ(line.at("object"), "obj\n\"x\"");
  EXPECT_EQ(line.at("args"), json::array({controls, quoted, valid, expectedInvalid}));
}

TEST(Log, EverySinkGetsEveryLineWholeAndInOrderFromManyThreads) {
  const std::string path = tempPath("np-logthreads");
  std::ofstream(path, std::ios::trunc) << "earlier line\n";
  Log log;
  auto memory = std::make_shared<BAS::MemoryLogSink>();
  auto file = std::make_shared<BAS::FileLogSink>(String(path));
  ASSERT_TRUE(file->ok());
  log.addSink(file);
  log.addSink(memory);
  BAS::Status status;
  status.set("NumberPortability", "ERR_INVALID_REG_VALUE", BAS::Status::CRITICAL,
             std::vector<String>{"MAYBE", "ReuseOnFailure"});
  log.writeStatus(status);
  ASSERT_EQ(memory->records().size(), 1u);
  EXPECT_LE(system_clock::now() - memory->records()[0].time, 1min);
  // After the 24 characters of the time.
  EXPECT_EQ(memory->lines()[0].find(" CRITICAL(5) NumberPortability ERR_INVALID_REG_VALUE [\"MAYBE\", \"ReuseOnFailure\"] "
                                    "The value 'MAYBE' of the registry key ReuseOnFailure is not valid."),
            24u)
      << memory->lines()[0];

  log.setFormat(Log::Format::JSON);
  constexpr int threads = 8;
  constexpr int perThread = 200;
  std::vector<std::thread> writers;
  for (int t = 0; t < threads; ++t) {
    writers.emplace_back([&log, t] {
      for (int i = 0; i < perThread; ++i) {
        log.writeStatus(BAS::Status("INF_NUM_NPORT_LOADED", BAS::Status::NORMAL, String(std::to_string(t * 1000 + i))));
      }
    });
  }
  for (auto& writer : writers) writer.join();
  const std::vector<std::string> lines = memory->lines();
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(1 + threads * perThread));
  std::string expected = "earlier line\n";
  for (const std::string& line : lines) expected += line + "\n";
  // Each line is appended and flushed at once: read while the sink is still open.
  EXPECT_EQ(readFile(path), expected);
  std::map<int, int> next;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const int value = std::stoi(parsed(lines[i]).at("args")[0].get<std::string>());
    EXPECT_EQ(value % 1000, next[value / 1000]++);
  }

  log.removeSink(file);
  log.writeEvent(BAS::Message("NumberPortability", "EventHandler", "EVT::RELOAD_FAILED", ""), false);
  EXPECT_EQ(parsed(memory->lines().back()).at("delivered"), false);
  EXPECT_EQ(readFile(path), expected);
  std::remove(path.c_str());

  BAS::FileLogSink nowhere{String("/nonexistent-directory/np.log")};
  EXPECT_FALSE(nowhere.ok());
  nowhere.write(LogRecord(), "dropped");  // must not crash
}

TEST(MessageCatalogue, FillsPlaceholdersAndKeepsEveryArgument) {
  EXPECT_EQ(BAS::MessageCatalogue::text("ERR_REG_VALUE_INVALID", {"NP.SearchMethod", "abc"}),
            "The registry key NP.SearchMethod has the invalid value 'abc'.");
  // An empty value is left out by the reporter; its placeholder then stays empty.
  EXPECT_EQ(BAS::MessageCatalogue::text("ERR_REG_VALUE_INVALID", {"NP.SearchMethod"}),
            "The registry key NP.SearchMethod has the invalid value ''.");
  EXPECT_EQ(BAS::MessageCatalogue::text("INF_FILE_OPENED", {"np.txt", "surplus", "more"}),
            "The file np.txt was opened. (surplus, more)");
  EXPECT_EQ(BAS::MessageCatalogue::text("ERR_NOT_IN_THE_CATALOGUE", {"a", "b"}), "ERR_NOT_IN_THE_CATALOGUE: a, b");
  EXPECT_EQ(BAS::MessageCatalogue::templateOf("ERR_NOT_IN_THE_CATALOGUE"), nullptr);
  EXPECT_EQ(BAS::MessageCatalogue::text("INF_FILE_EOF", {"{1}{2}"}), "The end of the file {1}{2} was reached.");

  // Every identifier that the system reports places each of its arguments exactly once.
  const std::map<std::string, std::size_t> argumentCounts = {
      {"ERR_PROBE_INFO_FILE", 2},       {"ERR_NUMBER_OF_FIELDS_IN_RECORD", 4}, {"ERR_INVALID_DATETIME", 3},
      {"ERR_DUPLICATE_NUMPORTDATA", 3}, {"INF_FILE_CLOSED", 1},                {"INF_FILE_EOF", 1},
      {"ERR_FILE_READ_ERR", 1},         {"INF_DELETE_OLD_DATA", 1},            {"ERR_CLOSE_NP_FILE", 1},
      {"ERR_OBJ_NOT_INITIALIZED", 1},   {"INF_LOAD_DATA", 1},                  {"INF_NUM_NPORT_LOADED", 1},
      {"ERR_REG_SUBTREE_NOT_FOUND", 1}, {"ERR_REG_NAME_NOT_FOUND", 1},         {"ERR_REG_VALUE_INVALID", 2},
      {"ERR_FILE_NOT_FOUND", 1},        {"ERR_OPEN_FILE_FAILED", 1},           {"INF_FILE_OPENED", 1},
      {"ERR_INVALID_REG_ENTRIES", 1},   {"ERR_INVALID_REG_VALUE", 2},          {"INF_RELOAD_DATA", 1},
      {"INF_NUM_NPORT_RELOADED", 1},    {"INF_ADD_DATA", 1},                   {"INF_NUM_NPORT_ADDED", 1},
      {"ERR_NUM_PORT_RELOAD", 1},       {"ERR_NUM_PORT_DELTALOAD", 1},         {"INF_NUM_PORT_PRINT_DATA", 2},
      {"ERR_NUM_PORT_PRINT_DATA", 1},   {"ERR_FILE_NOT_WRITTEN", 2},           {"ERR_EVENT_RECORD_FIELDS", 3},
      {"ERR_EVENT_RECORD_DATETIME", 3},
  };
  for (const auto& [id, count] : argumentCounts) {
    ASSERT_NE(BAS::MessageCatalogue::templateOf(String(id)), nullptr) << id;
    std::vector<String> args;
    for (std::size_t i = 1; i <= count; ++i) args.push_back(String("<" + std::to_string(i) + ">"));
    const std::string text = BAS::MessageCatalogue::text(String(id), args).str();
    for (const String& arg : args) {
      EXPECT_TRUE(text.find(arg.str()) != std::string::npos && text.find(arg.str()) == text.rfind(arg.str()))
          << id << ": " << text;
    }
    EXPECT_EQ(text.find_first_of("{("), std::string::npos) << id << ": " << text;
  }
}

}  // namespace
