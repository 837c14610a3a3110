#include "store/NumberPortabilityTree.h"

#include <algorithm>
#include <new>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {

namespace {

constexpr std::string_view bannerRuleCM = "-----------------------------------------------------------\n";
constexpr std::string_view bannerTitleCM = "                 Number Portability Data\n";

void writeLine(std::ostream& out, std::string_view line) { out.write(line.data(), static_cast<std::streamsize>(line.size())); }

}  // namespace

bool NumberPortabilityTree::insert(const BAS::String& number, const NumberPortabilityData& record, bool ordered) {
  // One walk finds the number's node or creates its path.
  NumberPortabilityList** const slot = ptrTreeM.payloadSlot(number.view());
  return slot != nullptr && addToHistory(slot, record, ordered);
}

void NumberPortabilityTree::insertMany(const std::string_view* numbers, const NumberPortabilityData* records,
                                       std::size_t count, bool ordered, bool* accepted) {
  NumberPortabilityList** slots[batchCM];
  for (std::size_t first = 0; first < count; first += batchCM) {
    const std::size_t batch = std::min(count - first, batchCM);
    ptrTreeM.payloadSlots(numbers + first, batch, slots);
    // The histories and then their arrays are fetched for the whole batch before any is changed.
    for (std::size_t i = 0; i < batch; ++i) {
      if (slots[i] != nullptr && *slots[i] != nullptr) __builtin_prefetch(*slots[i]);
    }
    for (std::size_t i = 0; i < batch; ++i) {
      if (slots[i] != nullptr && *slots[i] != nullptr) __builtin_prefetch((*slots[i])->records().data());
    }
    // In order: a number may come twice in one batch, and the first of two equal dates must win.
    for (std::size_t i = 0; i < batch; ++i) {
      accepted[first + i] = slots[i] != nullptr && addToHistory(slots[i], records[first + i], ordered);
    }
  }
}

bool NumberPortabilityTree::addToHistory(NumberPortabilityList** slot, const NumberPortabilityData& record,
                                         bool ordered) {
  if (*slot == nullptr) *slot = ::new (listsM.allocate(sizeof(NumberPortabilityList))) NumberPortabilityList();
  NumberPortabilityList& list = **slot;
  if (ordered) {
    if (!list.insertAt(record, &historiesM)) return false;
  } else {
    list.insert(record, &historiesM);
  }
  if (record.networkOperatorM.length() > BAS::SimpleString::inlineCapacityCM) ++longTextRecordsM;
  ++recordCountM;
  return true;
}

void NumberPortabilityTree::releaseRecordTexts() noexcept {
  if (longTextRecordsM == 0) return;
  listsM.forEachUsed([](char* begin, char* end) {
    auto* const first = reinterpret_cast<NumberPortabilityList*>(begin);
    auto* const last = reinterpret_cast<NumberPortabilityList*>(end);
    for (NumberPortabilityList* list = first; list != last; ++list) list->releaseRecords();
  });
  longTextRecordsM = 0;
}

void NumberPortabilityTree::clearAndDestroy() {
  releaseRecordTexts();
  ptrTreeM.destroy();
  listsM.reset();
  historiesM.reset();
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
  // The histories are printed in groups: the walk collects a group's keys and histories, then
  // the histories and their records are requested for the whole group before any is printed, so
  // that their cache misses overlap instead of stalling the dump once per number.
  struct Pending {
    const NumberPortabilityList* list;
    std::size_t keyEnd;  // end of the key in keys
  };
  std::vector<Pending> group;
  group.reserve(printGroupCM);
  std::string keys;
  BAS::String key;
  const auto printGroup = [&] {
    for (const Pending& pending : group) __builtin_prefetch(pending.list);
    for (const Pending& pending : group) pending.list->prefetch();
    std::size_t keyBegin = 0;
    for (const Pending& pending : group) {
      key.assign(keys.data() + keyBegin, pending.keyEnd - keyBegin);
      pending.list->printTree(out, key);
      keyBegin = pending.keyEnd;
    }
    group.clear();
    keys.clear();
  };
  ptrTreeM.forEach([&](const BAS::String& number, const NumberPortabilityList& list) {
    keys.append(number.view());
    group.push_back(Pending{&list, keys.size()});
    if (group.size() == printGroupCM) printGroup();
  });
  printGroup();
  // One flush for the whole dump: standard output shows it complete, a file is finished by its close.
  out.flush();
}

}  // namespace DAT::NumberPortability
