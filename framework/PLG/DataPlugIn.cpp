#include "PLG/DataPlugIn.h"

namespace PLG {

DataPlugIn::DataPlugIn() = default;

DataPlugIn::DataPlugIn(const BAS::String& name, const BAS::String& version) : StdPlugIn(name, version) {}

DataPlugIn::~DataPlugIn() = default;

bool DataPlugIn::loadDependencies(std::vector<BAS::String>&) { return true; }

}  // namespace PLG
