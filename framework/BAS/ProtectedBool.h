// BAS::ProtectedBool is a flag that several threads may read and write.
#pragma once

#include "BAS/Export.h"

#include <atomic>

namespace BAS {

class BAS_EXPORT ProtectedBool {
public:
  explicit ProtectedBool(bool value = false) : valueM(value) {}
  ProtectedBool& operator=(bool value) { valueM.store(value); return *this; }
  operator bool() const { return valueM.load(); }
  bool get() const { return valueM.load(); }
  void set(bool value) { valueM.store(value); }

private:
  std::atomic<bool> valueM;  // atomic: read and written by any thread, no lock
};

}  // namespace BAS
