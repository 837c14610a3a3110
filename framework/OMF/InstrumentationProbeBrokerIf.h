// OMF::InstrumentationProbeBrokerIf reads probe information files for registered objects.
// The file format is TOML with one table per entry (a group or a probe) and a description:
//   [numberPortabilityGroup]
//   description = "Run-time control of the number portability data"
// The file is looked for in the framework's probe directory. Thread-safe.
#pragma once

#include "BAS/Export.h"
#include "BAS/InstrumentationProbe.h"
#include "BAS/String.h"

#include <map>

namespace BAS {
class RegisteredObject;
}

namespace OMF {

class BAS_EXPORT InstrumentationProbeBrokerIf {
public:
  // Fills `infos` with one entry per table of the file, keyed by the table's name. False when
  // the file cannot be read or is not valid; the reason is written to the framework log as
  // "ERR_PROBE_INFO_FILE" on behalf of `object`.
  static bool ReadProbeInfoFile(BAS::RegisteredObject* object, const BAS::String& fileName,
                                std::map<BAS::String, BAS::InstrumentationProbe::ProbeInfo>& infos);
};

}  // namespace OMF
