// BAS::failureText turns an exception caught at the top of a thread or of a command into words
// for the log and for an answer: what ran out or broke, not only a type name. The framework's
// thread trampoline and nphost use it wherever they catch what would otherwise end a thread.
// Any thread; allocates only for the returned text.
#pragma once

#include "BAS/Export.h"

#include <exception>
#include <string>

namespace BAS {

// The cause in words: "memory ran out (std::bad_alloc)", the text of a CapacityExceeded, "TYPE:
// what()" for another std::exception, or a sentence for an exception of unknown type.
BAS_EXPORT std::string failureText(std::exception_ptr failure);

}  // namespace BAS
