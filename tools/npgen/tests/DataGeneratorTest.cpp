// The generated files checked through a small reference loader that takes lines as the
// plug-in does: same options give the same bytes, and the shape that the benchmarks rely on
// (written forms, history lengths, bad lines, delta and event shares) holds within tolerance.
#include "DataGenerator.h"
#include "DateText.h"
#include "LineWriter.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using NpGen::DataGenerator;
using NpGen::DateText;
using NpGen::GeneratorOptions;
using NpGen::LineWriter;

namespace {

struct Files {
  std::string data, delta, events;
};

Files generate(const GeneratorOptions& options) {
  const DataGenerator generator(options);
  LineWriter data, delta, events;
  generator.writeData(data);
  generator.writeDelta(delta);
  generator.writeEvents(events);
  return {data.text(), delta.text(), events.text()};
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
  return parts;
}

bool allDigits(const std::string& text) { return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos; }

// A calendar date-time survives the way through seconds unchanged; any other digits do not.
bool validDate(const std::string& t) {
  if (t.size() != DateText::digitsCM || !allDigits(t)) return false;
  const auto field = [&t](std::size_t at, std::size_t length) { return static_cast<unsigned>(std::stoi(t.substr(at, length))); };
  char back[DateText::digitsCM];
  DateText::write(DateText::seconds(std::stoi(t.substr(0, 4)), field(4, 2), field(6, 2), field(8, 2), field(10, 2), field(12, 2)), back);
  return t == std::string(back, sizeof back);
}

struct Record {
  std::string key, date, op, form;
};

// A data or delta line as the plug-in takes it (home country 49), or nothing for a rejected one.
std::optional<Record> parse(const std::string& line) {
  std::istringstream in(line);
  std::string number, date, op, surplus;
  if (!(in >> number >> date >> op) || (in >> surplus) || !validDate(date) || op.size() < 4 || op.size() > 8 ||
      !allDigits(number[0] == '+' ? number.substr(1) : number)) {
    return std::nullopt;
  }
  if (number[0] == '+') return Record{"00" + number.substr(1), date, op, number.substr(0, 3)};
  if (number.starts_with("00")) return Record{number, date, op, number.substr(0, 4)};
  if (number[0] == '0') return Record{"0049" + number.substr(1), date, op, "0"};
  return Record{"0049" + number, date, op, "bare"};
}

// Every known country code has two digits: a national number of five digits or less is a block.
struct Loaded {
  std::map<std::string, std::map<std::string, std::string>> numbers;  // key -> date -> operator
  std::map<std::string, std::string> prefixes;                       // key -> date
  std::size_t rejected = 0;                                           // unusable or duplicate lines
  std::set<std::string> forms;
};

Loaded load(const std::string& text) {
  Loaded loaded;
  for (const std::string& line : split(text, '\n')) {
    const auto record = parse(line);
    if (!record) {
      ++loaded.rejected;
      continue;
    }
    loaded.forms.insert(record->form);
    const bool added = record->key.size() <= 9 ? loaded.prefixes.emplace(record->key, record->date).second
                                               : loaded.numbers[record->key].emplace(record->date, record->op).second;
    loaded.rejected += added ? 0 : 1;
  }
  return loaded;
}

GeneratorOptions small(std::uint64_t records = 20000) {
  GeneratorOptions options;
  options.records = records;
  options.seed = 7;
  options.eventCount = 5000;
  options.deltaShare = 0.05;
  return options;
}

}  // namespace

TEST(DataGenerator, SameOptionsGiveTheSameBytesAndAnotherSeedOthers) {
  const Files first = generate(small(3000));
  const Files second = generate(small(3000));
  EXPECT_EQ(first.data, second.data);
  EXPECT_EQ(first.delta, second.delta);
  EXPECT_EQ(first.events, second.events);
  GeneratorOptions reseeded = small(3000);
  reseeded.seed = 8;
  const Files other = generate(reseeded);
  EXPECT_NE(first.data, other.data);
  EXPECT_NE(first.delta, other.delta);
  EXPECT_NE(first.events, other.events);
}

TEST(DataGenerator, DataFileHasHistoriesOfTheExpectedLengthsInEveryFormAndTheBadLinesAskedFor) {
  for (const double badShare : {0.0, 0.1}) {
    SCOPED_TRACE(badShare);
    GeneratorOptions options = small();
    options.badShare = badShare;
    const std::string text = generate(options).data;
    EXPECT_EQ(split(text, '\n').size(), options.records);
    const Loaded loaded = load(text);
    EXPECT_NEAR(static_cast<double>(loaded.rejected) / options.records, badShare, 0.02);
    EXPECT_EQ(loaded.forms, (std::set<std::string>{"+31", "+41", "+43", "+49", "0", "0031", "0041", "0043", "0049", "bare"}));
    std::size_t records = 0;
    std::map<std::size_t, std::size_t> sizes;
    for (const auto& [key, history] : loaded.numbers) {
      ASSERT_LE(history.size(), DataGenerator::maxHistoryCM) << key;
      std::set<std::string> operators;
      for (const auto& [date, op] : history) {
        EXPECT_TRUE(date >= "20050101000000" && date < "20250101000000") << key;
        operators.insert(op);
      }
      EXPECT_EQ(operators.size(), history.size()) << key << " has an operator twice in its history";
      ++sizes[history.size()];
      records += history.size();
    }
    const double numbers = static_cast<double>(loaded.numbers.size());
    EXPECT_NEAR(sizes[1] / numbers, 0.75, 0.05);
    EXPECT_NEAR(sizes[2] / numbers, 0.17, 0.05);
    EXPECT_GT(sizes[4], 0U);
    // Block keys are older than every number's record, so a fall-back always has an answer.
    EXPECT_GT(loaded.prefixes.size(), 30U);
    for (const auto& [key, date] : loaded.prefixes) EXPECT_LT(date, "20050101000000") << key;
    EXPECT_EQ(records + loaded.prefixes.size() + loaded.rejected, options.records);
  }
}

