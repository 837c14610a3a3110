// Host::RegistryFile turns the text of a TOML registry file into framework registry entries:
// every table becomes an entry with children, every scalar a value as text. It also finds the
// plug-in instances (tables that name a Library). It gets the text, not the file, so that it
// can be fuzzed; one object per file, used by one thread.
#pragma once

#include "BAS/RegistryEntry.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Host {

class RegistryFile {
public:
  // A table holding the key "Library": its dotted path is the name the plug-in is registered
  // under and the path of its registry subtree.
  struct Instance {
    std::string name;
    std::string library;
    unsigned line = 0;
  };

  // The host's own table; a Library key in it does not make it a plug-in instance.
  static constexpr std::string_view frameworkTableCM = "Framework";
  // The key that makes a table a plug-in instance and names its library.
  static constexpr std::string_view libraryKeyCM = "Library";

  // Parses `text` and adds its tables and values below `root`, in file order. `fileName` is
  // used in messages only. On failure nothing is added and error() holds one sentence that
  // names the file and, when known, the line. Arrays, arrays of tables and inline tables are
  // refused, and so are keys that are empty or contain '.', which registry paths cannot reach.
  bool load(std::string_view text, const std::string& fileName, BAS::RegistryEntry& root);

  const std::string& error() const { return errorM; }
  const std::vector<Instance>& instances() const { return instancesM; }
  // The line of the value or table at a dotted path, or 0 when the file has none there.
  unsigned lineOf(const std::string& dottedPath) const;

private:
  std::string errorM;
  std::vector<Instance> instancesM;
  std::map<std::string, unsigned> linesM;
};

}  // namespace Host
