// PLG::StdPlugIn is the base of every plug-in: a registered object with a version and the
// life-cycle operations that the framework calls in order (install, init, finalInit,
// startup, shutdown, uninstall). The defaults do nothing and answer true.
#pragma once

#include "BAS/Export.h"
#include "BAS/RegisteredObject.h"

namespace PLG {

class BAS_EXPORT StdPlugIn : public BAS::RegisteredObject {
public:
  StdPlugIn();
  StdPlugIn(const BAS::String& name, const BAS::String& version);
  ~StdPlugIn() override;

  virtual bool init();
  virtual bool finalInit();
  virtual bool shutdown();
  virtual bool startup();
  virtual bool install();
  virtual bool uninstall();

  const BAS::String& version() const { return versionM; }

private:
  BAS::String versionM;  // set at construction, then only read
};

}  // namespace PLG
