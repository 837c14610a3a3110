// BAS::MessageCatalogue holds a readable English text for every message identifier that the
// framework, the host and the plug-in report, with placeholders {1}, {2}, ... for the
// arguments. Read-only after load; thread-safe.
#pragma once

#include "BAS/Export.h"
#include "BAS/String.h"

#include <vector>

namespace BAS {

class BAS_EXPORT MessageCatalogue {
public:
  // The template of `id`, or null when the catalogue has none.
  static const char* templateOf(const String& id);
  // The text of `id` with the arguments filled in. An unknown identifier gives the identifier
  // followed by its arguments; an argument the template does not place is not lost but appended.
  static String text(const String& id, const std::vector<String>& args);
};

}  // namespace BAS
