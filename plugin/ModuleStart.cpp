// The plug-in library's entry points, the only symbols it exports: the framework looks them up
// by name after loading the library and owns the objects they make; a host asks the third for
// the lookup interface of an object the first made.
#include "plugin/DataFileCheck.h"
#include "plugin/NumberPortabilityPlugIn.h"

#define NP_ENTRY_POINT extern "C" __attribute__((visibility("default")))

NP_ENTRY_POINT PLG::DataPlugIn* DAT_NumberPortabilityModuleStart(const BAS::String& name) {
  return new DAT::NumberPortability::PlugIn(name, "10008");
}

NP_ENTRY_POINT PLG::DataPlugIn* ModuleStartNL() { return new DAT::NumberPortability::PlugIn(); }

// The type information of the plug-in class lives in this library only, so the host cannot
// tell the object's class itself; here the cast is checked.
NP_ENTRY_POINT DAT::NumberPortability::PortabilityLookup* DAT_NumberPortabilityLookup(PLG::DataPlugIn* plugIn) {
  return dynamic_cast<DAT::NumberPortability::PlugIn*>(plugIn);
}

// Judges a registry table as the plug-in would take it and, when asked, the data file it names
// as the load would read it, without making a plug-in object: a host checks a configuration and
// a file before they go live.
NP_ENTRY_POINT bool DAT_NumberPortabilityCheck(const BAS::RegistryEntry* subtree, const BAS::String& name,
                                               DAT::NumberPortability::DataFileCheckListener::Scope scope,
                                               DAT::NumberPortability::DataFileCheckListener& listener) {
  return DAT::NumberPortability::DataFileCheck(listener).run(subtree, name, scope);
}
