#include "store/NumberPortabilityList.h"

#include <ostream>

namespace DAT::NumberPortability {

bool NumberPortabilityList::insertAt(const NumberPortabilityData& record) {
  const std::uint32_t position = StoredHistory::findPosition(recordsM, record.validFromM);
  if (position == StoredHistory::takenCM) return false;
  // Room first, so that a failure leaves the list as it was.
  recordsM.reserve(recordsM.size() + 1);
  recordsM.insert(recordsM.begin() + position, StoredRecord(record.validFromM, operatorsM.intern(record.networkOperatorM)));
  return true;
}

void NumberPortabilityList::insert(const NumberPortabilityData& record) {
  recordsM.reserve(recordsM.size() + 1);
  recordsM.push_back(StoredRecord(record.validFromM, operatorsM.intern(record.networkOperatorM)));
}

void NumberPortabilityList::printTree(std::ostream& out, const BAS::String& number) const {
  std::string line;
  for (const StoredRecord& record : recordsM) {
    line.clear();
    StoredHistory::appendLines({&record, 1}, operatorsM, line, number.view());
    out.write(line.data(), static_cast<std::streamsize>(line.size()));
    out.flush();
  }
}

std::vector<NumberPortabilityData> NumberPortabilityList::records() const {
  std::vector<NumberPortabilityData> copies(recordsM.size());
  for (std::size_t i = 0; i < recordsM.size(); ++i) StoredHistory::expand(recordsM[i], operatorsM, copies[i]);
  return copies;
}

}  // namespace DAT::NumberPortability
