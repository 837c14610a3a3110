// The plug-in library's entry points, the only symbols it exports: the framework looks them up
// by name after loading the library and owns the objects they make.
#include "plugin/NumberPortabilityPlugIn.h"

#define NP_ENTRY_POINT extern "C" __attribute__((visibility("default")))

NP_ENTRY_POINT PLG::DataPlugIn* DAT_NumberPortabilityModuleStart(const BAS::String& name) {
  return new DAT::NumberPortability::PlugIn(name, "10008");
}

NP_ENTRY_POINT PLG::DataPlugIn* ModuleStartNL() { return new DAT::NumberPortability::PlugIn(); }
