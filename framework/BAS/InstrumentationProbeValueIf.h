// BAS::InstrumentationProbeValueIf is the value behind one probe: the framework calls
// setValue when an operator writes the probe and getValue when one reads it. Implementations
// say which threads may call them.
#pragma once

#include "BAS/Export.h"
#include "BAS/String.h"

namespace BAS {

class BAS_EXPORT InstrumentationProbeValueIf {
public:
  virtual ~InstrumentationProbeValueIf();
  // Fills `value` and answers true when the probe has a value to show; this default has none.
  virtual bool getValue(String& value, bool reset) const;
  // Takes a written value; true when it was accepted. This default refuses every value.
  virtual bool setValue(const String& value);
};

}  // namespace BAS
