#include "store/RecordChunk.h"

#include "store/StoredHistory.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <new>

namespace DAT::NumberPortability {

void RecordChunk::add(const Number& number, std::string_view text, const StoredRecord& record) {
  const auto index = static_cast<std::uint32_t>(size());
  if (number.textualM) textsM.emplace_back(index, text);
  if (!number.keyedM) {
    unkeyedM.push_back(Entry{0, index, 0, record});
    return;
  }
  std::uint32_t low = 0;
  if (number.keyM.low() != 0) {
    lowsM.push_back(number.keyM.low());
    low = static_cast<std::uint32_t>(lowsM.size());
  }
  keyedM.push_back(Entry{number.keyM.high(), index, low, record});
}

void RecordChunk::clear() noexcept {
  keyedM.clear();
  unkeyedM.clear();
  lowsM.clear();
  textsM.clear();
  operatorsM.clear();
}

void RecordChunk::release() noexcept {
  clear();
  keyedM.offer();
  spareM.offer();
  std::vector<Entry>().swap(unkeyedM);
  std::vector<std::uint64_t>().swap(lowsM);
  std::vector<std::pair<std::uint32_t, std::string>>().swap(textsM);
}

void RecordChunk::sort(const PBC::BothJobs& both) {
  // A stable radix sort on the high words, a byte per pass, least significant first. Keys share
  // their leading digits (the access and country codes), and short numbers end in zeros, so
  // the passes over a byte that all keys share are left out. Each pass is split in two halves
  // of the array: each half counts its own values, then moves its entries behind those that
  // the first half puts into the same bucket, so the order of equal bytes stays.
  const std::size_t count = keyedM.size();
  const std::size_t middle = count / 2;
  using Counts = std::array<std::size_t, 256>;
  // Which bytes all keys share, counted by the two jobs a half each.
  Counts all[8] = {};
  Counts laterHalf[8] = {};
  const auto countAll = [this](Counts (&counts)[8], std::size_t first, std::size_t end) {
    for (std::size_t i = first; i < end; ++i) {
      for (unsigned byte = 0; byte < 8; ++byte) ++counts[byte][keyedM[i].highM >> (8 * byte) & 0xFFu];
    }
  };
  both([&] { countAll(all, 0, middle); }, [&] { countAll(laterHalf, middle, count); });
  for (unsigned byte = 0; byte < 8; ++byte) {
    for (unsigned value = 0; value < 256; ++value) all[byte][value] += laterHalf[byte][value];
  }
  spareM.resize(count);
  Entry* from = keyedM.data();
  Entry* to = spareM.data();
  for (unsigned byte = 0; byte < 8; ++byte) {
    if (std::ranges::find(all[byte], count) != all[byte].end()) continue;
    const unsigned shift = 8 * byte;
    Counts halves[2] = {};
    const auto countHalf = [&](Counts& counts, std::size_t first, std::size_t end) {
      for (std::size_t i = first; i < end; ++i) ++counts[from[i].highM >> shift & 0xFFu];
    };
    both([&] { countHalf(halves[0], 0, middle); }, [&] { countHalf(halves[1], middle, count); });
    std::size_t start = 0;
    for (unsigned value = 0; value < 256; ++value) {
      const std::size_t firstHalf = halves[0][value];
      const std::size_t secondHalf = halves[1][value];
      halves[0][value] = start;
      halves[1][value] = start + firstHalf;
      start += firstHalf + secondHalf;
    }
    const auto moveHalf = [&](Counts& next, std::size_t first, std::size_t end) {
      for (std::size_t i = first; i < end; ++i) to[next[from[i].highM >> shift & 0xFFu]++] = from[i];
    };
    both([&] { moveHalf(halves[0], 0, middle); }, [&] { moveHalf(halves[1], middle, count); });
    std::swap(from, to);
  }
  // After an odd number of passes the sorted entries are in the second array, which then
  // takes the first one's place rather than being copied back.
  if (from != keyedM.data()) keyedM.swap(spareM);
  spareM.offer();
  if (lowsM.empty()) return;
  // Numbers of more than sixteen digits: among equal high words, by low word, then in order.
  const auto lowOf = [this](const Entry& entry) { return entry.lowM == 0 ? 0 : lowsM[entry.lowM - 1]; };
  Entry* const last = keyedM.data() + count;
  for (Entry* first = keyedM.data(); first != last;) {
    Entry* const end = std::find_if(first, last, [first](const Entry& entry) { return entry.highM != first->highM; });
    if (std::any_of(first, end, [](const Entry& entry) { return entry.lowM != 0; })) {
      std::sort(first, end, [&lowOf](const Entry& a, const Entry& b) {
        return lowOf(a) != lowOf(b) ? lowOf(a) < lowOf(b) : a.indexM < b.indexM;
      });
    }
    first = end;
  }
}

BAS::String RecordChunk::number(std::size_t place) const {
  const std::uint32_t i = index(place);
  const auto text = std::ranges::lower_bound(textsM, i, {}, &std::pair<std::uint32_t, std::string>::first);
  if (text != textsM.end() && text->first == i) return BAS::String(std::string_view(text->second));
  std::string digits;
  key(place).appendTo(digits);
  return BAS::String(std::string_view(digits));
}

NumberPortabilityData RecordChunk::record(std::size_t place) const {
  NumberPortabilityData result;
  StoredHistory::expand(stored(place), operatorsM, result);
  return result;
}

}  // namespace DAT::NumberPortability
