#include "BAS/Status.h"

namespace BAS {

Status::Status(const String& messageId, Severity severity, const String& argument)
    : messageIdM(messageId), severityM(severity), argumentsM{argument} {}

void Status::set(const String& objectName, const String& messageId, Severity severity, const String& argument) {
  objectNameM = objectName;
  messageIdM = messageId;
  severityM = severity;
  argumentsM.assign(1, argument);
}

void Status::set(const String& objectName, const String& messageId, Severity severity,
                 const std::vector<String>& arguments) {
  objectNameM = objectName;
  messageIdM = messageId;
  severityM = severity;
  argumentsM = arguments;
}

}  // namespace BAS
