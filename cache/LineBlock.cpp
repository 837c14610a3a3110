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

void LineBlock::parse(const DataLineParser& parser) {
  parsedM.resize(size());
  DataLineParser::Accepted accepted;
  char room[numberRoomCM];
  for (std::size_t i = 0; i < size(); ++i) {
    // A line that parse rejects stays `rejected`, to be parsed again for its message.
    if (kindsM[i] == Kind::failed || !parser.accept(line(i), accepted, room)) continue;
    kindsM[i] = Kind::parsed;
    Parsed& parsed = parsedM[i];
    parsed.numberM = RecordChunk::pack(accepted.numberM);
    parsed.recordM = StoredRecord(accepted.validFromM, operatorsM.intern(accepted.networkOperatorM));
    if (parsed.numberM.textualM) {
      parsed.textBeginM = numberTextsM.size();
      numberTextsM.append(accepted.numberM);
      parsed.textEndM = numberTextsM.size();
    }
  }
}

}  // namespace DAT::NumberPortability
