// Fuzzes the host's registry loader (Host::RegistryFile::load) on arbitrary text. Properties:
//  - it never throws, and loading the same text twice gives the same answer;
//  - on failure the registry is untouched and the message reads
//    "registry file '<name>', line <n>: ..." with n a line of the text (1 up to one past the last);
//  - on success the text is a TOML document, and the registry holds exactly its tables and
//    scalars: one entry each, at the key path; a string as its value, any other scalar as a
//    text that reads back as a TOML value of the same type and value; every entry has a line;
//  - the plug-in instances are exactly the tables (outside [Framework]) holding a Library key.
#include "host/RegistryFile.h"

#include <toml++/toml.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace {

const std::string fileNameCM = "fuzz.toml";

[[noreturn]] void fail(const char* property, std::string_view detail) {
  std::fprintf(stderr, "property violated: %s\ndetail: '%.*s'\n", property, static_cast<int>(detail.size()),
               detail.data());
  std::abort();
}

std::optional<toml::table> parsed(std::string_view text) {
  try {
    return toml::parse(text, std::string_view(fileNameCM));
  } catch (const toml::parse_error&) {
    return std::nullopt;
  }
}

template <class T>
bool sameValue(const toml::node& a, const toml::node& b) {
  return a.as<T>()->get() == b.as<T>()->get();
}

// Whether `text` is a TOML value of the type and value of `original`.
bool readsBackAs(const std::string& text, const toml::node& original) {
  const auto document = parsed("v = " + text + "\n");
  if (!document) return false;
  const toml::node* node = document->get("v");
  if (node == nullptr || node->type() != original.type()) return false;
  switch (original.type()) {
    case toml::node_type::integer: return sameValue<std::int64_t>(*node, original);
    case toml::node_type::boolean: return sameValue<bool>(*node, original);
    case toml::node_type::date: return sameValue<toml::date>(*node, original);
    case toml::node_type::time: return sameValue<toml::time>(*node, original);
    case toml::node_type::date_time: return sameValue<toml::date_time>(*node, original);
    case toml::node_type::floating_point: {
      const double x = node->as_floating_point()->get();
      const double y = original.as_floating_point()->get();
      return (std::isnan(x) && std::isnan(y)) || x == y;
    }
    default: return false;
  }
}

struct Expectation {
  std::size_t entries = 0;
  std::map<std::string, std::string> instances;  // owner path -> library
};

// Walks the independently parsed document and checks each of its nodes against the registry.
void expectAll(const toml::table& table, const std::string& prefix, const BAS::RegistryEntry& root,
               const Host::RegistryFile& file, Expectation& expectation, std::string_view text) {
  for (const auto& [key, node] : table) {
    const std::string path = prefix.empty() ? std::string(key.str()) : prefix + "." + std::string(key.str());
    ++expectation.entries;
    const BAS::RegistryEntry* entry = root.findPath(BAS::String(path));
    if (entry == nullptr) fail("every key of the document has its registry entry", path);
    if (file.lineOf(path) == 0) fail("every entry has a line", path);
    if (node.is_array()) fail("an accepted document has no array", text);
    if (const auto* sub = node.as_table()) {
      if (sub->is_inline()) fail("an accepted document has no inline table", text);
      if (!entry->value().empty()) fail("a table's entry has no value", path);
      expectAll(*sub, path, root, file, expectation, text);
      continue;
    }
    const std::string value = entry->value().str();
    if (const auto* string = node.as_string()) {
      if (value != string->get()) fail("a string is its own value", path + " = " + value);
    } else if (!readsBackAs(value, node)) {
      fail("a scalar's text reads back as the same value", path + " = " + value);
    }
    if (!prefix.empty() && key.str() == "Library" && prefix != Host::RegistryFile::frameworkTableCM)
      expectation.instances[prefix] = value;
  }
}

std::size_t entriesBelow(const BAS::RegistryEntry& entry) {
  std::size_t count = 0;
  for (const auto& child : entry.children()) count += 1 + entriesBelow(*child);
  return count;
}

std::size_t lineCount(std::string_view text) {
  std::size_t lines = 1;
  for (const char c : text) lines += c == '\n' ? 1 : 0;
  return lines;
}

// The line number of a refusal message, or 0 when it is not of the promised form.
unsigned long lineOfMessage(const std::string& message) {
  const std::string head = "registry file '" + fileNameCM + "', line ";
  if (!message.starts_with(head)) return 0;
  std::size_t at = head.size();
  unsigned long line = 0;
  const std::size_t firstDigit = at;
  while (at < message.size() && message[at] >= '0' && message[at] <= '9' && at - firstDigit < 12)
    line = line * 10 + static_cast<unsigned long>(message[at++] - '0');
  if (at == firstDigit || message.compare(at, 2, ": ") != 0 || message.size() == at + 2) return 0;
  return line;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  Host::RegistryFile file;
  BAS::RegistryEntry root("root");
  bool loaded = false;
  try {
    loaded = file.load(text, fileNameCM, root);
  } catch (const std::exception& e) {
    fail("load never throws", e.what());
  } catch (...) {
    fail("load never throws", text);
  }

  Host::RegistryFile second;
  BAS::RegistryEntry secondRoot("root");
  if (second.load(text, fileNameCM, secondRoot) != loaded || second.error() != file.error())
    fail("loading is deterministic", text);

  if (!loaded) {
    if (!root.children().empty()) fail("a refused text adds nothing", text);
    const unsigned long line = lineOfMessage(file.error());
    if (line == 0 || line > lineCount(text)) fail("a refusal names a line of the text", file.error());
    return 0;
  }

  if (!file.error().empty()) fail("an accepted text leaves no error", file.error());
  const auto document = parsed(text);
  if (!document) fail("an accepted text is a TOML document", text);
  Expectation expectation;
  expectAll(*document, "", root, file, expectation, text);
  if (entriesBelow(root) != expectation.entries) fail("the registry holds nothing but the document", text);

  if (file.instances().size() != expectation.instances.size()) fail("every table with a Library is an instance", text);
  for (const auto& instance : file.instances()) {
    const auto found = expectation.instances.find(instance.name);
    if (found == expectation.instances.end() || found->second != instance.library)
      fail("an instance is a table with its Library", instance.name);
    if (instance.line != file.lineOf(instance.name)) fail("an instance has its table's line", instance.name);
  }
  return 0;
}
