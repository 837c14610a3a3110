#include "DataGenerator.h"

#include "DateText.h"
#include "LineWriter.h"
#include "Random.h"

#include <algorithm>
#include <iterator>
#include <cmath>
#include <stdexcept>
#include <string>
#include <string_view>

namespace NpGen {

namespace {

// Invented identifiers in the style of portability operator codes: a country letter with a
// running number, or a letter group for resellers and virtual operators.
constexpr std::string_view operatorsC[] = {
    "D001",    "D002",   "D003",   "D012",    "D024",   "D031",   "D052",   "D118",     "D205",  "D260",
    "DMV01",   "DMV07",  "DMV19",  "DRES04",  "DRES11", "DFIX2",  "DFIX8",  "DNET303",  "A012",  "A015",
    "A030",    "AMV05",  "ARES21", "ANET9",   "C101",   "C120",   "CMV14",  "CRES3",    "N021",  "N030",
    "N044",    "NMV08",  "NRES017", "TRANS01", "XPORT02", "HUB7",  "MVNX04", "PORTA001",
};
constexpr unsigned operatorCountC = sizeof operatorsC / sizeof operatorsC[0];

constexpr std::uint64_t sizePurposeC = 0x73697a65;
constexpr std::uint64_t historyPurposeC = 0x68697374;
constexpr std::uint64_t dataPurposeC = 0x64617461;
constexpr std::uint64_t slotPurposeC = 0x736c6f74;
constexpr std::uint64_t prefixOrderPurposeC = 0x706f7264;
constexpr std::uint64_t prefixRecordPurposeC = 0x70726563;
constexpr std::uint64_t deltaPurposeC = 0x64656c74;
constexpr std::uint64_t deltaPickPurposeC = 0x64706963;
constexpr std::uint64_t eventPurposeC = 0x6576656e;
constexpr std::uint64_t callPurposeC = 0x63616c6c;

// Most numbers were ported once; a few moved on again.
constexpr double historySharesC[DataGenerator::maxHistoryCM] = {0.75, 0.17, 0.06, 0.02};
constexpr std::uint64_t mostPrefixesC = 3000;
constexpr unsigned recentRecordsC = 64;
constexpr unsigned eventTriesC = 1000;

const std::int64_t prefixStartC = DateText::seconds(2000, 1, 1);
const std::int64_t historyStartC = DateText::seconds(2005, 1, 1);
const std::int64_t historyEndC = DateText::seconds(2025, 1, 1);
const std::int64_t timeEndC = DateText::seconds(2026, 1, 1);
const std::int64_t earlyStartC = DateText::seconds(1990, 1, 1);
const std::int64_t threeYearsC = DateText::seconds(2003, 1, 1) - DateText::seconds(2000, 1, 1);

std::uint64_t share(double fraction, std::uint64_t count) {
  return static_cast<std::uint64_t>(std::llround(fraction * static_cast<double>(count)));
}

void requireRange(const char* what, double value, double low, double high) {
  if (!(value >= low && value <= high)) {
    throw std::invalid_argument(std::string(what) + " must lie between " + std::to_string(low) + " and " +
                                std::to_string(high));
  }
}

}  // namespace

DataGenerator::DataGenerator(const GeneratorOptions& options) : optionsM(options), planM(options.countries) {
  if (options.records == 0) {
    throw std::invalid_argument("the record count must be at least 1");
  }
  requireRange("the density", options.density, 1e-6, 1.0);
  requireRange("the bad-line share", options.badShare, 0.0, 0.5);
  requireRange("the delta share", options.deltaShare, 0.0, 0.2);
  requireRange("the hit share", options.hitShare, 0.0, 1.0);
  requireRange("the prefix share", options.prefixShare, 0.0, 1.0 - options.hitShare);

  const std::uint64_t lines = options.records;
  summaryM.lines = lines;
  summaryM.badLines = share(options.badShare, lines);

  // Every block gets its own key first (while the file is not tiny), then keys one or two
  // digits longer, up to a few thousand as in a real database.
  std::uint64_t blockKeys = 0;
  if (!options.sparse) {
    for (const auto& country : planM.countries()) {
      blockKeys += country.blocks.size();
    }
  }
  const std::uint64_t wantedPrefixes = std::max(std::min(blockKeys, lines / 10), std::min(mostPrefixesC, lines / 50));
  summaryM.prefixes = std::min({wantedPrefixes, NumberSpace::prefixCandidates(planM, options.sparse),
                                lines - summaryM.badLines});
  summaryM.records = lines - summaryM.badLines - summaryM.prefixes;

  // Split the records into histories of one to four records with exactly the wanted total.
  const std::uint64_t records = summaryM.records;
  double meanSize = 0;
  for (unsigned k = 0; k < maxHistoryCM; ++k) {
    meanSize += historySharesC[k] * (k + 1);
  }
  const auto numbers = static_cast<std::uint64_t>(std::llround(static_cast<double>(records) / meanSize));
  std::uint64_t total = 0;
  for (unsigned k = 1; k < maxHistoryCM; ++k) {
    sizeCountsM[k] = share(historySharesC[k], numbers);
    total += (k + 1) * sizeCountsM[k];
  }
  sizeCountsM[0] = numbers - sizeCountsM[1] - sizeCountsM[2] - sizeCountsM[3];
  total += sizeCountsM[0];
  while (total > records) {
    unsigned k = maxHistoryCM - 1;
    while (k > 0 && sizeCountsM[k] == 0) {
      --k;
    }
    --sizeCountsM[k];
    if (k > 0) {
      ++sizeCountsM[k - 1];
    }
    --total;
  }
  while (total < records) {
    unsigned k = 0;
    while (k + 1 < maxHistoryCM && sizeCountsM[k] == 0) {
      ++k;
    }
    if (k + 1 < maxHistoryCM) {
      --sizeCountsM[k];
      ++sizeCountsM[k + 1];
    } else {
      ++sizeCountsM[0];
    }
    ++total;
  }
  for (const std::uint64_t count : sizeCountsM) {
    summaryM.numbers += count;
  }
  sizeOrderM = Permutation(summaryM.numbers, Random::stream(options.seed, sizePurposeC).next());

  // A reserve of numbers behind the data file's for the delta files' new numbers. It depends
  // on the record count only, so a delta written by another run fits the data file.
  capacityM = summaryM.numbers + lines / 4 + 16;
  spaceM.emplace(planM, options.sparse, options.density, capacityM, summaryM.prefixes, options.seed);

  const std::uint64_t deltaLines = share(options.deltaShare, lines);
  summaryM.deltaChanged = std::min(share(0.4, deltaLines), summaryM.numbers);
  summaryM.deltaDuplicates = std::min(share(0.2, deltaLines), summaryM.numbers - summaryM.deltaChanged);
  summaryM.deltaNew = deltaLines - summaryM.deltaChanged - summaryM.deltaDuplicates;

  const std::uint64_t events = options.eventCount;
  summaryM.eventHits = summaryM.numbers == 0 ? 0 : share(options.hitShare, events);
  summaryM.eventPrefixHits =
      summaryM.prefixes == 0 ? 0 : std::min(share(options.prefixShare, events), events - summaryM.eventHits);
  summaryM.eventMisses = events - summaryM.eventHits - summaryM.eventPrefixHits;
}

unsigned DataGenerator::historySize(std::uint64_t index) const {
  if (index >= summaryM.numbers) {
    return 1;
  }
  std::uint64_t rank = sizeOrderM.apply(index);
  for (unsigned k = maxHistoryCM; k-- > 1;) {
    if (rank < sizeCountsM[k]) {
      return k + 1;
    }
    rank -= sizeCountsM[k];
  }
  return 1;
}

DataGenerator::History DataGenerator::historyOf(std::uint64_t index) const {
  Random random = Random::stream(optionsM.seed, historyPurposeC, index);
  History history;
  history.size = historySize(index);
  for (unsigned k = 0; k < history.size; ++k) {
    std::int64_t date = 0;
    unsigned op = 0;
    do {
      date = random.between(historyStartC, historyEndC);
    } while (std::find(history.dates.begin(), history.dates.begin() + k, date) != history.dates.begin() + k);
    do {
      op = static_cast<unsigned>(random.below(operatorCountC));
    } while (std::find(history.operators.begin(), history.operators.begin() + k, op) != history.operators.begin() + k);
    history.dates[k] = date;
    history.operators[k] = op;
  }
  std::sort(history.dates.begin(), history.dates.begin() + history.size);
  return history;
}

unsigned DataGenerator::otherOperator(unsigned op, Random& random) const {
  return static_cast<unsigned>((op + 1 + random.below(operatorCountC - 1)) % operatorCountC);
}

void DataGenerator::writeNumber(LineWriter& out, const Number& number, Random& random) const {
  const std::string& code = planM.countries()[number.country].code;
  const std::uint64_t form = random.below(100);
  if (number.country == 0 && form >= 55) {
    // National forms exist for the home country only.
    if (form < 85) {
      out.put(NumberingPlan::nationalAccessCodeCM);
    }
  } else {
    out.put(form % 2 == 0 ? NumberingPlan::internationalAccessCodeCM : NumberingPlan::internationalAccessSignCM);
    out.put(code);
  }
  out.putNumber(number.national, number.length);
}

void DataGenerator::writeStoredNumber(LineWriter& out, const Number& number) const {
  out.put(NumberingPlan::internationalAccessCodeCM);
  out.put(planM.countries()[number.country].code);
  out.putNumber(number.national, number.length);
}

void DataGenerator::writeRecord(LineWriter& out, const Record& record, Random& random) const {
  // Columns are white space, not one blank: now and then a tab.
  const char separator = random.below(32) == 0 ? '\t' : ' ';
  writeNumber(out, record.number, random);
  out.put(separator);
  out.putDate(record.date);
  out.put(separator);
  out.put(operatorsC[record.op]);
  out.endLine();
}

void DataGenerator::writeBadLine(LineWriter& out, Random& random, const std::optional<Record>& earlier) const {
  enum Kind : unsigned { TWO_COLUMNS, FOUR_COLUMNS, BAD_FIELD, DASHED_DATE, EMPTY, DUPLICATE, KIND_COUNT };
  auto kind = static_cast<Kind>(random.below(KIND_COUNT));
  if (kind == DUPLICATE) {
    if (earlier) {
      Record duplicate = *earlier;
      duplicate.op = otherOperator(duplicate.op, random);
      writeRecord(out, duplicate, random);
      return;
    }
    kind = TWO_COLUMNS;
  }
  if (kind != EMPTY) {
    const Number number = spaceM->numberAt(random.below(capacityM));
    char date[DateText::digitsCM];
    DateText::write(random.between(historyStartC, historyEndC), date);
    const std::string_view op = operatorsC[random.below(operatorCountC)];
    writeNumber(out, number, random);
    out.put(' ');
    switch (kind) {
      case TWO_COLUMNS:
        out.put(std::string_view(date, sizeof date));
        break;
      case FOUR_COLUMNS:
        out.put(std::string_view(date, sizeof date));
        out.put(' ');
        out.put(op);
        out.put(' ');
        out.put(operatorsC[random.below(operatorCountC)]);
        break;
      case BAD_FIELD: {
        // Fourteen digits that name no moment: month 13 or 00, day 32 or 00, hour 25.
        struct Field {
          unsigned at;
          char digits[3];
        };
        static constexpr Field fieldsC[] = {{4, "13"}, {4, "00"}, {6, "32"}, {6, "00"}, {8, "25"}};
        const Field& field = fieldsC[random.below(std::size(fieldsC))];
        date[field.at] = field.digits[0];
        date[field.at + 1] = field.digits[1];
        out.put(std::string_view(date, sizeof date));
        out.put(' ');
        out.put(op);
        break;
      }
      default:
        out.put(std::string_view(date, 4));
        out.put('-');
        out.put(std::string_view(date + 4, 2));
        out.put('-');
        out.put(std::string_view(date + 6, 2));
        out.put(' ');
        out.put(op);
        break;
    }
  }
  out.endLine();
}

void DataGenerator::writeData(LineWriter& out) const {
  Random random = Random::stream(optionsM.seed, dataPurposeC);
  const NumberSpace& space = *spaceM;
  // Each number owns maxHistoryCM slots in a shuffled order; a slot past the number's history
  // is skipped. So records of one number are spread over the file, not in date order.
  const Permutation slotOrder(summaryM.numbers * maxHistoryCM, Random::stream(optionsM.seed, slotPurposeC).next());
  const Permutation prefixOrder(summaryM.prefixes, Random::stream(optionsM.seed, prefixOrderPurposeC).next());
  std::uint64_t nextSlot = 0;
  std::uint64_t nextPrefix = 0;
  std::array<Record, recentRecordsC> recent;
  std::uint64_t recentCount = 0;

  std::uint64_t badLeft = summaryM.badLines;
  std::uint64_t prefixesLeft = summaryM.prefixes;
  std::uint64_t recordsLeft = summaryM.records;
  while (badLeft + prefixesLeft + recordsLeft > 0) {
    const std::uint64_t pick = random.below(badLeft + prefixesLeft + recordsLeft);
    if (pick < badLeft) {
      --badLeft;
      std::optional<Record> earlier;
      if (recentCount > 0) {
        earlier = recent[random.below(std::min<std::uint64_t>(recentCount, recentRecordsC))];
      }
      writeBadLine(out, random, earlier);
    } else if (pick < badLeft + prefixesLeft) {
      --prefixesLeft;
      const std::uint64_t prefix = prefixOrder.apply(nextPrefix++);
      // Block records are older than every number's record, so the fall-back finds them for
      // any time a number's own history does not reach.
      Random own = Random::stream(optionsM.seed, prefixRecordPurposeC, prefix);
      const Record record{space.prefixAt(prefix), own.between(prefixStartC, historyStartC),
                          static_cast<unsigned>(own.below(operatorCountC))};
      writeRecord(out, record, random);
    } else {
      --recordsLeft;
      std::uint64_t slot = 0;
      do {
        slot = slotOrder.apply(nextSlot++);
      } while (slot % maxHistoryCM != 0 && slot % maxHistoryCM >= historySize(slot / maxHistoryCM));
      const std::uint64_t index = slot / maxHistoryCM;
      const auto k = static_cast<unsigned>(slot % maxHistoryCM);
      const History history = historyOf(index);
      const Record record{space.numberAt(index), history.dates[k], history.operators[k]};
      writeRecord(out, record, random);
      recent[recentCount++ % recentRecordsC] = record;
    }
  }
}

void DataGenerator::writeDelta(LineWriter& out) const {
  Random random = Random::stream(optionsM.seed, deltaPurposeC);
  const NumberSpace& space = *spaceM;
  // Changed and duplicated numbers are distinct, so each delta line has one clear meaning.
  const Permutation chosen(summaryM.numbers, Random::stream(optionsM.seed, deltaPickPurposeC).next());
  std::uint64_t newLeft = summaryM.deltaNew;
  std::uint64_t changedLeft = summaryM.deltaChanged;
  std::uint64_t duplicatesLeft = summaryM.deltaDuplicates;
  std::uint64_t nextNew = summaryM.numbers;
  std::uint64_t nextChosen = 0;
  while (newLeft + changedLeft + duplicatesLeft > 0) {
    const std::uint64_t pick = random.below(newLeft + changedLeft + duplicatesLeft);
    Record record;
    if (pick < newLeft) {
      --newLeft;
      const History history = historyOf(nextNew);
      record = {space.numberAt(nextNew++), history.dates[0], history.operators[0]};
    } else {
      const std::uint64_t index = chosen.apply(nextChosen++);
      const History history = historyOf(index);
      if (pick < newLeft + changedLeft) {
        --changedLeft;
        const unsigned last = history.size - 1;
        record = {space.numberAt(index), random.between(history.dates[last] + 1, timeEndC),
                  otherOperator(history.operators[last], random)};
      } else {
        --duplicatesLeft;
        const auto k = static_cast<unsigned>(random.below(history.size));
        record = {space.numberAt(index), history.dates[k],
                  random.chance(0.5) ? history.operators[k] : otherOperator(history.operators[k], random)};
      }
    }
    writeRecord(out, record, random);
  }
}

DataGenerator::Number DataGenerator::unknownUnderPrefix(Random& random) const {
  const NumberSpace& space = *spaceM;
  for (unsigned tries = 0; tries < eventTriesC; ++tries) {
    // Half are neighbours of known numbers, which share all but the last digits with them.
    const Number candidate = summaryM.numbers > 0 && random.chance(0.5)
                                 ? NumberSpace::near(space.numberAt(random.below(summaryM.numbers)), random)
                                 : space.extend(space.prefixAt(random.below(summaryM.prefixes)), random);
    if (!space.indexOf(candidate) && space.covered(candidate)) {
      return candidate;
    }
  }
  throw std::runtime_error("no unknown number found under the block prefixes; lower the density");
}

void DataGenerator::writeEvents(LineWriter& out) const {
  Random random = Random::stream(optionsM.seed, eventPurposeC);
  const std::uint64_t callKey = Random::stream(optionsM.seed, callPurposeC).next();
  const NumberSpace& space = *spaceM;
  const auto& foreign = planM.foreignCodes();
  std::uint64_t hitsLeft = summaryM.eventHits;
  std::uint64_t prefixHitsLeft = summaryM.eventPrefixHits;
  std::uint64_t missesLeft = summaryM.eventMisses;
  for (std::uint64_t event = 0; hitsLeft + prefixHitsLeft + missesLeft > 0; ++event) {
    const std::uint64_t pick = random.below(hitsLeft + prefixHitsLeft + missesLeft);
    std::int64_t date = 0;
    if (pick < hitsLeft) {
      --hitsLeft;
      const std::uint64_t index = random.below(summaryM.numbers);
      const History history = historyOf(index);
      const std::int64_t from = history.dates[random.below(history.size)];
      date = random.between(from, std::min(from + threeYearsC, timeEndC));
      writeStoredNumber(out, space.numberAt(index));
    } else if (pick < hitsLeft + prefixHitsLeft) {
      --prefixHitsLeft;
      writeStoredNumber(out, unknownUnderPrefix(random));
      date = random.between(historyStartC, timeEndC);
    } else {
      --missesLeft;
      if (summaryM.numbers > 0 && random.chance(0.5)) {
        // A known number before its own records and before its block's.
        writeStoredNumber(out, space.numberAt(random.below(summaryM.numbers)));
        date = random.between(earlyStartC, prefixStartC);
      } else {
        const unsigned length = 9 + static_cast<unsigned>(random.below(3));
        std::uint64_t scale = 1;
        for (unsigned d = 1; d < length; ++d) {
          scale *= 10;
        }
        out.put(NumberingPlan::internationalAccessCodeCM);
        out.put(foreign[random.below(foreign.size())]);
        out.putNumber((1 + random.below(9)) * scale + random.below(scale), length);
        date = random.between(historyStartC, timeEndC);
      }
    }
    out.put(';');
    out.putDate(date);
    out.put(';');
    out.putHex(Random::mix(callKey ^ event));
    out.put(';');
    out.putNumber(random.below(1 + random.below(3600)));
    out.endLine();
  }
}

}  // namespace NpGen
