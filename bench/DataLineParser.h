// Bench::DataLineParser reads a data file the way the cache's loader does (line reader, split
// into fields, trim, normalise the number, read the date-time) but stores nothing itself, so a
// benchmark can time the parsing alone or feed the records into a structure of its own.
// One object per thread; it keeps its buffers across lines, as the loader does.
#pragma once

#include "BAS/DateTime.h"
#include "BAS/String.h"
#include "STR/FileIoTurbo.h"
#include "cache/CacheManager.h"

#include <cstddef>
#include <cstdio>
#include <string_view>
#include <vector>

namespace Bench {

class DataLineParser {
public:
  static constexpr std::size_t columnsCM = 3;

  explicit DataLineParser(const DAT::NumberPortability::CacheManager& normalizer) : normalizerM(normalizer) {}

  // Calls visit(number, validFrom, networkOperator) for every line with three fields and a
  // readable date-time, the number already normalised. The lines are taken as the loader takes
  // them: a last line without a line end is not used. False when the file cannot be read.
  template <class Visitor>
  bool parseFile(const BAS::String& fileName, Visitor&& visit) {
    linesM = 0;
    rejectedM = 0;
    if (!readerM.openFile(fileName, openModeCM) || !readerM.isOpen()) return false;
    while (true) {
      lineM.clear();
      if (!readerM.readLine(lineM) || std::feof(readerM.stream())) break;
      ++linesM;
      lineM.split(fieldsM);
      if (fieldsM.size() != columnsCM) {
        ++rejectedM;
        continue;
      }
      BAS::String& number = fieldsM[0];
      number.trim();
      fieldsM[1].trim();
      fieldsM[2].trim();
      normalizerM.normalize(number);
      const BAS::DateTime validFrom(fieldsM[1]);
      if (!validFrom.isValid()) {
        ++rejectedM;
        continue;
      }
      visit(static_cast<const BAS::String&>(number), validFrom, fieldsM[2].view());
    }
    const bool complete = std::feof(readerM.stream()) != 0;
    readerM.closeFile();
    return complete;
  }

  // Lines read and lines refused by the last parseFile.
  std::size_t lines() const { return linesM; }
  std::size_t rejected() const { return rejectedM; }

private:
  static constexpr long openModeCM = 8;

  const DAT::NumberPortability::CacheManager& normalizerM;
  STR::FileIoTurbo readerM;
  BAS::String lineM;
  std::vector<BAS::String> fieldsM;
  std::size_t linesM = 0;
  std::size_t rejectedM = 0;
};

}  // namespace Bench
