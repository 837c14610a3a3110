#include "host/metrics/MetricsLogSink.h"

#include "BAS/LogRecord.h"

#include <charconv>
#include <optional>
#include <string_view>

namespace Host {

namespace {

struct Place {
  std::string file;
  std::uint64_t line = 0;
};

// The data line parser's location text: "... Line# N in File 'NAME'. ".
std::optional<Place> placeIn(std::string_view location) {
  constexpr std::string_view lineMark = "Line# ";
  constexpr std::string_view fileMark = " in File '";
  const std::size_t at = location.find(lineMark);
  if (at == std::string_view::npos) return std::nullopt;
  const char* const digits = location.data() + at + lineMark.size();
  Place place;
  const auto [end, failure] = std::from_chars(digits, location.data() + location.size(), place.line);
  if (failure != std::errc()) return std::nullopt;
  const std::string_view rest = location.substr(static_cast<std::size_t>(end - location.data()));
  const std::size_t close = rest.rfind('\'');
  if (!rest.starts_with(fileMark) || close == std::string_view::npos || close < fileMark.size()) return std::nullopt;
  place.file = std::string(rest.substr(fileMark.size(), close - fileMark.size()));
  return place;
}

// Where a rejected data line's report says it is; nullopt for any other entry.
std::optional<Place> rejectedLine(const BAS::LogRecord& record) {
  const std::string_view id = record.id.view();
  const auto& args = record.args;
  if ((id == "ERR_INVALID_DATETIME" || id == "ERR_DUPLICATE_NUMPORTDATA") && !args.empty())
    return placeIn(args[0].view());
  if (id == "ERR_NUMBER_OF_FIELDS_IN_RECORD" && args.size() >= 4) return placeIn(args[3].view());
  if (id == "ERR_LINE_TOO_LONG" && args.size() >= 2) {
    Place place{args[0].str(), 0};
    const std::string_view digits = args[1].view();
    const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), place.line);
    if (failure != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
    return place;
  }
  return std::nullopt;
}

}  // namespace

void MetricsLogSink::write(const BAS::LogRecord& record, const std::string& /*line*/) {
  using Operation = MetricsRegistry::Operation;
  using Result = MetricsRegistry::Result;
  using Load = MetricsRegistry::Load;
  const std::string_view id = record.id.view();
  if (record.kind == BAS::LogRecord::Kind::STATUS) {
    if (id == "INF_NUM_NPORT_LOADED") {
      metricsM.noteSuccess(Load::STARTUP, record.time);
      publishRejected();
    } else if (const auto place = rejectedLine(record)) {
      noteRejected(place->file, place->line);
    }
    return;
  }
  if (id == "EVT::RELOAD_SUCCESSFUL") {
    metricsM.countOperation(Operation::RELOAD, Result::OK);
    metricsM.noteSuccess(Load::RELOAD, record.time);
  } else if (id == "EVT::RELOAD_FAILED") {
    metricsM.countOperation(Operation::RELOAD, Result::FAILED);
  } else if (id == "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL") {
    // The rewrite watch has seen this entry already and judged the rewrite on its thread.
    if (rewritesM.delta() == RewriteWatch::Delta::UNSAVED) {
      metricsM.countOperation(Operation::DELTA, Result::UNSAVED);
    } else {
      metricsM.countOperation(Operation::DELTA, Result::OK);
      metricsM.noteSuccess(Load::DELTA, record.time);
    }
  } else if (id == "EVT::ADD_NUM_PORT_DATA_FAILED") {
    metricsM.countOperation(Operation::DELTA, Result::FAILED);
  } else {
    return;
  }
  publishRejected();
}

void MetricsLogSink::noteRejected(const std::string& file, std::uint64_t lineNumber) {
  // A figure is not worth an exception out of the log's write: without memory for the flags,
  // the line is counted without them.
  try {
    std::vector<bool>& seen = rejectedM[file];
    if (lineNumber >= seen.size()) seen.resize(lineNumber + 1);
    if (seen[lineNumber]) return;
    seen[lineNumber] = true;
  } catch (...) {
  }
  ++distinctM;
}

void MetricsLogSink::publishRejected() {
  metricsM.setRejectedLines(distinctM);
  distinctM = 0;
  rejectedM.clear();
}

}  // namespace Host
