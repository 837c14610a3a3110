// The host's command fuzzer still reaches the in-process plug-in under this name; the
// environment itself is shared test support in testing/ and needs nothing of the cache's fuzzers.
#pragma once

#include "testing/PlugInEnvironment.h"

namespace NpFuzz {
using NpTest::failProperty;
using NpTest::PlugInEnvironment;
}  // namespace NpFuzz
