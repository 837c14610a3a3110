#include "OMF/InstrumentationProbeBrokerIf.h"

#include "BAS/Framework.h"
#include "BAS/RegisteredObject.h"
#include "BAS/Status.h"

#include <fmt/format.h>
#include <toml++/toml.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

namespace OMF {

namespace {

// The whole file, or nothing with the reason in `reason`.
std::optional<std::string> readFile(const std::string& path, std::string& reason) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    reason = fmt::format("it cannot be opened ({})", std::strerror(errno));
    return std::nullopt;
  }
  std::string text;
  char buffer[8192];
  std::size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, got);
  const bool failed = std::ferror(file) != 0;
  const int error = errno;
  std::fclose(file);
  if (failed) {
    reason = fmt::format("it cannot be read ({})", std::strerror(error));
    return std::nullopt;
  }
  return text;
}

std::string parseFailure(const toml::parse_error& error) {
  const toml::source_region& where = error.source();
  return fmt::format("line {}, column {}: {}", where.begin.line, where.begin.column, error.description());
}

// The parsed document, or nothing with the reason in `reason`. toml++ reports a parse error by
// exception or by result, as it was built; either way it ends here as a reason.
std::optional<toml::table> parse(const std::string& text, const std::string& path, std::string& reason) {
#if TOML_EXCEPTIONS
  try {
    return toml::parse(text, path);
  } catch (const toml::parse_error& error) {
    reason = parseFailure(error);
    return std::nullopt;
  }
#else
  toml::parse_result result = toml::parse(text, path);
  if (!result) {
    reason = parseFailure(result.error());
    return std::nullopt;
  }
  return std::move(result).table();
#endif
}

void report(BAS::RegisteredObject* object, const std::string& path, const std::string& reason) {
  BAS::Status status;
  status.set(BAS::String(), "ERR_PROBE_INFO_FILE", BAS::Status::CRITICAL,
             std::vector<BAS::String>{BAS::String(path), BAS::String(reason)});
  if (object != nullptr) {
    object->setStatus(status, true);
  } else if (BAS::Framework* framework = BAS::Framework::current()) {
    framework->log().writeStatus(status);
  }
}

}  // namespace

bool InstrumentationProbeBrokerIf::ReadProbeInfoFile(BAS::RegisteredObject* object, const BAS::String& fileName,
                                                     std::map<BAS::String, BAS::InstrumentationProbe::ProbeInfo>& infos) {
  BAS::Framework* framework = BAS::Framework::current();
  const BAS::String directory = framework != nullptr ? framework->probeDirectory() : BAS::String();
  const std::string path = directory.empty() ? fileName.str() : directory.str() + "/" + fileName.str();

  std::string reason;
  const std::optional<std::string> text = readFile(path, reason);
  if (!text) {
    report(object, path, reason);
    return false;
  }
  const std::optional<toml::table> document = parse(*text, path, reason);
  if (!document) {
    report(object, path, reason);
    return false;
  }

  for (const auto& [key, node] : *document) {
    const toml::table* entry = node.as_table();
    if (entry == nullptr) continue;
    const BAS::String name(std::string(key.str()));
    infos[name] = {name, BAS::String(std::string(entry->get("description") != nullptr
                                                     ? entry->get("description")->value_or(std::string_view())
                                                     : std::string_view()))};
  }
  return true;
}

}  // namespace OMF
