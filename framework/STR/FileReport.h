// STR::FileReport writes the framework file classes' own messages (a file not read or not
// written, a line too long, what an interrupted write left and how it was dealt with) to the
// framework log, on the calling thread, with no object name; nothing when no framework exists.
// Any thread.
#pragma once

#include "BAS/Status.h"
#include "BAS/String.h"

#include <vector>

namespace STR {

class FileReport {
public:
  static void write(const char* messageId, BAS::Status::Severity severity, std::vector<BAS::String> arguments);
};

}  // namespace STR
