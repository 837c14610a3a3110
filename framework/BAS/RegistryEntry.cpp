#include "BAS/RegistryEntry.h"

namespace BAS {

RegistryEntry::RegistryEntry(const String& name, const String& value) : nameM(name), valueM(value) {}

RegistryEntry::~RegistryEntry() = default;

const RegistryEntry* RegistryEntry::find(const String& name) const {
  for (const auto& child : childrenM) {
    if (child->nameM == name) return child.get();
  }
  return nullptr;
}

RegistryEntry* RegistryEntry::find(const String& name) {
  return const_cast<RegistryEntry*>(static_cast<const RegistryEntry*>(this)->find(name));
}

const RegistryEntry* RegistryEntry::findPath(const String& dottedPath) const {
  const RegistryEntry* entry = this;
  const std::string_view path = dottedPath.view();
  std::size_t start = 0;
  while (entry != nullptr) {
    const std::size_t dot = path.find('.', start);
    const std::string_view part = path.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start);
    // An empty part ("a..b", a leading or trailing dot, an empty path) names no entry.
    if (part.empty()) return nullptr;
    entry = entry->find(String(part));
    if (dot == std::string_view::npos) return entry;
    start = dot + 1;
  }
  return nullptr;
}

RegistryEntry& RegistryEntry::child(const String& name) {
  if (RegistryEntry* existing = find(name)) return *existing;
  childrenM.push_back(std::make_unique<RegistryEntry>(name));
  return *childrenM.back();
}

RegistryEntry& RegistryEntry::add(const String& name, const String& value) {
  RegistryEntry& entry = child(name);
  entry.setValue(value);
  return entry;
}

}  // namespace BAS
