#include "BAS/InstrumentationProbe.h"

namespace BAS {

InstrumentationProbe::~InstrumentationProbe() = default;

}  // namespace BAS
