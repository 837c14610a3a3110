// Host::PluginLibrary is one loaded plug-in library: where a registry's Library value leads,
// the dlopen handle, the entry point that makes the plug-in object and the one that hands out
// the object's lookup interface; nphost reaches the plug-in through nothing else. The library stays
// loaded until this object ends, which must be after every object made from its code (the
// plug-in, and the probe values and the worker thread that the framework releases).
// One thread.
#pragma once

#include "BAS/String.h"

#include <string>

namespace PLG {
class DataPlugIn;
}
namespace DAT::NumberPortability {
class PortabilityLookup;
}

namespace Host {

class PluginLibrary {
public:
  // The file to load and the entry point to call, derived from a Library value.
  struct Location {
    std::string path;
    std::string entryPoint;
  };

  // A value with a '/' or ending in ".so" is a path (relative to the working directory); any
  // other value X is the file libX.so in `pluginDirectory`. The entry point is the bare name
  // (for a path: the file name without "lib" and ".so") followed by "ModuleStart".
  static Location locate(const std::string& library, const std::string& pluginDirectory);

  PluginLibrary() = default;
  ~PluginLibrary();
  PluginLibrary(const PluginLibrary&) = delete;
  PluginLibrary& operator=(const PluginLibrary&) = delete;

  // Loads the file and finds both entry points. False with error() saying which and why.
  bool open(const Location& location);
  const std::string& error() const { return errorM; }
  // The directory of the loaded file; empty for the working directory.
  std::string directory() const;

  // Calls the entry point with the instance name; the caller owns the object (null when the
  // entry point made none).
  PLG::DataPlugIn* create(const BAS::String& name) const;
  // The lookup interface of an object that create() made; owned by that object, null when the
  // library does not know the object.
  DAT::NumberPortability::PortabilityLookup* lookup(PLG::DataPlugIn* plugIn) const;

  // Where the entry point `name` lives in the loaded file; null with error() set when nowhere.
  void* find(const std::string& name);

private:
  using EntryPoint = PLG::DataPlugIn* (*)(const BAS::String&);
  using LookupEntryPoint = DAT::NumberPortability::PortabilityLookup* (*)(PLG::DataPlugIn*);

  void* handleM = nullptr;
  EntryPoint entryPointM = nullptr;
  LookupEntryPoint lookupEntryPointM = nullptr;
  std::string pathM;
  std::string errorM;
};

}  // namespace Host
