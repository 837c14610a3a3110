// BAS::RegistryEntry is one node of the framework registry: a name, a text value and named
// children. The framework builds the tree from the registry file; plug-ins read their own
// subtree and the entries of registry updates. Not synchronised: built once, then read.
#pragma once

#include "BAS/Export.h"
#include "BAS/String.h"

#include <memory>
#include <vector>

namespace BAS {

class BAS_EXPORT RegistryEntry {
public:
  explicit RegistryEntry(const String& name, const String& value = String());
  ~RegistryEntry();
  RegistryEntry(const RegistryEntry&) = delete;
  RegistryEntry& operator=(const RegistryEntry&) = delete;

  const String& name() const { return nameM; }
  const String& value() const { return valueM; }
  void setValue(const String& value) { valueM = value; }

  // The child of that name, or null.
  const RegistryEntry* find(const String& name) const;
  RegistryEntry* find(const String& name);
  // The entry at a dotted path below this one ("a.b.c"), or null.
  const RegistryEntry* findPath(const String& dottedPath) const;
  // Adds a child, or returns the existing child of that name (its value then unchanged).
  RegistryEntry& child(const String& name);
  // The child of that name with its value set to `value`, added when missing: a key is set
  // once, however often it is written.
  RegistryEntry& add(const String& name, const String& value);

  const std::vector<std::unique_ptr<RegistryEntry>>& children() const { return childrenM; }

private:
  String nameM;
  String valueM;
  std::vector<std::unique_ptr<RegistryEntry>> childrenM;
};

}  // namespace BAS
