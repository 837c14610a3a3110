// BAS::InstrumentationProbe is the common base of probe groups and probe attributes: the
// name and description read from a probe information file, and a level (plug-ins pass 1).
#pragma once

#include "BAS/Export.h"
#include "BAS/String.h"

namespace BAS {

class BAS_EXPORT InstrumentationProbe {
public:
  // What a probe information file says about one entry (a group or a probe).
  struct ProbeInfo {
    String name;
    String description;
  };

  InstrumentationProbe(const ProbeInfo& info, int level) : infoM(info), levelM(level) {}
  virtual ~InstrumentationProbe();
  InstrumentationProbe(const InstrumentationProbe&) = delete;
  InstrumentationProbe& operator=(const InstrumentationProbe&) = delete;

  const ProbeInfo& info() const { return infoM; }
  int level() const { return levelM; }

private:
  ProbeInfo infoM;
  int levelM;
};

}  // namespace BAS
