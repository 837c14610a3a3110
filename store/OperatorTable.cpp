#include "store/OperatorTable.h"

#include "store/StoredRecord.h"

#include <new>

namespace DAT::NumberPortability {

OperatorTable& OperatorTable::operator=(const OperatorTable& other) {
  if (this == &other) return *this;
  clear();
  for (const BAS::SimpleString& text : other.textsM) intern(text);
  lastM = other.lastM;
  return *this;
}

std::uint32_t OperatorTable::intern(const BAS::SimpleString& text) {
  const std::string_view view = text.view();
  if (lastM < textsM.size() && textsM[lastM].view() == view) return lastM;
  if (const auto found = indexM.find(view); found != indexM.end()) return lastM = found->second;
  if (textsM.size() >= StoredRecord::operatorLimitCM) throw std::bad_alloc();
  const auto index = static_cast<std::uint32_t>(textsM.size());
  textsM.push_back(text);
  try {
    indexM.emplace(textsM.back().view(), index);
  } catch (...) {
    textsM.pop_back();
    throw;
  }
  return lastM = index;
}

void OperatorTable::clear() noexcept {
  indexM.clear();
  textsM.clear();
  lastM = 0;
}

}  // namespace DAT::NumberPortability
