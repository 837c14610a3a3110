#include "host/metrics/MetricsRegistry.h"

#include "plugin/PortabilityLookup.h"

#include <fmt/format.h>
#include <unistd.h>

#include <charconv>
#include <fstream>
#include <iterator>
#include <optional>
#include <string_view>

namespace Host {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;

constexpr const char* operationNames[] = {"reload", "delta"};
constexpr const char* resultNames[] = {"ok", "failed", "unsaved"};
constexpr const char* loadNames[] = {"load", "reload", "delta"};

std::string readWhole(const char* path) {
  std::ifstream file(path, std::ios::binary);
  return file ? std::string(std::istreambuf_iterator<char>(file), {}) : std::string();
}

// The `index`-th (from 0) blank-separated field of `text`.
std::optional<std::uint64_t> field(std::string_view text, std::size_t index) {
  std::size_t at = 0;
  for (std::size_t i = 0;; ++i) {
    at = text.find_first_not_of(' ', at);
    if (at == std::string_view::npos) return std::nullopt;
    const std::size_t end = std::min(text.find(' ', at), text.size());
    if (i == index) {
      std::uint64_t value = 0;
      const auto [stop, failure] = std::from_chars(text.data() + at, text.data() + end, value);
      if (failure != std::errc() || stop != text.data() + end) return std::nullopt;
      return value;
    }
    at = end;
  }
}

std::optional<std::uint64_t> residentBytes() {
  const auto pages = field(readWhole("/proc/self/statm"), 1);
  const long pageSize = sysconf(_SC_PAGESIZE);
  if (!pages || pageSize <= 0) return std::nullopt;
  return *pages * static_cast<std::uint64_t>(pageSize);
}

// Seconds since the epoch: the boot time plus the process's start in clock ticks after boot.
std::optional<double> startTime() {
  const std::string stat = readWhole("/proc/self/stat");
  // The command name in brackets may hold blanks; the fields are counted after it.
  const std::size_t close = stat.rfind(')');
  if (close == std::string::npos) return std::nullopt;
  // The start time is the 22nd field; after the name comes the 3rd.
  const auto ticks = field(std::string_view(stat).substr(close + 1), 22 - 3);
  const std::string system = readWhole("/proc/stat");
  const std::size_t boot = system.find("\nbtime ");
  const long ticksPerSecond = sysconf(_SC_CLK_TCK);
  if (!ticks || boot == std::string::npos || ticksPerSecond <= 0) return std::nullopt;
  const std::string_view line = std::string_view(system).substr(boot + 1, system.find('\n', boot + 1) - boot - 1);
  const auto bootSeconds = field(line, 1);
  if (!bootSeconds) return std::nullopt;
  return static_cast<double>(*bootSeconds) + static_cast<double>(*ticks) / static_cast<double>(ticksPerSecond);
}

void family(std::string& out, std::string_view name, std::string_view type, std::string_view help) {
  fmt::format_to(std::back_inserter(out), "# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
}

}  // namespace

void MetricsRegistry::addLookups(std::uint64_t found, std::uint64_t notFound) {
  if (found != 0) foundM.fetch_add(found, relaxed);
  if (notFound != 0) notFoundM.fetch_add(notFound, relaxed);
}

std::uint64_t MetricsRegistry::lookups() const { return foundM.load(relaxed) + notFoundM.load(relaxed); }

void MetricsRegistry::addEventRecords(std::uint64_t enriched, std::uint64_t rejected) {
  enrichedM.fetch_add(enriched, relaxed);
  rejectedRecordsM.fetch_add(rejected, relaxed);
}

void MetricsRegistry::countOperation(Operation operation, Result result) {
  operationsM[static_cast<std::size_t>(operation) * resultsCM + static_cast<std::size_t>(result)].fetch_add(1, relaxed);
}

void MetricsRegistry::noteSuccess(Load load, std::chrono::system_clock::time_point when) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
  lastSuccessMsM[static_cast<std::size_t>(load)].store(static_cast<std::int64_t>(ms), relaxed);
}

