#include "cache/LineBlock.h"

#include "store/NumberPortabilityData.h"

namespace DAT::NumberPortability {

void LineBlock::append(std::string_view line, unsigned long lineNumber, std::size_t kept) {
  if (empty()) {
    firstLineM = lineNumber;
    firstKeptM = kept;
  }
  textM.append(line);
  endsM.push_back(textM.size());
  kindsM.push_back(Kind::rejected);
}

void LineBlock::appendFailed(unsigned long lineNumber, std::size_t kept) {
  if (empty()) {
    firstLineM = lineNumber;
    firstKeptM = kept;
  }
  endsM.push_back(textM.size());
  kindsM.push_back(Kind::failed);
}

void LineBlock::clear() noexcept {
  textM.clear();
  endsM.clear();
  kindsM.clear();
  parsedM.clear();
  numberTextsM.clear();
  operatorsM.clear();
}

void LineBlock::parse(const DataLineParser& parser, const BAS::String& fileName) {
  parsedM.resize(size());
  BAS::String number;
  NumberPortabilityData record;
  unsigned long lineNumber = firstLineM;
  for (std::size_t i = 0; i < size(); ++i, ++lineNumber) {
    if (kindsM[i] == Kind::failed) continue;
    if (!parser.parse(line(i), lineNumber, fileName, number, record, nullptr)) continue;
    kindsM[i] = Kind::parsed;
    Parsed& parsed = parsedM[i];
    parsed.numberM = RecordChunk::pack(number.view());
    parsed.recordM = StoredRecord(record.validFromM, operatorsM.intern(record.networkOperatorM));
    if (parsed.numberM.textualM) {
      parsed.textBeginM = numberTextsM.size();
      numberTextsM.append(number.view());
      parsed.textEndM = numberTextsM.size();
    }
  }
}

}  // namespace DAT::NumberPortability
