#include "store/NumberPortabilityData.h"

#include <ostream>

namespace DAT::NumberPortability {

std::ostream& operator<<(std::ostream& out, const NumberPortabilityData& record) {
  return out << '(' << record.validFromM << ' ' << record.networkOperatorM << ')';
}

}  // namespace DAT::NumberPortability
