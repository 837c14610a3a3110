// DAT::NumberPortability::OperatorTable keeps each distinct operator identifier once and gives
// it a small index, which the owner's records hold instead of the text: a national data set has
// a few hundred operators and hundreds of millions of records. Each portability tree and each
// history list owns one. Not synchronised: intern runs alone (while the owner is filled), text
// may run in any number of threads while nothing is interned.
#pragma once

#include "BAS/SimpleString.h"

#include <array>
#include <cstdint>
#include <deque>
#include <string_view>
#include <unordered_map>

namespace DAT::NumberPortability {

class OperatorTable {
public:
  OperatorTable() = default;
  OperatorTable(const OperatorTable& other) { *this = other; }
  OperatorTable& operator=(const OperatorTable& other);

  // The index of `text`, added when new. Out of memory propagates, and so does a table that
  // already holds StoredRecord::operatorLimitCM texts (as BAS::CapacityExceeded, a
  // std::bad_alloc that names the limit); the table is unchanged then.
  std::uint32_t intern(std::string_view text);
  std::uint32_t intern(const BAS::SimpleString& text) { return intern(text.view()); }
  // The text of an index that intern gave.
  const BAS::SimpleString& text(std::uint32_t index) const noexcept { return textsM[index]; }
  std::size_t size() const noexcept { return textsM.size(); }
  void clear() noexcept;

  // Test seam: from now on every table is full at `limit` texts (0: at the records' own limit),
  // and says so as it does at the real one. Process-wide.
  static void setLimitForTesting(std::uint32_t limit);

private:
  // A text of up to eight bytes, as a word, and where it sits in the cache.
  struct Short {
    std::uint64_t wordM = 0;
    std::uint32_t lengthM = 0;
    std::uint32_t placeM = 0;
  };
  static Short shortOf(std::string_view text) noexcept;
  std::uint32_t internInMap(std::string_view text);

  // Operator identifiers are mostly a few letters and digits. Those of up to eight bytes are
  // looked up first by their bytes as one word in a small table of the texts interned last,
  // without hashing their bytes or comparing them one by one: the map's lookup was a tenth of
  // a loader's parsing.
  struct Cached {
    std::uint64_t wordM = 0;
    std::uint32_t lengthM = 0;
    std::uint32_t indexM = 0;  // plus one; 0: empty
  };
  static constexpr unsigned cacheBitsCM = 9;
  static constexpr std::size_t cacheSlotsCM = std::size_t{1} << cacheBitsCM;
  std::array<Cached, cacheSlotsCM> cacheM{};
  // Texts keep their places when more are added, so the map's keys may view them.
  std::deque<BAS::SimpleString> textsM;
  std::unordered_map<std::string_view, std::uint32_t> indexM;
};

}  // namespace DAT::NumberPortability
