// Host::GenerationText writes what names the data behind an answer, as the output's generation
// field, `status`, `explain` and the log's publication line show it: the generation
// (YYYYMMDDTHHMMSS.mmmZ-N, UTC, with no colon, so that no delimiter clashes) and a file's
// modification time as the log writes times. Stateless; any thread.
#pragma once

#include "plugin/PortabilityLookup.h"

#include <ctime>
#include <string>

namespace Host {

struct GenerationText {
  // "20261126T012833.145Z-3"; empty for publication 0 (no data published yet).
  static std::string of(const DAT::NumberPortability::PortabilityLookup::Generation& generation);
  // "2026-11-26T01:28:33.145Z": ISO 8601, UTC, milliseconds (cut, not rounded).
  static std::string isoTime(const struct timespec& time);
};

}  // namespace Host
