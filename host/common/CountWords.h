// Host::CountWords words a count with its noun, so that one of a thing is never "1 records".
// Every message of nphost that words a count (summary, progress, waits) uses it. Stateless.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Host {

struct CountWords {
  // "1 record", "0 records", "2 records": `one` for exactly one, `many` for any other count.
  static std::string of(std::uint64_t count, std::string_view one, std::string_view many) {
    return std::to_string(count) + " " + std::string(count == 1 ? one : many);
  }
};

}  // namespace Host
