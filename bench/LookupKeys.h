// Bench::LookupKeys is a lookup workload parsed ahead of time: numbers in stored form and the
// date-times to ask about, so that the timed loops do nothing but look up. Read-only once
// filled, and then shared by the threads of a measurement.
#pragma once

#include "BAS/DateTime.h"
#include "BAS/String.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Bench {

class LookupKeys {
public:
  LookupKeys() = default;
  explicit LookupKeys(std::string name) : nameM(std::move(name)) {}

  void add(const BAS::String& number, const BAS::DateTime& dateTime) {
    numbersM.push_back(number);
    dateTimesM.push_back(dateTime);
  }

  const std::string& name() const { return nameM; }
  std::size_t size() const { return numbersM.size(); }
  bool empty() const { return numbersM.empty(); }
  const BAS::String& number(std::size_t index) const { return numbersM[index]; }
  const BAS::DateTime& dateTime(std::size_t index) const { return dateTimesM[index]; }

private:
  std::string nameM;
  std::vector<BAS::String> numbersM;
  std::vector<BAS::DateTime> dateTimesM;
};

}  // namespace Bench