void MetricsRegistry::setRejectedLines(std::uint64_t lines) { rejectedLinesM.store(lines, relaxed); }

void MetricsRegistry::connectionOpened() { connectionsM.fetch_add(1, relaxed); }

void MetricsRegistry::connectionClosed() { connectionsM.fetch_sub(1, relaxed); }

std::string MetricsRegistry::exposition(DAT::NumberPortability::PortabilityLookup& lookup) const {
  std::string out;
  out.reserve(4096);
  const auto figures = lookup.loadFigures();

  family(out, "nphost_records", "gauge", "Records in the data that answers lookups.");
  fmt::format_to(std::back_inserter(out), "nphost_records {}\n", lookup.activeRecords());

  family(out, "nphost_lookups_total", "counter", "Lookups of event records and of search commands, by answer.");
  fmt::format_to(std::back_inserter(out), "nphost_lookups_total{{result=\"found\"}} {}\n", foundM.load(relaxed));
  fmt::format_to(std::back_inserter(out), "nphost_lookups_total{{result=\"not_found\"}} {}\n", notFoundM.load(relaxed));

  family(out, "nphost_event_records_total", "counter",
         "Event records written: enriched after a lookup, or rejected and passed on without one.");
  fmt::format_to(std::back_inserter(out), "nphost_event_records_total{{result=\"enriched\"}} {}\n", enrichedM.load(relaxed));
  fmt::format_to(std::back_inserter(out), "nphost_event_records_total{{result=\"rejected\"}} {}\n",
                 rejectedRecordsM.load(relaxed));

  family(out, "nphost_data_operations_total", "counter",
         "Reloads and delta loads by outcome; unsaved: the delta serves but the data file does not hold it.");
  for (std::size_t operation = 0; operation < operationsCM; ++operation) {
    for (std::size_t result = 0; result < resultsCM; ++result) {
      // A reload rewrites nothing, so it is never unsaved.
      if (operation == static_cast<std::size_t>(Operation::RELOAD) && result == static_cast<std::size_t>(Result::UNSAVED))
        continue;
      fmt::format_to(std::back_inserter(out), "nphost_data_operations_total{{operation=\"{}\",result=\"{}\"}} {}\n",
                     operationNames[operation], resultNames[result], operationsM[operation * resultsCM + result].load(relaxed));
    }
  }

  family(out, "nphost_data_last_success_timestamp_seconds", "gauge",
         "When the start-up load, a reload or a delta load last succeeded, in seconds since the epoch; 0 for never.");
  for (std::size_t load = 0; load < loadsCM; ++load)
    fmt::format_to(std::back_inserter(out), "nphost_data_last_success_timestamp_seconds{{operation=\"{}\"}} {}\n",
                   loadNames[load], static_cast<double>(lastSuccessMsM[load].load(relaxed)) / 1000.0);

  family(out, "nphost_data_load_duration_seconds", "gauge", "How long the last load, reload or delta load took.");
  fmt::format_to(std::back_inserter(out), "nphost_data_load_duration_seconds {}\n", figures.lastLoadSeconds);

  family(out, "nphost_data_rejected_lines", "gauge", "Distinct data file lines that the last load of any kind rejected.");
  fmt::format_to(std::back_inserter(out), "nphost_data_rejected_lines {}\n", rejectedLinesM.load(relaxed));

  family(out, "nphost_control_connections", "gauge", "Control socket connections open now.");
  fmt::format_to(std::back_inserter(out), "nphost_control_connections {}\n", connectionsM.load(relaxed));

  if (const auto bytes = residentBytes()) {
    family(out, "process_resident_memory_bytes", "gauge", "Resident memory size in bytes.");
    fmt::format_to(std::back_inserter(out), "process_resident_memory_bytes {}\n", *bytes);
  }
  if (const auto seconds = startTime()) {
    family(out, "process_start_time_seconds", "gauge", "Start time of the process since unix epoch in seconds.");
    fmt::format_to(std::back_inserter(out), "process_start_time_seconds {:.2f}\n", *seconds);
  }
  return out;
}

}  // namespace Host
