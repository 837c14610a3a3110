// DAT::NumberPortability::PortabilityLookup is what the plug-in library hands a host beside the
// framework's life cycle: lookups of numbers at dates, a batch at a time. The host asks the
// library's entry point "DAT_NumberPortabilityLookup" for it and calls it through its virtual
// table, so that none of the cache's or the store's code (nor the lock that guards them) is
// compiled into the host: every lookup runs the library's one copy.
//
// Thread contract: any number of threads may look up at once, during reloads and delta loads.
#pragma once

#include "BAS/DateTime.h"
#include "BAS/SimpleString.h"

#include <cstddef>
#include <string_view>

namespace PLG {
class DataPlugIn;
}

namespace DAT::NumberPortability {

class PortabilityLookup {
public:
  // What a lookup found: from validFrom on, the number is served by networkOperator.
  struct Answer {
    BAS::DateTime validFrom;
    BAS::SimpleString networkOperator;
  };

  // The library's entry point: the lookup interface of a plug-in object that the same
  // library's module-start entry point made; null for any other object.
  using EntryPoint = PortabilityLookup* (*)(PLG::DataPlugIn*);
  static constexpr const char* entryPointNameCM = "DAT_NumberPortabilityLookup";

  // For each i below count: found[i] tells whether a record holds for numbers[i] (in stored
  // form) at dateTimes[i] with the configured search method, and answers[i] is that record
  // (untouched when none holds).
  virtual void lookUp(const std::string_view* numbers, const BAS::DateTime* dateTimes, std::size_t count,
                      Answer* answers, bool* found) = 0;

protected:
  // The plug-in object owns its interface; a host never deletes through it.
  virtual ~PortabilityLookup() = default;
};

}  // namespace DAT::NumberPortability
