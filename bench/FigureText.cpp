#include "bench/FigureText.h"

#include <fmt/format.h>

namespace Bench {

std::string rateText(double perSecond) {
  if (perSecond >= 1e6) return fmt::format("{:.2f} M/s", perSecond / 1e6);
  if (perSecond >= 1e3) return fmt::format("{:.1f} k/s", perSecond / 1e3);
  return fmt::format("{:.0f} /s", perSecond);
}

std::string secondsText(double s) { return s < 1.0 ? fmt::format("{:.1f} ms", s * 1e3) : fmt::format("{:.3f} s", s); }

std::string bytesText(double b) { return fmt::format("{:.1f} B", b); }

std::string mibText(double b) { return fmt::format("{:.1f} MiB", b / (1024.0 * 1024.0)); }

std::string nsText(std::uint64_t ns) {
  return ns >= 10000 ? fmt::format("{:.1f} us", static_cast<double>(ns) / 1e3) : fmt::format("{} ns", ns);
}

std::string ratioText(double r) { return fmt::format("{:.3f}", r); }

}  // namespace Bench
