#include "store/RecordChunk.h"

#include "store/StoredHistory.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

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
  if (keyedM.empty()) firstHighM = number.keyM.high();
  differM |= number.keyM.high() ^ firstHighM;
  keyedM.push_back(Entry{number.keyM.high(), index, low, record});
}

void RecordChunk::clear() noexcept {
  keyedM.clear();
  differM = 0;
  unkeyedM.clear();
  lowsM.clear();
  textsM.clear();
  operatorsM.clear();
}

void RecordChunk::release() noexcept {
  clear();
  keyedM.release();
  spareM.release();
  std::vector<Entry>().swap(unkeyedM);
  std::vector<std::uint64_t>().swap(lowsM);
  std::vector<std::pair<std::uint32_t, std::string>>().swap(textsM);
}

void RecordChunk::sort() {
  // A stable radix sort on the high words, least significant digits first, three digits (twelve
  // bits) per pass: at ten million keys, four passes where a byte per pass took six. Keys share
  // their leading digits (the access and country codes), and short numbers end in zeros, so
  // only the span of digits in which some keys differ (gathered by add) is sorted. The counts
  // of every pass are taken in one read of the array before the first move: the array is many
  // times the cache, and a read of its own for each pass's counts was a third of the sort.
  const std::size_t count = keyedM.size();
  static constexpr unsigned passBitsCM = 12;  // three digits
  static constexpr std::size_t bucketsCM = std::size_t{1} << passBitsCM;
  // From the lowest digit in which keys differ to the highest, a digit being four bits.
  const unsigned lowest = differM == 0 ? 64 : static_cast<unsigned>(std::countr_zero(differM)) / 4 * 4;
  const unsigned highest = differM == 0 ? 0 : 64 - static_cast<unsigned>(std::countl_zero(differM));
  const unsigned passes = highest <= lowest ? 0 : (highest - lowest + passBitsCM - 1) / passBitsCM;
  using Counts = std::array<std::size_t, bucketsCM>;
  // A pass's counts are 32 KiB, too much for the stack of every thread that loads.
  std::vector<Counts> counts(passes);
  for (Counts& pass : counts) pass.fill(0);
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint64_t high = keyedM[i].highM;
    for (unsigned pass = 0; pass < passes; ++pass) ++counts[pass][high >> (lowest + pass * passBitsCM) & (bucketsCM - 1)];
  }
  spareM.resize(count);
  Entry* from = keyedM.data();
  Entry* to = spareM.data();
  for (unsigned pass = 0; pass < passes; ++pass) {
    Counts& next = counts[pass];
    std::size_t start = 0;
    for (std::size_t& bucket : next) start += std::exchange(bucket, start);
    const unsigned shift = lowest + pass * passBitsCM;
    for (std::size_t i = 0; i < count; ++i) to[next[from[i].highM >> shift & (bucketsCM - 1)]++] = from[i];
    std::swap(from, to);
  }
  // After an odd number of passes the sorted entries are in the second array, which then
  // takes the first one's place rather than being copied back.
  if (from != keyedM.data()) keyedM.swap(spareM);
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
