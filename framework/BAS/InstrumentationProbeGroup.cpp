#include "BAS/InstrumentationProbeGroup.h"

#include "BAS/Framework.h"

namespace BAS {

InstrumentationProbeGroup::InstrumentationProbeGroup(const ProbeInfo& info, int level) : InstrumentationProbe(info, level) {
  if (Framework* framework = Framework::current()) framework->adoptProbeGroup(this);
}

InstrumentationProbeGroup::~InstrumentationProbeGroup() {
  for (InstrumentationProbeAttribute* attribute : attributesM) delete attribute;
}

InstrumentationProbeAttribute* InstrumentationProbeGroup::find(const String& name) const {
  for (InstrumentationProbeAttribute* attribute : attributesM) {
    if (attribute != nullptr && attribute->info().name == name) return attribute;
  }
  return nullptr;
}

}  // namespace BAS
