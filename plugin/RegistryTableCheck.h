// DAT::NumberPortability::RegistryTableCheck judges the keys of the plug-in's registry table as
// the plug-in takes them: keys it never reads, a search method it replaces, dialling codes that
// are not digits. It knows the plug-in's keys and how the plug-in treats each value; DataFileCheck
// runs it first, through the library's check entry point. It writes no log and changes nothing.
// Thread contract: a function of its arguments; any thread.
#pragma once

#include "plugin/DataFileCheckListener.h"

namespace BAS {
class RegistryEntry;
}

namespace DAT::NumberPortability {

class RegistryTableCheck {
public:
  // Tells `listener` about every value of `table` (the registry table of a plug-in instance)
  // that deserves a remark, in the table's order. Child tables are left alone: they are not keys.
  static void run(const BAS::RegistryEntry& table, DataFileCheckListener& listener);
};

}  // namespace DAT::NumberPortability
