// Fuzzes DataLineParser. An input that begins with "codes\t" takes its first line as the
// dialling codes, tab-separated: national access code, international access code, country
// code, sign (any left out keep 0, 00, 49, +). Every other line, cut at line feeds, is
// normalised whole and parsed. Properties:
//  - normalize applies the first matching rule: empty -> iac+cc; sign in front -> iac; iac in
//    front -> unchanged; national access code in front -> iac+cc; else iac+cc in front. Only
//    the front changes;
//  - parse is true exactly for three white-space separated fields whose second is a valid
//    14-digit date-time, giving the first field normalised, that date and the operator; a
//    rejected line gives its identifier with the arguments the cache reports, and written to
//    the log (text for even-sized inputs, JSON for odd) it stays one clean line. The date
//    printing back as read is what lets a rewritten main data file read back the same.
#include "BAS/Log.h"
#include "BAS/Status.h"
#include "cache/DataLineParser.h"
#include "framework/fuzz/CalendarOracle.h"
#include "testing/CheckingLogSink.h"

namespace {

using DAT::NumberPortability::DataLineParser;
using DAT::NumberPortability::NumberPortabilityData;
using NpTest::failProperty;
using Strings = std::vector<BAS::String>;

struct Fixture {
  BAS::String nac, iac, cc, sign;
  DataLineParser parser{nac, iac, cc, sign, 3};
  BAS::Log log;
  Fixture() { log.addSink(std::make_shared<NpTest::CheckingLogSink>()); }
};

std::vector<std::string_view> split(std::string_view text, char at) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find(at, start)) != std::string_view::npos; start = end + 1)
    parts.push_back(text.substr(start, end - start));
  parts.push_back(text.substr(start));
  return parts;
}

// The model of normalize; `replaced` is the length of the front that the rule replaces.
std::string normalised(std::string_view number, const Fixture& f, std::size_t& replaced) {
  const std::string iac(f.iac.view()), cc(f.cc.view());
  replaced = 0;
  if (number.empty()) return iac + cc;
  if (number.starts_with(f.sign.view())) return iac + std::string(number.substr(replaced = f.sign.length()));
  if (number.starts_with(iac)) return std::string(number);
  if (number.starts_with(f.nac.view())) return iac + cc + std::string(number.substr(replaced = f.nac.length()));
  return iac + cc + std::string(number);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Fixture& f = *new Fixture;
  f.log.setFormat(size % 2 ? BAS::Log::Format::JSON : BAS::Log::Format::TEXT);
  f.nac = "0", f.iac = "00", f.cc = "49", f.sign = "+";
  std::vector<std::string_view> lines = split(std::string_view(reinterpret_cast<const char*>(data), size), '\n');
  if (lines.front().starts_with("codes\t")) {
    const std::vector<std::string_view> codes = split(lines.front().substr(6), '\t');
    BAS::String* const targets[] = {&f.nac, &f.iac, &f.cc, &f.sign};
    for (std::size_t i = 0; i < codes.size() && i < 4; ++i) *targets[i] = BAS::String(codes[i]);
    lines.erase(lines.begin());
  }

  unsigned long lineNumber = 0;
  BAS::String number;
  std::size_t replaced = 0;
  for (const std::string_view line : lines) {
    const std::string expected = normalised(line, f, replaced);
    number = BAS::String(line);
    f.parser.normalize(number);
    if (number.str() != expected || !number.view().ends_with(line.substr(replaced)))
      failProperty("the first matching rule rewrites the front of the number only", number.view());

    // The parser splits as String::split does, without its copies.
    const std::vector<BAS::String> fields = BAS::String(line).split();
    const auto date = fields.size() == 3 ? NpFuzz::readCompact(fields[1].view()) : std::nullopt;
    NumberPortabilityData record;
    DataLineParser::Rejection rejection;
    const bool accepted = f.parser.parse(BAS::String(line), ++lineNumber, "in.txt", number, record, &rejection);
    if (accepted != date.has_value()) failProperty("parse is true exactly for three fields with a valid date", line);
    // The loaders' path, with a room too small for many stored forms.
    DataLineParser::Accepted taken;
    char room[8];
    if (f.parser.accept(line, taken, room) != accepted ||
        (accepted && (taken.numberM != number.view() || taken.validFromM.secs() != record.validFromM.secs() ||
                      taken.networkOperatorM != record.networkOperatorM.view())))
      failProperty("accept takes what parse takes, and gives the same number, date and operator", line);
    const std::string where = std::to_string(lineNumber) + " in File 'in.txt'. ";
    if (accepted) {
      if (number.str() != normalised(fields[0].view(), f, replaced) || record.networkOperatorM.view() != fields[2].view() ||
          record.validFromM.asString("%Y%m%d%H%M%S", BAS::DateTime::Zone::UTC) != fields[1])
        failProperty("an accepted line gives its normalised number, date and operator", line);
      continue;
    }
    const bool count = fields.size() != 3;
    const Strings reported =
        count ? Strings{BAS::String::decimal(fields.size()), "3", BAS::String(line), BAS::String("At Line# " + where)}
              : Strings{BAS::String("Invalid N-Port Data at Line# " + where), fields[1],
                        BAS::String(normalised(fields[0].view(), f, replaced))};
    if (std::string(rejection.messageIdM) != (count ? "ERR_NUMBER_OF_FIELDS_IN_RECORD" : "ERR_INVALID_DATETIME") ||
        rejection.argumentsM != reported)
      failProperty("a rejection names its reason with the reported arguments", line);
    BAS::Status status;
    status.set("NumberPortability", rejection.messageIdM, BAS::Status::MINOR, rejection.argumentsM);
    f.log.writeStatus(status);
  }
  return 0;
}
