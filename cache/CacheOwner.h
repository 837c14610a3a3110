// DAT::NumberPortability::CacheOwner is what the cache manager needs of the object that owns
// it: the check that a data file can be opened, the reporting of status messages through the
// framework, and the name under which it is registered. The plug-in implements it; tests and
// fuzzers implement it without a plug-in. The cache never sees more of its owner than this.
#pragma once

#include "BAS/Status.h"
#include "BAS/String.h"

#include <vector>

namespace DAT::NumberPortability {

class CacheOwner {
public:
  // Whether the configured data file can be opened; the owner also keeps the answer as its
  // usable flag.
  virtual bool checkFile() = 0;
  // Whether the named file (a delta file) can be opened.
  virtual bool checkFile(const BAS::String& fileName) = 0;
  // Sets the owner's status to the message and writes it to the log.
  virtual void reportStatus(const char* messageId, BAS::Status::Severity severity, const BAS::String& argument) = 0;
  virtual void reportStatus(const char* messageId, BAS::Status::Severity severity,
                            const std::vector<BAS::String>& arguments) = 0;
  // The owner's registered name, read under the framework's name lock.
  virtual BAS::String registeredName() const = 0;

protected:
  // The cache manager holds a plain pointer to its owner and never deletes it.
  virtual ~CacheOwner() = default;
};

}  // namespace DAT::NumberPortability
