#include "BAS/InstrumentationProbeAttribute.h"

namespace BAS {

InstrumentationProbeAttribute::InstrumentationProbeAttribute(const ProbeInfo& info, InstrumentationProbeValueIf* value,
                                                             int level)
    : InstrumentationProbe(info, level), valueM(value) {}

InstrumentationProbeAttribute::~InstrumentationProbeAttribute() = default;

}  // namespace BAS
