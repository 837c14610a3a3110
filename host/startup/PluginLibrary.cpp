#include "host/startup/PluginLibrary.h"

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
  dlerror();
  void* symbol = dlsym(handleM, location.entryPoint.c_str());
  if (symbol == nullptr) {
    const char* why = dlerror();
    errorM = "the plug-in library '" + location.path + "' has no entry point '" + location.entryPoint +
             "': " + (why ? why : "the symbol is null");
    return false;
  }
  entryPointM = reinterpret_cast<EntryPoint>(symbol);
  return true;
}

std::string PluginLibrary::directory() const { return std::filesystem::path(pathM).parent_path().string(); }

PLG::DataPlugIn* PluginLibrary::create(const BAS::String& name) const {
  return entryPointM == nullptr ? nullptr : entryPointM(name);
}

}  // namespace Host
