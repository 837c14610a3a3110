// BAS::LogRecord is one entry of the framework log, a status or an event, as the log hands it
// to its sinks together with the formatted line. A value type.
#pragma once

#include "BAS/Export.h"
#include "BAS/String.h"

#include <chrono>
#include <vector>

namespace BAS {

struct BAS_EXPORT LogRecord {
  enum class Kind { STATUS, EVENT };

  Kind kind = Kind::STATUS;
  std::chrono::system_clock::time_point time;
  String id;                  // message identifier or event name
  std::vector<String> args;   // in order
  String text;                // catalogue text with the arguments filled in (statuses)
  String object;              // statuses: the reporting object's name
  int severity = 0;           // statuses: the BAS::Status::Severity value
  String sender;              // events
  String receiver;            // events
  bool delivered = false;     // events: an object of the receiver's name existed
};

}  // namespace BAS
