// BAS::CapacityExceeded is thrown where a table of fixed capacity is full, so that the failure
// reaches whoever catches allocation failures (it is one: the memory that the table may use is
// exhausted) and still says which limit was met, in words an operator can act on. The text is
// a literal of the thrower's: making it allocates nothing. A value type.
#pragma once

#include "BAS/Export.h"

#include <new>

namespace BAS {

class BAS_EXPORT CapacityExceeded : public std::bad_alloc {
public:
  // `what` must outlive the exception: a string literal.
  explicit CapacityExceeded(const char* what) noexcept : whatM(what) {}
  const char* what() const noexcept override { return whatM; }

private:
  const char* whatM;
};

}  // namespace BAS
