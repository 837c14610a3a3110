#include "store/RecordChunk.h"

#include "store/StoredHistory.h"

#include <algorithm>
#include <array>
#include <bit>
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
  keyedM.release();
  spareM.release();
  std::vector<Entry>().swap(unkeyedM);
  std::vector<std::uint64_t>().swap(lowsM);
  std::vector<std::pair<std::uint32_t, std::string>>().swap(textsM);
}

void RecordChunk::sort(const PBC::BothJobs& both) {
  // A stable radix sort on the high words, least significant digits first, three digits (twelve
  // bits) per pass: at ten million keys, four passes where a byte per pass took six. Keys share
  // their leading digits (the access and country codes), and short numbers end in zeros, so
  // only the span of digits in which some keys differ is sorted. Each pass is split in two
  // halves of the array: each half counts its own values, then moves its entries behind those
  // that the first half puts into the same bucket, so the order of equal values stays.
  const std::size_t count = keyedM.size();
  const std::size_t middle = count / 2;
  // The bits in which some key differs from the first one, gathered by the two jobs a half each.
  std::uint64_t differing[2] = {0, 0};
  const auto gather = [this](std::uint64_t& bits, std::size_t first, std::size_t end) {
    const std::uint64_t reference = keyedM[0].highM;
    std::uint64_t found = 0;
    for (std::size_t i = first; i < end; ++i) found |= keyedM[i].highM ^ reference;
    bits = found;
  };
  if (count != 0) both([&] { gather(differing[0], 0, middle); }, [&] { gather(differing[1], middle, count); });
  const std::uint64_t differ = differing[0] | differing[1];
  static constexpr unsigned passBitsCM = 12;  // three digits
  static constexpr std::size_t bucketsCM = std::size_t{1} << passBitsCM;
  // From the lowest digit in which keys differ to the highest, a digit being four bits.
  const unsigned lowest = differ == 0 ? 64 : static_cast<unsigned>(std::countr_zero(differ)) / 4 * 4;
  const unsigned highest = differ == 0 ? 0 : 64 - static_cast<unsigned>(std::countl_zero(differ));
  spareM.resize(count);
  Entry* from = keyedM.data();
  Entry* to = spareM.data();
  using Counts = std::array<std::size_t, bucketsCM>;
  // Two halves' counts: 64 KiB, too much for the stack of every thread that loads.
  const auto halves = std::make_unique<std::array<Counts, 2>>();
  for (unsigned shift = lowest; shift < highest; shift += passBitsCM) {
    Counts& firstHalf = (*halves)[0];
    Counts& secondHalf = (*halves)[1];
    const auto countHalf = [&](Counts& counts, std::size_t first, std::size_t end) {
      counts.fill(0);
      for (std::size_t i = first; i < end; ++i) ++counts[from[i].highM >> shift & (bucketsCM - 1)];
    };
    both([&] { countHalf(firstHalf, 0, middle); }, [&] { countHalf(secondHalf, middle, count); });
    std::size_t start = 0;
    for (std::size_t value = 0; value < bucketsCM; ++value) {
      const std::size_t inFirst = firstHalf[value];
      const std::size_t inSecond = secondHalf[value];
      firstHalf[value] = start;
      secondHalf[value] = start + inFirst;
      start += inFirst + inSecond;
    }
    const auto moveHalf = [&](Counts& next, std::size_t first, std::size_t end) {
      for (std::size_t i = first; i < end; ++i) to[next[from[i].highM >> shift & (bucketsCM - 1)]++] = from[i];
    };
    both([&] { moveHalf(firstHalf, 0, middle); }, [&] { moveHalf(secondHalf, middle, count); });
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
