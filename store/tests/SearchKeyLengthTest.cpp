// The length of the key that answered a batched search: against a brute-force scan of every
// stored prefix of the number, for each search method, with separators in the stored numbers
// and in the searched ones.
#include "store/NumberPortabilityTree.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {
namespace {

using Tree = NumberPortabilityTree;

std::string digitsOf(std::string_view number) {
  std::string digits;
  for (const char c : number) {
    if (c >= '0' && c <= '9') digits += c;
  }
  return digits;
}

// What a search should give, found by scanning every prefix of the number's digits.
struct Expected {
  bool found = false;
  std::string networkOperator;
  std::string validFrom;
  std::uint32_t keyLength = 0;
};

using History = std::map<std::string, std::string, std::greater<>>;  // date, newest first, to operator

struct Reference {
  std::map<std::string, History> keys;  // digits only

  // The record of `history` that holds at `date`, if any.
  static bool holds(const History& history, const std::string& date, Expected& out) {
    const auto found = history.lower_bound(date);  // newest first: the first not after `date`
    if (found != history.end()) out = Expected{true, found->second, found->first, 0};
    return found != history.end();
  }

  Expected search(std::string_view number, const std::string& date, std::uint32_t method) const {
    const std::string digits = digitsOf(number);
    std::vector<std::size_t> stored;  // lengths of the stored prefixes, shortest first
    for (std::size_t length = 1; length <= digits.size(); ++length) {
      if (keys.contains(digits.substr(0, length))) stored.push_back(length);
    }
    std::vector<std::size_t> tried;
    if (method == Tree::BEST_MATCH) {
      tried.assign(stored.rbegin(), stored.rend());
    } else if (method == Tree::EXACT_MATCH) {
      if (!stored.empty() && stored.back() == digits.size()) tried.push_back(digits.size());
    } else if (!stored.empty()) {
      tried.push_back(stored.front());
    }
    Expected out;
    for (const std::size_t length : tried) {
      if (holds(keys.at(digits.substr(0, length)), date, out)) {
        out.keyLength = static_cast<std::uint32_t>(length);
        return out;
      }
    }
    return Expected{};
  }
};

TEST(SearchKeyLength, EveryMethodGivesTheLengthOfTheStoredKeyThatABruteForceScanFinds) {
  std::mt19937_64 random(11);
  // Separators anywhere, as data files and hosts write numbers.
  const auto withSeparators = [&random](const std::string& digits) {
    std::string text = random() % 4 == 0 ? "+" : "";
    for (const char c : digits) {
      text += c;
      if (random() % 5 == 0) text += "- /"[random() % 3];
    }
    return text;
  };
  // Short blocks and long numbers below them, so that most numbers have several stored prefixes.
  const auto randomDigits = [&random] {
    std::string digits = "49";
    for (std::uint64_t n = 1 + random() % 9; n != 0; --n) digits += static_cast<char>('0' + random() % 4);
    return digits;
  };
  const auto randomDate = [&random] { return std::to_string(2000 + random() % 20) + "0101000000"; };

  Tree tree;
  Reference reference;
  for (int i = 0; i < 4000; ++i) {
    const std::string digits = randomDigits();
    const std::string date = randomDate();
    const std::string networkOperator = "OP" + std::to_string(i);
    if (tree.insert(BAS::String(withSeparators(digits)), NumberPortabilityData(BAS::DateTime(std::string_view(date)),
                                                                                BAS::SimpleString(networkOperator)),
                    true)) {
      reference.keys[digits].emplace(date, networkOperator);
    }
  }

  std::vector<std::string> texts = {"", "+-", "4", "49", "-4-9-"};  // no digits; shorter than any key
  while (texts.size() < 3000) texts.push_back(withSeparators(randomDigits()));
  const std::vector<std::string_view> numbers(texts.begin(), texts.end());
  std::vector<BAS::DateTime> dates;
  // Some before every record, so that misses come also from histories that do not hold yet.
  for (std::size_t i = 0; i < numbers.size(); ++i) dates.push_back(BAS::DateTime(std::string_view(std::to_string(1995 + random() % 25) + "0101000000")));

  for (const std::uint32_t method : {Tree::BEST_MATCH, Tree::EXACT_MATCH, Tree::ANY_PREFIX_MATCH, 7U}) {
    std::vector<NumberPortabilityData> results(numbers.size());
    std::vector<std::uint32_t> keyLengths(numbers.size(), 999);
    auto found = std::make_unique<bool[]>(numbers.size());
    tree.searchMany(numbers.data(), dates.data(), numbers.size(), method, results.data(), found.get(),
                    keyLengths.data());
    std::size_t own = 0, shorter = 0, none = 0;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
      const Expected expected = reference.search(numbers[i], dates[i].asString("%Y%m%d%H%M%S").str(), method);
      const std::string label = "'" + texts[i] + "' method " + std::to_string(method);
      ASSERT_EQ(found[i], expected.found) << label;
      if (!expected.found) {
        EXPECT_EQ(keyLengths[i], 999U) << label << ": a miss leaves the key length alone";
        ++none;
        continue;
      }
      EXPECT_EQ(keyLengths[i], expected.keyLength) << label;
      EXPECT_EQ(results[i].networkOperatorM.view(), expected.networkOperator) << label;
      EXPECT_EQ(results[i].validFromM.asString("%Y%m%d%H%M%S").str(), expected.validFrom) << label;
      (expected.keyLength == digitsOf(numbers[i]).size() ? own : shorter) += 1;
    }
    // Each kind of answer occurs, so that none of them goes unchecked.
    EXPECT_GT(own, 50U) << method;
    EXPECT_GT(none, 50U) << method;
    EXPECT_TRUE(method == Tree::EXACT_MATCH || shorter > 50) << method;
  }
}

}  // namespace
}  // namespace DAT::NumberPortability
