#include "BAS/InstrumentationProbeValueIf.h"

namespace BAS {

InstrumentationProbeValueIf::~InstrumentationProbeValueIf() = default;

bool InstrumentationProbeValueIf::getValue(String&, bool) const { return false; }

bool InstrumentationProbeValueIf::setValue(const String&) { return false; }

}  // namespace BAS
