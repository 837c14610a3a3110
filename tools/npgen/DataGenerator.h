// NpGen::DataGenerator writes the number-portability data file, a delta file and an event file
// for one set of options. Numbers, histories and prefixes are recomputed from their index and
// the seed wherever they are needed, so the three files agree and memory stays small however
// many records are asked for. The command line program and the tests drive it; the writers it
// fills decide whether the text goes to a file or stays in memory. Read only once built.
#pragma once

#include "GeneratorOptions.h"
#include "NumberSpace.h"
#include "NumberingPlan.h"
#include "Permutation.h"

#include <array>
#include <cstdint>
#include <optional>

namespace NpGen {

class LineWriter;
class Random;

class DataGenerator {
public:
  struct Summary {
    std::uint64_t lines = 0;     // of the data file
    std::uint64_t records = 0;   // usable records of numbers
    std::uint64_t numbers = 0;   // distinct numbers with records
    std::uint64_t prefixes = 0;  // block-prefix records
    std::uint64_t badLines = 0;
    std::uint64_t deltaNew = 0;      // delta records of numbers the data file lacks
    std::uint64_t deltaChanged = 0;  // later records with another operator
    std::uint64_t deltaDuplicates = 0;
    std::uint64_t eventHits = 0;
    std::uint64_t eventPrefixHits = 0;
    std::uint64_t eventMisses = 0;
  };

  // Throws std::invalid_argument for options out of range or more numbers than the blocks
  // hold at the given density.
  explicit DataGenerator(const GeneratorOptions& options);

  DataGenerator(const DataGenerator&) = delete;
  DataGenerator& operator=(const DataGenerator&) = delete;

  void writeData(LineWriter& out) const;
  void writeDelta(LineWriter& out) const;
  // Throws std::runtime_error if no unknown number can be found under the stored prefixes.
  void writeEvents(LineWriter& out) const;

  const Summary& summary() const { return summaryM; }

  static constexpr unsigned maxHistoryCM = 4;

private:
  using Number = NumberSpace::Number;

  struct History {
    unsigned size = 0;
    std::array<std::int64_t, maxHistoryCM> dates{};  // ascending
    std::array<unsigned, maxHistoryCM> operators{};  // all different
  };

  struct Record {
    Number number;
    std::int64_t date = 0;
    unsigned op = 0;
  };

  unsigned historySize(std::uint64_t index) const;
  History historyOf(std::uint64_t index) const;
  unsigned otherOperator(unsigned op, Random& random) const;

  void writeNumber(LineWriter& out, const Number& number, Random& random) const;
  void writeStoredNumber(LineWriter& out, const Number& number) const;
  void writeRecord(LineWriter& out, const Record& record, Random& random) const;
  void writeBadLine(LineWriter& out, Random& random, const std::optional<Record>& earlier) const;
  Number unknownUnderPrefix(Random& random) const;

  GeneratorOptions optionsM;
  NumberingPlan planM;
  Summary summaryM;
  std::uint64_t capacityM = 0;
  std::array<std::uint64_t, maxHistoryCM> sizeCountsM{};  // numbers with 1, 2, 3 and 4 records
  Permutation sizeOrderM{0, 0};                            // number index -> rank for its history size
  std::optional<NumberSpace> spaceM;
};

}  // namespace NpGen
