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

LogRecord eventRecord(bool delivered) {
  LogRecord record = statusRecord({""}, "EVT::RELOAD_SUCCESSFUL");
  record.kind = LogRecord::Kind::EVENT;
  record.sender = "NumberPortability";
  record.receiver = "EventHandler";
  record.delivered = delivered;
  return record;
}

json parsed(const std::string& line) {
  json value = json::parse(line, nullptr, false);
  EXPECT_FALSE(value.is_discarded()) << line;
  return value;
}

// What a JSON reader makes of a byte written as \u00XX: U+00XX in UTF-8.
std::string latin1(unsigned char byte) {
  return {static_cast<char>(0xC0 | (byte >> 6)), static_cast<char>(0x80 | (byte & 0x3F))};
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string tempPath(const char* stem) {
  return (std::filesystem::temp_directory_path() / (std::string(stem) + "-" + std::to_string(::getpid()) + ".log"))
      .string();
}

TEST(LogFormat, TextLinesForStatusesAndEvents) {
  EXPECT_EQ(Log::formatLine(statusRecord({"NumberPortability.CountryCode"}), Log::Format::TEXT),
            "2026-11-22T20:38:22.123Z CRITICAL(5) NumberPortability ERR_REG_NAME_NOT_FOUND "
            "[\"NumberPortability.CountryCode\"] The mandatory registry key NumberPortability.CountryCode is missing.");
  EXPECT_EQ(Log::formatLine(statusRecord({"12", "File : out.txt"}, "INF_NUM_PORT_PRINT_DATA", 1), Log::Format::TEXT),
            "2026-11-22T20:38:22.123Z NORMAL(1) NumberPortability INF_NUM_PORT_PRINT_DATA [\"12\", \"File : out.txt\"] "
            "12 number portability records were printed to File : out.txt.");
  EXPECT_EQ(Log::formatLine(eventRecord(true), Log::Format::TEXT),
            "2026-11-22T20:38:22.123Z EVENT NumberPortability -> EventHandler EVT::RELOAD_SUCCESSFUL [\"\"] delivered");
  LogRecord toNobody = eventRecord(false);
  toNobody.receiver = "";
  EXPECT_EQ(Log::formatLine(toNobody, Log::Format::TEXT),
            "2026-11-22T20:38:22.123Z EVENT NumberPortability -> \"\" EVT::RELOAD_SUCCESSFUL [\"\"] not-delivered");
}

TEST(LogFormat, DataLinesCannotBreakATextLine) {
  const std::string line = Log::formatLine(
      statusRecord({"2", "3", "a \"quoted\"\tline\r\n\x01", "At Line# 7 in File 'np.txt'. "}, "ERR_NUMBER_OF_FIELDS_IN_RECORD", 2),
      Log::Format::TEXT);
  EXPECT_NE(line.find(" MINOR(2) NumberPortability ERR_NUMBER_OF_FIELDS_IN_RECORD [\"2\", \"3\", "
                      "\"a \\\"quoted\\\"\\tline\\r\\n\\u0001\", \"At Line# 7 in File 'np.txt'. \"] "
                      "At Line# 7 in File 'np.txt'. The record has 2 fields instead of 3"),
            std::string::npos)
      << line;
  for (const char c : line) EXPECT_GE(static_cast<unsigned char>(c), 0x20u) << line;
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
  std::string expectedInvalid;
  for (const char c : invalid) expectedInvalid += static_cast<unsigned char>(c) < 0x80 ? std::string(1, c) : latin1(c);

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

TEST(Log, HandsEachEntryToEverySinkInTheChosenFormat) {
  Log log;
  auto first = std::make_shared<BAS::MemoryLogSink>();
  auto second = std::make_shared<BAS::MemoryLogSink>();
  log.addSink(first);
  log.addSink(second);
  BAS::Status status;
  status.set("NumberPortability", "ERR_INVALID_REG_VALUE", BAS::Status::CRITICAL,
             std::vector<String>{"MAYBE", "ReuseOnFailure"});
  log.writeStatus(status);
  log.setFormat(Log::Format::JSON);
  log.writeEvent(BAS::Message("NumberPortability", "EventHandler", "EVT::RELOAD_FAILED", ""), false);
  log.removeSink(second);
  log.writeStatus(status);

  ASSERT_EQ(first->records().size(), 3u);
  ASSERT_EQ(second->records().size(), 2u);
  const LogRecord written = first->records()[0];
  EXPECT_EQ(written.kind, LogRecord::Kind::STATUS);
  EXPECT_EQ(written.object, "NumberPortability");
  EXPECT_EQ(written.id, "ERR_INVALID_REG_VALUE");
  EXPECT_EQ(written.severity, 5);
  EXPECT_EQ(written.args, (std::vector<String>{"MAYBE", "ReuseOnFailure"}));
  EXPECT_EQ(written.text, "The value 'MAYBE' of the registry key ReuseOnFailure is not valid.");
  EXPECT_LE(system_clock::now() - written.time, 1min);

  const std::vector<std::string> lines = first->lines();
  // After the 24 characters of the time.
  EXPECT_TRUE(lines[0].find(" CRITICAL(5) NumberPortability ERR_INVALID_REG_VALUE [\"MAYBE\", \"ReuseOnFailure\"] ") == 24)
      << lines[0];
  EXPECT_EQ(parsed(lines[1]).at("delivered"), false);
  EXPECT_EQ(second->lines()[1], lines[1]);
  EXPECT_EQ(parsed(lines[2]).at("args"), json::array({"MAYBE", "ReuseOnFailure"}));
}

TEST(Log, LinesFromManyThreadsStayWholeAndInOrderPerThread) {
  const std::string path = tempPath("np-logthreads");
  std::remove(path.c_str());
  Log log;
  log.setFormat(Log::Format::JSON);
  auto file = std::make_shared<BAS::FileLogSink>(String(path));
  ASSERT_TRUE(file->ok());
  auto memory = std::make_shared<BAS::MemoryLogSink>();
  log.addSink(file);
  log.addSink(memory);

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

  // Each line is read back whole, and every sink got the same lines in the same order.
  const std::string fileText = readFile(path);
  std::vector<std::string> lines;
  for (std::size_t start = 0, end; (end = fileText.find('\n', start)) != std::string::npos; start = end + 1) {
    lines.push_back(fileText.substr(start, end - start));
  }
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(threads * perThread));
  EXPECT_EQ(lines, memory->lines());
  std::map<int, int> next;
  for (const std::string& text : lines) {
    const int value = std::stoi(parsed(text).at("args")[0].get<std::string>());
    EXPECT_EQ(value % 1000, next[value / 1000]++);
  }
  std::remove(path.c_str());
}

TEST(FileLogSink, AppendsEachLineAndFlushesItAtOnce) {
  const std::string path = tempPath("np-filelogsink");
  std::ofstream(path, std::ios::trunc) << "earlier line\n";
  {
    BAS::FileLogSink sink{String(path)};
    ASSERT_TRUE(sink.ok());
    sink.write(LogRecord(), "first");
    EXPECT_EQ(readFile(path), "earlier line\nfirst\n") << "read while the sink is still open";
    sink.write(LogRecord(), "second");
  }
  EXPECT_EQ(readFile(path), "earlier line\nfirst\nsecond\n");
  std::remove(path.c_str());

  BAS::FileLogSink nowhere{String("/nonexistent-directory/np.log")};
  EXPECT_FALSE(nowhere.ok());
  nowhere.write(LogRecord(), "dropped");  // must not crash
}

TEST(MemoryLogSink, WaitForReturnsOnceEnoughEntriesArrive) {
  BAS::MemoryLogSink sink;
  LogRecord record;
  record.id = "INF_FILE_EOF";
  std::thread writer([&] {
    std::this_thread::sleep_for(20ms);
    sink.write(record, "one");
    sink.write(LogRecord(), "other id");
    sink.write(record, "two");
  });
  EXPECT_TRUE(sink.waitFor("INF_FILE_EOF", 2, 60s));
  writer.join();
  EXPECT_EQ(sink.withId("INF_FILE_EOF").size(), 2u);
  EXPECT_EQ(sink.lines(), (std::vector<std::string>{"one", "other id", "two"}));
  EXPECT_FALSE(sink.waitFor("INF_FILE_EOF", 3, 30ms));
  sink.clear();
  EXPECT_EQ(sink.count("INF_FILE_EOF"), 0u);
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
}

TEST(MessageCatalogue, PlacesEveryArgumentOfEveryReportedIdentifier) {
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
      {"ERR_NUM_PORT_PRINT_DATA", 1},
  };
  for (const auto& [id, count] : argumentCounts) {
    ASSERT_NE(BAS::MessageCatalogue::templateOf(String(id)), nullptr) << id;
    std::vector<String> args;
    for (std::size_t i = 1; i <= count; ++i) args.push_back(String("<" + std::to_string(i) + ">"));
    const std::string text = BAS::MessageCatalogue::text(String(id), args).str();
    for (std::size_t i = 1; i <= count; ++i) {
      const std::string arg = "<" + std::to_string(i) + ">";
      EXPECT_TRUE(text.find(arg) != std::string::npos && text.find(arg) == text.rfind(arg)) << id << ": " << text;
    }
    EXPECT_EQ(text.find_first_of("{("), std::string::npos) << id << ": " << text;
  }
}

}  // namespace
