#include "DataGenerator.h"
#include "LineWriter.h"

#include <gtest/gtest.h>

#include <algorithm>
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
using NpGen::GeneratorOptions;
using NpGen::LineWriter;

namespace {

struct Files {
  std::string data;
  std::string delta;
  std::string events;
};

Files generate(const GeneratorOptions& options) {
  const DataGenerator generator(options);
  LineWriter data;
  LineWriter delta;
  LineWriter events;
  generator.writeData(data);
  generator.writeDelta(delta);
  generator.writeEvents(events);
  return {data.text(), delta.text(), events.text()};
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> result;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    result.push_back(line);
  }
  return result;
}

std::vector<std::string> split(const std::string& line, char separator = 0) {
  std::vector<std::string> fields;
  if (separator != 0) {
    std::istringstream in(line);
    for (std::string field; std::getline(in, field, separator);) {
      fields.push_back(field);
    }
    return fields;
  }
  std::istringstream in(line);
  for (std::string field; in >> field;) {
    fields.push_back(field);
  }
  return fields;
}

bool allDigits(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool validDate(const std::string& text) {
  if (text.size() != 14 || !allDigits(text)) {
    return false;
  }
  const int year = std::stoi(text.substr(0, 4));
  const int month = std::stoi(text.substr(4, 2));
  const int day = std::stoi(text.substr(6, 2));
  static constexpr int daysC[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12 || day < 1) {
    return false;
  }
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return day <= daysC[month - 1] + (month == 2 && leap ? 1 : 0) && std::stoi(text.substr(8, 2)) < 24 &&
         std::stoi(text.substr(10, 2)) < 60 && std::stoi(text.substr(12, 2)) < 60;
}

// The stored key of a number as the plug-in makes it, home country 49.
std::string storedKey(const std::string& written) {
  if (written[0] == '+') {
    return "00" + written.substr(1);
  }
  if (written.rfind("00", 0) == 0) {
    return written;
  }
  return written[0] == '0' ? "0049" + written.substr(1) : "0049" + written;
}

struct Record {
  std::string key;
  std::string date;
  std::string op;
};

// A data or delta line as the plug-in would take it, or nothing for a line it rejects.
std::optional<Record> parse(const std::string& line) {
  const auto fields = split(line);
  if (fields.size() != 3 || !validDate(fields[1]) || fields[2].size() < 4 || fields[2].size() > 8) {
    return std::nullopt;
  }
  const std::string& number = fields[0];
  if (!allDigits(number[0] == '+' ? number.substr(1) : number)) {
    return std::nullopt;
  }
  return Record{storedKey(number), fields[1], fields[2]};
}

// National number length: every known country code has two digits.
std::size_t nationalLength(const std::string& key) { return key.size() - 4; }

struct Loaded {
  std::map<std::string, std::map<std::string, std::string>> numbers;  // key -> date -> operator
  std::map<std::string, std::string> prefixes;                       // key -> date
  std::size_t rejected = 0;                                           // unusable or duplicate lines
  std::set<std::string> forms;                                        // how numbers were written
};

Loaded load(const std::string& text) {
  Loaded loaded;
  for (const std::string& line : lines(text)) {
    const auto record = parse(line);
    if (!record) {
      ++loaded.rejected;
      continue;
    }
    const std::string written = split(line)[0];
    loaded.forms.insert(written[0] == '+' ? "+" + written.substr(1, 2)
                        : written.rfind("00", 0) == 0 ? written.substr(0, 4)
                        : written[0] == '0'           ? "0"
                                                      : "bare");
    if (nationalLength(record->key) <= 5) {
      loaded.rejected += loaded.prefixes.emplace(record->key, record->date).second ? 0 : 1;
    } else {
      loaded.rejected += loaded.numbers[record->key].emplace(record->date, record->op).second ? 0 : 1;
    }
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
  const GeneratorOptions options = small(3000);
  const Files first = generate(options);
  const Files second = generate(options);
  EXPECT_EQ(first.data, second.data);
  EXPECT_EQ(first.delta, second.delta);
  EXPECT_EQ(first.events, second.events);

  GeneratorOptions reseeded = options;
  reseeded.seed = 8;
  const Files other = generate(reseeded);
  EXPECT_NE(first.data, other.data);
  EXPECT_NE(first.delta, other.delta);
  EXPECT_NE(first.events, other.events);
}

TEST(DataGenerator, DataFileHasShuffledHistoriesInEveryWrittenForm) {
  const GeneratorOptions options = small();
  const std::string text = generate(options).data;
  const auto all = lines(text);
  ASSERT_EQ(all.size(), options.records);

  const Loaded loaded = load(text);
  EXPECT_EQ(loaded.rejected, 0U) << "no bad lines were asked for";
  EXPECT_EQ(loaded.forms, (std::set<std::string>{"+31", "+41", "+43", "+49", "0", "0031", "0041", "0043", "0049",
                                                 "bare"}));

  std::size_t records = 0;
  std::map<std::size_t, std::size_t> sizes;
  for (const auto& [key, history] : loaded.numbers) {
    ASSERT_GE(nationalLength(key), 9U) << key;
    ASSERT_LE(history.size(), DataGenerator::maxHistoryCM) << key;
    std::set<std::string> operators;
    for (const auto& [date, op] : history) {
      EXPECT_GE(date, "20050101000000");
      EXPECT_LT(date, "20250101000000");
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

  // Block keys are older than every number's record.
  EXPECT_GT(loaded.prefixes.size(), 30U);
  for (const auto& [key, date] : loaded.prefixes) {
    EXPECT_LT(date, "20050101000000") << key;
  }
  EXPECT_EQ(records + loaded.prefixes.size(), options.records);

  // Neighbours: many numbers share all but their last four digits with another one.
  std::map<std::string, int> groups;
  for (const auto& entry : loaded.numbers) {
    ++groups[entry.first.substr(0, entry.first.size() - 4)];
  }
  EXPECT_LT(groups.size(), loaded.numbers.size() / 2);

  // Not sorted, and some history appears out of date order.
  std::vector<std::string> keys;
  std::map<std::string, std::string> lastDate;
  bool outOfOrder = false;
  for (const std::string& line : all) {
    const auto record = parse(line);
    keys.push_back(record->key);
    auto [at, added] = lastDate.emplace(record->key, record->date);
    outOfOrder = outOfOrder || (!added && record->date < at->second);
    at->second = record->date;
  }
  EXPECT_FALSE(std::is_sorted(keys.begin(), keys.end()));
  EXPECT_TRUE(outOfOrder);
}

TEST(DataGenerator, BadLinesComeInTheRequestedShareWithDuplicatesAmongThem) {
  GeneratorOptions options = small();
  options.badShare = 0.1;
  const std::string text = generate(options).data;
  EXPECT_EQ(lines(text).size(), options.records);
  const Loaded loaded = load(text);
  EXPECT_NEAR(static_cast<double>(loaded.rejected) / options.records, 0.1, 0.02);

  std::size_t duplicates = 0;
  std::map<std::pair<std::string, std::string>, std::string> seen;
  for (const std::string& line : lines(text)) {
    if (const auto record = parse(line)) {
      const auto [at, added] = seen.emplace(std::pair{record->key, record->date}, record->op);
      if (!added) {
        EXPECT_NE(at->second, record->op) << "a duplicate names another operator: " << line;
        ++duplicates;
      }
    }
  }
  EXPECT_GT(duplicates, options.records / 200);
}

TEST(DataGenerator, EventsHitMissOrFallBackInTheRequestedShares) {
  GeneratorOptions options = small();
  options.hitShare = 0.5;
  options.prefixShare = 0.3;
  const Files files = generate(options);
  const Loaded loaded = load(files.data);

  std::map<std::string, std::size_t> kinds;
  std::set<std::string> callIds;
  const auto events = lines(files.events);
  ASSERT_EQ(events.size(), options.eventCount);
  for (const std::string& line : events) {
    const auto fields = split(line, ';');
    ASSERT_EQ(fields.size(), 4U) << line;
    ASSERT_TRUE(allDigits(fields[0]) && fields[0].rfind("00", 0) == 0) << line;
    ASSERT_TRUE(validDate(fields[1])) << line;
    ASSERT_TRUE(allDigits(fields[3])) << line;
    callIds.insert(fields[2]);

    const std::string& key = fields[0];
    const std::string& date = fields[1];
    const auto number = loaded.numbers.find(key);
    if (number != loaded.numbers.end() && number->second.begin()->first <= date) {
      ++kinds["hit"];
      continue;
    }
    std::string kind = "miss";
    for (std::size_t length = key.size() - 1; length > 4 && kind == "miss"; --length) {
      const auto prefix = loaded.prefixes.find(key.substr(0, length));
      if (prefix != loaded.prefixes.end() && prefix->second <= date) {
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
  const auto delta = lines(files.delta);
  EXPECT_EQ(delta.size(), static_cast<std::size_t>(options.records * options.deltaShare));

  std::size_t added = 0;
  std::size_t changed = 0;
  std::size_t repeated = 0;
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

TEST(DataGenerator, SparseNumbersHaveTwelveNationalDigits) {
  GeneratorOptions options = small(5000);
  options.sparse = true;
  const Files files = generate(options);
  const Loaded loaded = load(files.data);
  EXPECT_EQ(loaded.rejected, 0U);
  ASSERT_GT(loaded.numbers.size(), 3000U);
  std::set<char> firstDigits;
  for (const auto& entry : loaded.numbers) {
    ASSERT_EQ(nationalLength(entry.first), 12U) << entry.first;
    firstDigits.insert(entry.first[4]);
  }
  EXPECT_EQ(firstDigits.size(), 9U) << "numbers spread over the whole range";
  EXPECT_EQ(lines(files.events).size(), options.eventCount);
}

TEST(DataGenerator, RejectsOptionsItCannotMeet) {
  const auto refuses = [](auto change) {
    GeneratorOptions options = small();
    change(options);
    EXPECT_THROW(DataGenerator{options}, std::invalid_argument);
  };
  refuses([](GeneratorOptions& o) { o.records = 0; });
  refuses([](GeneratorOptions& o) { o.density = 0; });
  refuses([](GeneratorOptions& o) { o.prefixShare = 0.5; });
  refuses([](GeneratorOptions& o) { o.countries = {"49", "99"}; });
  refuses([](GeneratorOptions& o) { o.countries = {"49", "49"}; });
  refuses([](GeneratorOptions& o) {
    o.records = 5000000;
    o.density = 0.0001;
  });
}

TEST(LineWriter, FileGetsTheSameBytesAsMemoryPastTheBlockSize) {
  const std::string path = (std::filesystem::temp_directory_path() / "npgen_line_writer_test.txt").string();
  LineWriter memory;
  {
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
    EXPECT_EQ(file.lines(), 200000U);
  }
  std::ifstream in(path, std::ios::binary);
  const std::string written{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  std::remove(path.c_str());
  EXPECT_GT(written.size(), std::size_t{1} << 20);
  EXPECT_EQ(written, memory.text());
}
