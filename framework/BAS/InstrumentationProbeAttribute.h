// BAS::InstrumentationProbeAttribute is one probe of a group: its information and the value
// object behind it, which the attribute owns and releases.
#pragma once

#include "BAS/Export.h"
#include "BAS/InstrumentationProbe.h"
#include "BAS/InstrumentationProbeValueIf.h"

#include <memory>

namespace BAS {

class BAS_EXPORT InstrumentationProbeAttribute : public InstrumentationProbe {
public:
  // Takes ownership of `value`.
  InstrumentationProbeAttribute(const ProbeInfo& info, InstrumentationProbeValueIf* value, int level);
  ~InstrumentationProbeAttribute() override;

  InstrumentationProbeValueIf* value() const { return valueM.get(); }

private:
  std::unique_ptr<InstrumentationProbeValueIf> valueM;
};

}  // namespace BAS
