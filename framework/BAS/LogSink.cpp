#include "BAS/LogSink.h"

namespace BAS {

// Out of line so that the vtable lives in the framework library only.
LogSink::~LogSink() = default;

}  // namespace BAS
