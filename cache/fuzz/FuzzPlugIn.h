// The in-process plug-in that the fuzz targets of the cache and the host drive: a framework of
// its own, a registry that names a tiny data file in a private temporary folder, and a
// number-portability plug-in made from it, all created once per process and never destroyed
// (the fuzz run ends with the process). The log goes to a sink that keeps nothing but checks,
// for every line, that a data line's raw bytes cannot break it: no control byte in either
// format, and in JSON a line that parses and gives the arguments back.
#pragma once

#include "BAS/Framework.h"
#include "BAS/Log.h"
#include "BAS/LogRecord.h"
#include "BAS/LogSink.h"
#include "BAS/MutexLocker.h"
#include "BAS/RegisteredObject.h"
#include "BAS/RegistryEntry.h"
#include "BAS/String.h"
#include "plugin/NumberPortabilityPlugIn.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace NpFuzz {

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

class PlugInEnvironment {
public:
  static constexpr const char* pluginNameCM = "NumberPortability";
  static constexpr const char* dataCM =
      "030111111 20200101000000 OPA\n"
      "+4930222222 20210101000000 OPB\n"
      "004930222222 20220101000000 OPC\n"
      "4940 20190101000000 PREFIX\n";

  // The one environment of the process; `extraSink` (added once, with the first call) also
  // receives the log. `started` also starts the plug-in, which loads the data file.
  static PlugInEnvironment& instance(bool started, std::shared_ptr<BAS::LogSink> extraSink = nullptr) {
    static PlugInEnvironment* environment = new PlugInEnvironment(started, std::move(extraSink));
    return *environment;
  }

  BAS::Framework& framework() { return *frameworkM; }
  DAT::NumberPortability::PlugIn& plugIn() { return *plugInM; }
  const std::filesystem::path& folder() const { return folderM; }

private:
  PlugInEnvironment(bool started, std::shared_ptr<BAS::LogSink> extraSink) {
    std::string pattern = (std::filesystem::temp_directory_path() / "np-fuzz-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) failProperty("the fuzz environment gets a temporary folder", pattern);
    folderM = pattern;
    folderToRemove() = folderM;
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(folderToRemove(), ignored);
    });
    const std::string dataFile = (folderM / "np.txt").string();
    std::ofstream(dataFile, std::ios::binary) << dataCM;

    frameworkM = new BAS::Framework;
    frameworkM->log().addSink(std::make_shared<CheckingLogSink>());
    if (extraSink) frameworkM->log().addSink(std::move(extraSink));
    frameworkM->setProbeDirectory(NP_PROBE_DIRECTORY);
    BAS::RegistryEntry& entry = frameworkM->registry().child(pluginNameCM);
    entry.add("FileName", BAS::String(dataFile));
    entry.add("CountryCode", "49");
    entry.add("NationalAccessCode", "0");

    plugInM = new DAT::NumberPortability::PlugIn(pluginNameCM, "10008");
    bool valid = false;
    {
      BAS::MutexLocker locker(BAS::RegisteredObject::isValidLockerCM);
      valid = plugInM->isValid();
    }
    if (!valid || plugInM->cacheManager() == nullptr) failProperty("the fuzz plug-in is valid", dataFile);
    if (started && !plugInM->init()) failProperty("the fuzz plug-in loads its data file", dataFile);
  }

  static std::filesystem::path& folderToRemove() {
    static std::filesystem::path path;
    return path;
  }

  std::filesystem::path folderM;
  BAS::Framework* frameworkM = nullptr;
  DAT::NumberPortability::PlugIn* plugInM = nullptr;
};

}  // namespace NpFuzz
