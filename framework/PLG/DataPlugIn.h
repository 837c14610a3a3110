// PLG::DataPlugIn is the base of data plug-ins: plug-ins that hold reference data which the
// framework's processing modules look up. It adds the declaration of dependencies.
#pragma once

#include "BAS/Export.h"
#include "PLG/StdPlugIn.h"

#include <vector>

namespace PLG {

class BAS_EXPORT DataPlugIn : public StdPlugIn {
public:
  DataPlugIn();
  DataPlugIn(const BAS::String& name, const BAS::String& version);
  ~DataPlugIn() override;

  // Appends the names of the objects this plug-in needs; the default needs none (true).
  virtual bool loadDependencies(std::vector<BAS::String>& names);
};

}  // namespace PLG
