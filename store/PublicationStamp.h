// DAT::NumberPortability::PublicationStamp names one publication of portability data: its
// number among the publications since the process started (the initial load is 1, each
// exchange of a reload or delta load the next) and the UTC time at which it was published, so
// that the pair is unique across restarts. The cache manager stamps each tree as it publishes
// it, and a lookup hands out the stamp of the tree it read. A value type.
#pragma once

#include <cstdint>

namespace DAT::NumberPortability {

struct PublicationStamp {
  std::uint64_t numberM = 0;     // 0: nothing published yet
  std::int64_t utcMillisM = 0;   // milliseconds since 1970-01-01 00:00:00 UTC

  friend bool operator==(const PublicationStamp&, const PublicationStamp&) = default;
};

}  // namespace DAT::NumberPortability
