#include "store/NumberPortabilityTree.h"

#include <memory>
#include <ostream>
#include <string_view>

namespace DAT::NumberPortability {

namespace {

constexpr std::string_view bannerRuleCM = "-----------------------------------------------------------\n";
constexpr std::string_view bannerTitleCM = "                 Number Portability Data\n";

void writeLine(std::ostream& out, std::string_view line) {
  out.write(line.data(), static_cast<std::streamsize>(line.size()));
  out.flush();
}

}  // namespace

bool NumberPortabilityTree::insert(const BAS::String& number, const NumberPortabilityData& record, bool ordered) {
  NumberPortabilityList* list = ptrTreeM.search(number, true);
  if (list == nullptr) {
    if (!ptrTreeM.containsDigit(number)) return false;
    auto fresh = std::make_unique<NumberPortabilityList>();
    ptrTreeM.insert(number, fresh.get());
    list = fresh.release();
  }
  if (ordered) {
    if (!list->insertAt(record)) return false;
  } else {
    list->insert(record);
  }
  ++recordCountM;
  return true;
}

void NumberPortabilityTree::clearAndDestroy() {
  ptrTreeM.destroy();
  ptrTreeM.createRoot();
  recordCountM = 0;
}

void NumberPortabilityTree::copyFrom(const NumberPortabilityTree& other) {
  clearAndDestroy();
  other.ptrTreeM.forEach([this](const BAS::String& number, const NumberPortabilityList& list) {
    // Appending keeps each history in the order it has, newest first, without re-sorting.
    for (const NumberPortabilityData& record : list.records()) insert(number, record, false);
  });
}

void NumberPortabilityTree::printTree(std::ostream& out, bool withBanner) const {
  if (withBanner) {
    writeLine(out, bannerRuleCM);
    writeLine(out, bannerTitleCM);
    writeLine(out, bannerRuleCM);
  }
  ptrTreeM.printTree(out);
}

}  // namespace DAT::NumberPortability
