#include "host/startup/RegistryFile.h"

#include <fmt/format.h>
#include <toml++/toml.h>

#include <algorithm>
#include <sstream>
#include <utility>

namespace Host {

namespace {

// What one table or value of the file becomes, collected before anything is added to the
// registry so that a refused file leaves the registry untouched.
struct Item {
  std::vector<std::string> path;
  std::string value;
  bool isTable = false;
  unsigned line = 0;
};

std::string joined(const std::vector<std::string>& path) {
  std::string result;
  for (const auto& part : path) {
    if (!result.empty()) result += '.';
    result += part;
  }
  return result;
}

class Walker {
public:
  Walker(std::string_view text, const std::string& fileName) : textM(text), fileNameM(fileName) {
    lineStartsM.push_back(0);
    for (std::size_t i = 0; i < text.size(); ++i)
      if (text[i] == '\n') lineStartsM.push_back(i + 1);
  }

  bool walk(const toml::table& table, std::vector<std::string>& path) {
    // A table is a map by key; the registry keeps the order in which the file wrote things.
    std::vector<std::pair<const toml::key*, const toml::node*>> members;
    for (const auto& [key, node] : table) members.emplace_back(&key, &node);
    std::stable_sort(members.begin(), members.end(), [](const auto& a, const auto& b) {
      const auto& pa = a.second->source().begin;
      const auto& pb = b.second->source().begin;
      return std::pair(pa.line, pa.column) < std::pair(pb.line, pb.column);
    });
    for (const auto& [key, node] : members) {
      const unsigned line = node->source().begin.line;
      const std::string name(key->str());
      path.push_back(name);
      const std::string dotted = joined(path);
      if (name.empty()) return fail(key->source().begin.line, "an empty key cannot name a registry entry");
      if (name.find('.') != std::string::npos)
        return fail(key->source().begin.line,
                    fmt::format("the key '{}' contains '.', which separates registry levels", name));
      // A table's Library key makes it a plug-in instance; a number or a table there would be
      // looked up as a library of that name, far from the line that is wrong.
      if (name == RegistryFile::libraryKeyCM && path.size() > 1 && !(path.size() == 2 && path[0] == RegistryFile::frameworkTableCM) &&
          !node->is_string())
        return fail(line, fmt::format("'{}' must be a quoted text naming the plug-in library", dotted));
      if (const auto* array = node->as_array()) {
        if (array->is_array_of_tables())
          return fail(line, fmt::format("'{}' is an array of tables; the registry takes plain tables only", dotted));
        return fail(line, fmt::format("'{}' is an array; a registry value must be a single value", dotted));
      }
      if (const auto* sub = node->as_table()) {
        if (sub->is_inline())
          return fail(line, fmt::format("'{}' is an inline table; write it as a [{}] table instead", dotted, dotted));
        itemsM.push_back(Item{path, std::string(), true, line});
        if (!walk(*sub, path)) return false;
      } else {
        itemsM.push_back(Item{path, valueText(*node), false, line});
      }
      path.pop_back();
    }
    return true;
  }

  bool fail(unsigned line, const std::string& what) {
    errorM = fmt::format("registry file '{}', line {}: {}", fileNameM, line, what);
    return false;
  }

  const std::string& error() const { return errorM; }
  std::vector<Item>& items() { return itemsM; }

private:
  // A string is taken as its value; any other scalar as the text the file wrote for it, so
  // that 0x1F, 1e3 or a date keep their spelling.
  std::string valueText(const toml::node& node) const {
    if (const auto* s = node.as_string()) return s->get();
    const auto& region = node.source();
    if (region.begin.line == region.end.line) {
      const std::size_t begin = offsetOf(region.begin);
      const std::size_t end = offsetOf(region.end);
      if (begin < end && end <= textM.size()) return std::string(textM.substr(begin, end - begin));
    }
    std::ostringstream out;
    node.visit([&out](const auto& value) { out << value; });
    return out.str();
  }

  // Byte offset of a parser position; the parser counts columns in code points.
  std::size_t offsetOf(const toml::source_position& position) const {
    if (position.line == 0 || position.line > lineStartsM.size()) return textM.size();
    std::size_t offset = lineStartsM[position.line - 1];
    if (position.line == 1 && textM.starts_with("\xEF\xBB\xBF")) offset = 3;
    for (toml::source_index column = 1; column < position.column && offset < textM.size(); ++column) {
      ++offset;
      while (offset < textM.size() && (static_cast<unsigned char>(textM[offset]) & 0xC0) == 0x80) ++offset;
    }
    return offset;
  }

  std::string_view textM;
  const std::string& fileNameM;
  std::vector<std::size_t> lineStartsM;
  std::vector<Item> itemsM;
  std::string errorM;
};

}  // namespace

bool RegistryFile::load(std::string_view text, const std::string& fileName, BAS::RegistryEntry& root) {
  errorM.clear();
  instancesM.clear();
  linesM.clear();
  Walker walker(text, fileName);
  try {
    const toml::table table = toml::parse(text, std::string_view(fileName));
    std::vector<std::string> path;
    if (!walker.walk(table, path)) {
      errorM = walker.error();
      return false;
    }
  } catch (const toml::parse_error& e) {
    errorM = fmt::format("registry file '{}', line {}: {}", fileName, e.source().begin.line, e.description());
    return false;
  }

  for (const Item& item : walker.items()) {
    BAS::RegistryEntry* entry = &root;
    for (const auto& part : item.path) entry = &entry->child(BAS::String(part));
    const std::string dotted = joined(item.path);
    linesM[dotted] = item.line;
    if (!item.isTable) {
      entry->setValue(BAS::String(item.value));
      const bool inTable = item.path.size() > 1;
      if (inTable && item.path.back() == libraryKeyCM && !(item.path.size() == 2 && item.path[0] == frameworkTableCM)) {
        const std::string owner = dotted.substr(0, dotted.size() - libraryKeyCM.size() - 1);
        instancesM.push_back(Instance{owner, item.value, linesM[owner]});
      }
    }
  }
  return true;
}

unsigned RegistryFile::lineOf(const std::string& dottedPath) const {
  const auto found = linesM.find(dottedPath);
  return found == linesM.end() ? 0 : found->second;
}

}  // namespace Host
