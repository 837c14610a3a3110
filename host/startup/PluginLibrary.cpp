#include "host/startup/PluginLibrary.h"

#include "plugin/PortabilityLookup.h"

#include <dlfcn.h>

#include <filesystem>

namespace Host {

PluginLibrary::Location PluginLibrary::locate(const std::string& library, const std::string& pluginDirectory) {
  Location location;
  std::string base;
  if (library.find('/') != std::string::npos || library.ends_with(".so")) {
    // dlopen searches the system's library path for a name without '/'; the registry means
    // the file in the working directory.
    location.path = library.find('/') == std::string::npos ? "./" + library : library;
    base = std::filesystem::path(library).filename().string();
    if (base.starts_with("lib")) base.erase(0, 3);
    if (const auto so = base.find(".so"); so != std::string::npos) base.erase(so);
  } else {
    location.path = (std::filesystem::path(pluginDirectory) / ("lib" + library + ".so")).string();
    base = library;
  }
  location.entryPoint = base + "ModuleStart";
  return location;
}

PluginLibrary::~PluginLibrary() {
  if (handleM != nullptr) dlclose(handleM);
}

bool PluginLibrary::open(const Location& location) {
  pathM = location.path;
  handleM = dlopen(location.path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handleM == nullptr) {
    const char* why = dlerror();
    errorM = "cannot load the plug-in library '" + location.path + "': " + (why ? why : "unknown reason");
    return false;
  }
  void* const start = find(location.entryPoint);
  if (start == nullptr) return false;
  // A library without the lookup entry point is not one nphost can drive: it is refused
  // before it makes an object.
  void* const lookup = find(DAT::NumberPortability::PortabilityLookup::entryPointNameCM);
  if (lookup == nullptr) return false;
  entryPointM = reinterpret_cast<EntryPoint>(start);
  lookupEntryPointM = reinterpret_cast<LookupEntryPoint>(lookup);
  return true;
}

void* PluginLibrary::find(const std::string& name) {
  dlerror();
  void* symbol = dlsym(handleM, name.c_str());
  if (symbol == nullptr) {
    const char* why = dlerror();
    errorM = "the plug-in library '" + pathM + "' has no entry point '" + name + "': " + (why ? why : "the symbol is null");
  }
  return symbol;
}

std::string PluginLibrary::directory() const { return std::filesystem::path(pathM).parent_path().string(); }

PLG::DataPlugIn* PluginLibrary::create(const BAS::String& name) const {
  return entryPointM == nullptr ? nullptr : entryPointM(name);
}

DAT::NumberPortability::PortabilityLookup* PluginLibrary::lookup(PLG::DataPlugIn* plugIn) const {
  return lookupEntryPointM == nullptr || plugIn == nullptr ? nullptr : lookupEntryPointM(plugIn);
}

}  // namespace Host
