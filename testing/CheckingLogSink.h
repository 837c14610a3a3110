// NpTest::CheckingLogSink is the log sink of the fuzz targets: it keeps nothing but checks, for
// every line, that the raw bytes of a data line cannot break it: no control byte in either
// format, and in JSON a line that parses and gives the identifier and every argument back. The
// cache's and the host's fuzzers use it; a violated property aborts the run with failProperty.
#pragma once

#include "BAS/LogRecord.h"
#include "BAS/LogSink.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace NpTest {

[[noreturn]] inline void failProperty(const char* property, std::string_view detail) {
  std::fprintf(stderr, "property violated: %s\ndetail (%zu bytes): '%.*s'\n", property, detail.size(),
               static_cast<int>(detail.size()), detail.data());
  std::abort();
}

// Length of the well-formed UTF-8 sequence (RFC 3629: no overlong form, no surrogate, nothing
// above U+10FFFF) that starts at `at`, or 0 when none does.
inline std::size_t utf8Length(std::string_view text, std::size_t at) {
  const auto byte = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  std::size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;  // allowed range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (at + length > text.size()) return 0;
  if (byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (std::size_t i = 2; i < length; ++i)
    if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
  return length;
}

// The text that a JSON reader gets back from an argument that the log wrote: well-formed
// sequences as they are, every other byte as the code point of the same number.
inline std::string asJsonReadsIt(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      out += static_cast<char>(c);
      ++i;
    } else if (const std::size_t length = utf8Length(text, i)) {
      out.append(text.substr(i, length));
      i += length;
    } else {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
      ++i;
    }
  }
  return out;
}

class CheckingLogSink : public BAS::LogSink {
public:
  void write(const BAS::LogRecord& record, const std::string& line) override {
    for (const char c : line) {
      const auto byte = static_cast<unsigned char>(c);
      if (byte < 0x20 || byte == 0x7F) failProperty("a log line holds no control byte", line);
    }
    if (line.empty() || line.front() != '{') return;  // the text format
    nlohmann::json parsed;
    try {
      parsed = nlohmann::json::parse(line);
    } catch (const nlohmann::json::exception&) {
      failProperty("a JSON log line parses", line);
    }
    const auto& args = parsed.at("args");
    if (!args.is_array() || args.size() != record.args.size()) failProperty("a JSON log line has every argument", line);
    for (std::size_t i = 0; i < args.size(); ++i) {
      if (!args[i].is_string() || args[i].get<std::string>() != asJsonReadsIt(record.args[i].view()))
        failProperty("a JSON log line gives each argument back", line);
    }
    if (parsed.at("id").get<std::string>() != asJsonReadsIt(record.id.view()))
      failProperty("a JSON log line gives the identifier back", line);
  }
};

}  // namespace NpTest
