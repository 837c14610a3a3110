// How npbench writes its figures in the tables: rates, times, sizes and ratios, each with the
// precision and unit that bench/RESULTS.md shows and that scripts reading the output expect.
// Used by every phase of Bench::BenchRun. Free functions, no state.
#pragma once

#include <cstdint>
#include <string>

namespace Bench {

std::string rateText(double perSecond);
std::string secondsText(double s);
std::string bytesText(double b);
std::string mibText(double b);
std::string nsText(std::uint64_t ns);
std::string ratioText(double r);

}  // namespace Bench
