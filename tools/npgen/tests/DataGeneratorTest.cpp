// The generated files checked through a small reference loader that takes lines as the
// plug-in does: same options give the same bytes, and the shape that the benchmarks rely on
// (written forms, history lengths, bad lines, delta and event shares) holds within tolerance.
#include "DataGenerator.h"
#include "LineWriter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using namespace NpGen;

namespace {

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
  return parts;
}

bool allDigits(const std::string& text) { return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos; }

// A date-time the plug-in reads: 14 digits naming a calendar day and an hour of it.
bool validDate(const std::string& t) {
  const auto n = [&t](std::size_t at, std::size_t length) { return static_cast<unsigned>(std::stoi(t.substr(at, length))); };
  return t.size() == 14 && allDigits(t) && n(8, 2) < 24 && std::chrono::year_month_day(std::chrono::year(static_cast<int>(n(0, 4))), std::chrono::month(n(4, 2)), std::chrono::day(n(6, 2))).ok();
}

// A data or delta line as the plug-in takes it (home country 49), or an empty key for a rejected one.
struct Record { std::string key, date, op, form; };
Record parse(const std::string& line) {
  std::istringstream in(line);
  std::string number, date, op, surplus;
  if (!(in >> number >> date >> op) || (in >> surplus) || !validDate(date) || op.size() < 4 || op.size() > 8 ||
      !allDigits(number[0] == '+' ? number.substr(1) : number)) return {};
  if (number[0] == '+') return {"00" + number.substr(1), date, op, number.substr(0, 3)};
  if (number.starts_with("00")) return {number, date, op, number.substr(0, 4)};
  return number[0] == '0' ? Record{"0049" + number.substr(1), date, op, "0"} : Record{"0049" + number, date, op, "bare"};
}

// The data, delta (5%) and event (5000) files.
std::vector<std::string> generate(std::uint64_t records, std::uint64_t seed, double badShare = 0) {
  const DataGenerator generator({.records = records, .seed = seed, .badShare = badShare, .deltaShare = 0.05, .eventCount = 5000, .hitShare = 0.5, .prefixShare = 0.3});
  LineWriter data, delta, events;
  generator.writeData(data);
  generator.writeDelta(delta);
  generator.writeEvents(events);
  return {data.text(), delta.text(), events.text()};
}

}  // namespace

// The same options give the same bytes and another seed others. Histories of the expected
// lengths in every written form, blocks older than any number's record, the bad lines asked
// for; events that hit, fall back and miss in their shares; a delta that adds numbers, changes
// operators (later, to another one) and repeats records.
TEST(DataGenerator, FilesAreReproducibleAndHaveTheShapeTheBenchmarksRelyOn) {
  const auto files = generate(20000, 7, 0.1), reseeded = generate(20000, 8, 0.1);
  EXPECT_EQ(generate(20000, 7, 0.1), files);
  for (std::size_t file = 0; file < 3; ++file) EXPECT_NE(files[file], reseeded[file]) << file;
  std::map<std::string, std::map<std::string, std::string>> numbers;  // key -> date -> operator
  // Every known country code has two digits: a national number of five digits or less is a block.
  std::map<std::string, std::string> prefixes;  // key -> date
  std::set<std::string> forms;
  double rejected = 0;  // unusable or duplicate lines
  for (const std::string& line : split(files[0], '\n')) {
    const Record r = parse(line);
    forms.insert(r.form);
    if (r.key.empty() || !(r.key.size() <= 9 ? prefixes.emplace(r.key, r.date) : numbers[r.key].emplace(r.date, r.op)).second) ++rejected;
  }
  EXPECT_NEAR(rejected / 20000.0, 0.1, 0.02);
  EXPECT_EQ(forms, (std::set<std::string>{"", "+31", "+41", "+43", "+49", "0", "0031", "0041", "0043", "0049", "bare"}));
  std::map<std::size_t, double> sizes;  // share of the numbers by history length
  for (const auto& [key, history] : numbers) {
    std::set<std::string> operators;
    for (const auto& [date, op] : history) EXPECT_TRUE(operators.insert(op).second && date >= "2005" && date < "2025") << key;
    sizes[history.size()] += 1.0 / static_cast<double>(numbers.size());
  }
  EXPECT_TRUE(sizes.size() == DataGenerator::maxHistoryCM && std::abs(sizes[1] - 0.75) < 0.05 && std::abs(sizes[2] - 0.17) < 0.05);
  for (const auto& [key, date] : prefixes) EXPECT_LT(date, "2005") << key;

  std::map<std::string, double> kinds;  // share of the events by answer
  for (const std::string& line : split(files[2], '\n')) {
    const auto fields = split(line, ';');
    ASSERT_TRUE(fields.size() == 4 && fields[0].starts_with("00") && allDigits(fields[0]) && validDate(fields[1]) && allDigits(fields[3])) << line;
    const auto number = numbers.find(fields[0]);
    std::string kind = number != numbers.end() && number->second.begin()->first <= fields[1] ? "hit" : "miss";
    for (std::size_t length = fields[0].size() - 1; length > 4 && kind == "miss"; --length) {
      const auto prefix = prefixes.find(fields[0].substr(0, length));
      if (prefix != prefixes.end() && prefix->second <= fields[1]) kind = number == numbers.end() ? "prefix" : line;
    }
    kinds[kind] += 1.0 / 5000;
  }
  EXPECT_TRUE(kinds.size() == 3 && std::abs(kinds["hit"] - 0.5) < 0.03 && std::abs(kinds["prefix"] - 0.3) < 0.03) << kinds.begin()->first;

  std::map<std::string, std::size_t> changes;
  for (const std::string& line : split(files[1], '\n')) {
    const Record r = parse(line);
    const auto number = numbers.find(r.key);
    const bool changed = number != numbers.end() && r.date > number->second.rbegin()->first && r.op != number->second.rbegin()->second;
    ++changes[r.key.empty() ? line : number == numbers.end() ? "added" : number->second.contains(r.date) ? "repeated" : changed ? "changed" : line];
  }
  EXPECT_TRUE(changes.size() == 3 && changes["added"] > 250 && changes["changed"] > 250 && changes["repeated"] > 100) << changes.begin()->first;
}

TEST(DataGenerator, RejectsOptionsItCannotMeet) {
  for (const GeneratorOptions& options : {GeneratorOptions{.records = 0}, GeneratorOptions{.prefixShare = 0.5},
                                          GeneratorOptions{.countries = {"49", "99"}}, GeneratorOptions{.records = 5000000, .density = 0.0001}})
    EXPECT_THROW(DataGenerator{options}, std::invalid_argument);
}

TEST(LineWriter, FileGetsTheSameBytesAsMemoryPastTheBlockSize) {
  const std::string path = (std::filesystem::temp_directory_path() / "npgen_line_writer_test.txt").string();
  LineWriter memory, file(path);
  for (std::uint64_t i = 0; i < 200000; ++i) {
    for (LineWriter* out : {&memory, &file}) out->putDate(static_cast<std::int64_t>(i) * 3601);
    for (LineWriter* out : {&memory, &file}) out->endLine();
  }
  file.close();
  std::ostringstream written;
  written << std::ifstream(path, std::ios::binary).rdbuf();
  std::filesystem::remove(path);
  // The last date is 199999 hours and as many seconds on, across five leap days.
  EXPECT_TRUE(written.str().size() > (std::size_t{1} << 20) && written.str() == memory.text() && memory.text().ends_with("\n19921027143319\n"));
}