TEST(DataGenerator, EventsHitMissOrFallBackInTheRequestedShares) {
  GeneratorOptions options = small();
  options.hitShare = 0.5;
  options.prefixShare = 0.3;
  const Files files = generate(options);
  const Loaded loaded = load(files.data);
  std::map<std::string, std::size_t> kinds;
  std::set<std::string> callIds;
  const auto events = split(files.events, '\n');
  ASSERT_EQ(events.size(), options.eventCount);
  for (const std::string& line : events) {
    const auto fields = split(line, ';');
    ASSERT_TRUE(fields.size() == 4 && fields[0].starts_with("00") && allDigits(fields[0]) && validDate(fields[1]) &&
                allDigits(fields[3]))
        << line;
    callIds.insert(fields[2]);
    const std::string& key = fields[0];
    const auto number = loaded.numbers.find(key);
    std::string kind = number != loaded.numbers.end() && number->second.begin()->first <= fields[1] ? "hit" : "miss";
    for (std::size_t length = key.size() - 1; length > 4 && kind == "miss"; --length) {
      const auto prefix = loaded.prefixes.find(key.substr(0, length));
      if (prefix != loaded.prefixes.end() && prefix->second <= fields[1]) {
        kind = number == loaded.numbers.end() ? "prefix" : "known number answered by its block";
      }
    }
    ++kinds[kind];
  }
  EXPECT_EQ(callIds.size(), events.size());
  const double count = static_cast<double>(events.size());
  EXPECT_NEAR(kinds["hit"] / count, 0.5, 0.03);
  EXPECT_NEAR(kinds["prefix"] / count, 0.3, 0.03);
  EXPECT_NEAR(kinds["miss"] / count, 0.2, 0.03);
  EXPECT_EQ(kinds["known number answered by its block"], 0U);
}

TEST(DataGenerator, DeltaAddsNumbersChangesOperatorsAndRepeatsRecords) {
  const GeneratorOptions options = small();
  const Files files = generate(options);
  const Loaded loaded = load(files.data);
  const auto delta = split(files.delta, '\n');
  EXPECT_EQ(delta.size(), static_cast<std::size_t>(options.records * options.deltaShare));
  std::size_t added = 0, changed = 0, repeated = 0;
  for (const std::string& line : delta) {
    const auto record = parse(line);
    ASSERT_TRUE(record) << line;
    const auto number = loaded.numbers.find(record->key);
    if (number == loaded.numbers.end()) {
      ++added;
    } else if (number->second.count(record->date) != 0) {
      ++repeated;
    } else {
      const auto& [lastDate, lastOperator] = *number->second.rbegin();
      EXPECT_GT(record->date, lastDate) << line;
      EXPECT_NE(record->op, lastOperator) << line;
      ++changed;
    }
  }
  EXPECT_GT(added, delta.size() / 4);
  EXPECT_GT(changed, delta.size() / 4);
  EXPECT_GT(repeated, delta.size() / 10);
}

TEST(DataGenerator, RejectsOptionsItCannotMeet) {
  const auto refuses = [](auto change) {
    GeneratorOptions options = small();
    change(options);
    EXPECT_THROW(DataGenerator{options}, std::invalid_argument);
  };
  refuses([](GeneratorOptions& o) { o.records = 0; });
  refuses([](GeneratorOptions& o) { o.prefixShare = 0.5; });
  refuses([](GeneratorOptions& o) { o.countries = {"49", "99"}; });
  refuses([](GeneratorOptions& o) {
    o.density = 0.0001;
    o.records = 5000000;
  });
}

TEST(LineWriter, FileGetsTheSameBytesAsMemoryPastTheBlockSize) {
  const std::string path = (std::filesystem::temp_directory_path() / "npgen_line_writer_test.txt").string();
  LineWriter memory;
  LineWriter file(path);
  for (std::uint64_t i = 0; i < 200000; ++i) {
    for (LineWriter* out : {&memory, &file}) {
      out->putNumber(i, 7);
      out->put(' ');
      out->putDate(static_cast<std::int64_t>(i) * 3601);
      out->endLine();
    }
  }
  file.close();
  std::ifstream in(path, std::ios::binary);
  const std::string written{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  std::remove(path.c_str());
  EXPECT_GT(written.size(), std::size_t{1} << 20);
  EXPECT_EQ(written, memory.text());
}
