// One complete portability data set: normalised numbers to their histories in a decimal digit
// trie, with the count of accepted records. The cache manager owns two (active and standby).
// No lock of its own: search and printTree may run concurrently, insert and clearAndDestroy alone.
#pragma once

#include "store/NumberPortabilityData.h"
#include "store/NumberPortabilityList.h"
#include "store/PrefixStack.h"
#include "store/PtrTree.h"

#include "BAS/DateTime.h"
#include "BAS/String.h"

#include <cstddef>
#include <cstdint>
#include <iosfwd>

namespace DAT::NumberPortability {

class NumberPortabilityTree {
public:
  // Values of the search method. Every other value searches as ANY_PREFIX_MATCH.
  // The longest stored prefix (the number included) whose history holds at the date,
  // falling back to shorter prefixes.
  static constexpr std::uint32_t BEST_MATCH = 0;
  // The number itself only.
  static constexpr std::uint32_t EXACT_MATCH = 1;
  // The shortest stored prefix (the number included), without fall-back.
  static constexpr std::uint32_t ANY_PREFIX_MATCH = 2;

  NumberPortabilityTree() : ptrTreeM(radixCM) {}
  NumberPortabilityTree(const NumberPortabilityTree&) = delete;
  NumberPortabilityTree& operator=(const NumberPortabilityTree&) = delete;

  // Adds `record` to the history of `number` (characters other than decimal digits are
  // skipped). ordered true: false, nothing changed and nothing counted, when the history
  // already has a record of that date. ordered false appends unchecked. Also false for a
  // number without any digit, which would otherwise act as a prefix of every number. Out of
  // memory propagates; what was inserted before stays.
  bool insert(const BAS::String& number, const NumberPortabilityData& record, bool ordered);

  // True and `result` set to a copy of the record that holds for `number` at `dateTime` under
  // `method`; false and `result` untouched when none does. The number is used as given, its
  // non-digits skipped. Inline, so that it compiles into the processing modules' lookups;
  // BEST_MATCH allocates only for numbers with more than prefixRoomCM stored prefixes.
  bool search(const BAS::String& number, const BAS::DateTime& dateTime, NumberPortabilityData& result,
              std::uint32_t method) const {
    if (method == BEST_MATCH) {
      PrefixStack<const NumberPortabilityList*, prefixRoomCM> lists;
      ptrTreeM.search(number, lists);
      const NumberPortabilityList* list = nullptr;
      while (lists.pop(list)) {
        if (list->search(dateTime, result)) return true;
      }
      return false;
    }
    const NumberPortabilityList* const list = ptrTreeM.search(number, method == EXACT_MATCH);
    return list != nullptr && list->search(dateTime, result);
  }

  // Releases every number, history and record; the tree is empty and usable at once.
  void clearAndDestroy();

  // Makes this tree hold exactly the records of `other`, histories in the same order, and the
  // same record count. `other` must not be changed meanwhile.
  void copyFrom(const NumberPortabilityTree& other);

  // Writes every record as a data-file line (number, 14-digit UTC date, operator), numbers in
  // key order, each history newest first; with the banner, three banner lines before them.
  void printTree(std::ostream& out, bool withBanner) const;

  std::uint32_t recordCount() const noexcept { return recordCountM; }
  // Nodes of the trie, the root included.
  std::size_t nodeCount() const { return ptrTreeM.nodeCount(); }

private:
  static constexpr int radixCM = 10;
  static constexpr std::size_t prefixRoomCM = 32;

  PBC::PtrTree<NumberPortabilityList> ptrTreeM;

public:
  // Records accepted since construction or the last clearAndDestroy. Readable directly by the
  // plug-in, which reads it under the cache lock; only the tree's own operations change it.
  std::uint32_t recordCountM = 0;
};

}  // namespace DAT::NumberPortability
