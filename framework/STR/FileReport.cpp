#include "STR/FileReport.h"

#include "BAS/Framework.h"

#include <utility>

namespace STR {

void FileReport::write(const char* messageId, BAS::Status::Severity severity, std::vector<BAS::String> arguments) {
  BAS::Framework* framework = BAS::Framework::current();
  if (framework == nullptr) return;
  BAS::Status status;
  status.set(BAS::String(), messageId, severity, std::move(arguments));
  framework->log().writeStatus(status);
}

}  // namespace STR
