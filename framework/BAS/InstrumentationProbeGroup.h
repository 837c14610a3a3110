// BAS::InstrumentationProbeGroup is a named group of probes. It owns its attributes. A group
// made while a framework exists is handed to that framework at construction, which releases
// it (and so its attributes and their values) when the framework ends.
#pragma once

#include "BAS/Export.h"
#include "BAS/InstrumentationProbe.h"
#include "BAS/InstrumentationProbeAttribute.h"

#include <vector>

namespace BAS {

class BAS_EXPORT InstrumentationProbeGroup : public InstrumentationProbe {
public:
  InstrumentationProbeGroup(const ProbeInfo& info, int level);
  ~InstrumentationProbeGroup() override;

  // The attributes in the order they were appended; the group owns them.
  std::vector<InstrumentationProbeAttribute*>& attributes() { return attributesM; }
  const std::vector<InstrumentationProbeAttribute*>& attributes() const { return attributesM; }
  // The attribute of that name, or null.
  InstrumentationProbeAttribute* find(const String& name) const;

private:
  // Filled by the group's maker as it sets up its probes, before it offers the group to anyone;
  // then only read: no lock.
  std::vector<InstrumentationProbeAttribute*> attributesM;
};

}  // namespace BAS
