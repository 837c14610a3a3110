// BAS::InstrumentationProbeList is the list of probe groups that the framework collects from
// its objects through getInstrumentationProbe. The groups are not owned by the list.
#pragma once

#include <vector>

namespace BAS {

class InstrumentationProbeGroup;
using InstrumentationProbeList = std::vector<InstrumentationProbeGroup*>;

}  // namespace BAS
