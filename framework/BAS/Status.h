// BAS::Status is one framework status message: the reporting object's name, a message
// identifier, a severity and the arguments in order. Objects keep their latest status and
// write it to the framework log. A value type.
#pragma once

#include "BAS/Export.h"
#include "BAS/String.h"

#include <vector>

namespace BAS {

class BAS_EXPORT Status {
public:
  enum Severity {
    NORMAL = 1,    // information
    MINOR = 2,     // a rejected data line
    MAJOR = 4,     // a failed file check or a failed worker request
    CRITICAL = 5,  // configuration, object, refused update, read or close failure
  };

  Status() = default;
  Status(const String& messageId, Severity severity, const String& argument);

  void set(const String& objectName, const String& messageId, Severity severity, const String& argument);
  void set(const String& objectName, const String& messageId, Severity severity, const std::vector<String>& arguments);

  const String& objectName() const { return objectNameM; }
  void setObjectName(const String& name) { objectNameM = name; }
  const String& messageId() const { return messageIdM; }
  Severity severity() const { return severityM; }
  const std::vector<String>& arguments() const { return argumentsM; }
  std::vector<String>& arguments() { return argumentsM; }

private:
  String objectNameM;
  String messageIdM;
  Severity severityM = NORMAL;
  std::vector<String> argumentsM;
};

}  // namespace BAS
