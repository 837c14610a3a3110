#include "cache/CacheManager.h"

#include "BAS/SimpleString.h"
#include "BAS/Status.h"
#include "BAS/WriteLocker.h"
#include "STR/FileIo.h"

#include <sys/stat.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>

namespace DAT::NumberPortability {

namespace {

// The second argument of every openFile in the program.
constexpr long openModeCM = 8;

BAS::String location(const char* prefix, unsigned long lineNumber, const STR::FileIoTurbo& reader) {
  BAS::String text(prefix);
  text += BAS::String::decimal(lineNumber);
  text += " in File '";
  text += reader.fileName();
  text += "'. ";
  return text;
}

// A reader without a stream (the file vanished after its check) counts as ended.
bool atEnd(const STR::FileIoTurbo& reader) { return reader.stream() == nullptr || std::feof(reader.stream()); }

// Reloads and delta loads skip a line that the reader fails to deliver and go on. A reader
// that keeps failing without ever reaching the end would make them loop for ever, so after
// this many failures in a row the file is treated as ended.
constexpr unsigned maxFailedReadsInRow = 64;

// The figures of one operation that reads the file open in `reader`: started once the file is
// open, ended on every way out of the operation.
class ProgressScope {
public:
  ProgressScope(LoadProgress& progress, const STR::FileIoTurbo& reader) : progressM(progress) {
    struct stat status {};
    std::FILE* stream = reader.stream();
    const bool sized = stream != nullptr && fstat(fileno(stream), &status) == 0 && S_ISREG(status.st_mode);
    progressM.begin(sized ? static_cast<std::uint64_t>(status.st_size) : 0);
  }
  ~ProgressScope() { progressM.end(); }
  ProgressScope(const ProgressScope&) = delete;
  ProgressScope& operator=(const ProgressScope&) = delete;

private:
  LoadProgress& progressM;
};

}  // namespace

CacheManager::CacheManager(CacheOwner* plugIn, const BAS::String& nationalAccessCode,
                           const BAS::String& internationalAccessCode, const BAS::String& countryCode,
                           const BAS::String& internationalAccessCodeSign, unsigned int numberOfColumns,
                           const BAS::String& fileName)
    : fileNameM(fileName),
      parserM(nationalAccessCode, internationalAccessCode, countryCode, internationalAccessCodeSign, numberOfColumns),
      activeTreeM(new NumberPortabilityTree),
      standbyTreeM(new NumberPortabilityTree),
      plugInM(plugIn) {}

CacheManager::~CacheManager() {
  delete active();
  delete standby();
}

bool CacheManager::parseLine(const BAS::String& line, unsigned long lineNumber, const STR::FileIoTurbo& reader,
                             int reports, BAS::String& number, NumberPortabilityData& record) {
  if (reports == 0) return parserM.parse(line, lineNumber, reader.fileName(), number, record, nullptr);
  DataLineParser::Rejection rejection;
  if (parserM.parse(line, lineNumber, reader.fileName(), number, record, &rejection)) return true;
  for (int i = 0; i < reports; ++i) plugInM->reportStatus(rejection.messageIdM, BAS::Status::MINOR, rejection.argumentsM);
  return false;
}

void CacheManager::reportDuplicate(unsigned long lineNumber, const BAS::String& number,
                                   const NumberPortabilityData& record, const STR::FileIoTurbo& reader) {
  plugInM->reportStatus("ERR_DUPLICATE_NUMPORTDATA", BAS::Status::MINOR,
                        {location("Invalid N-Port Data at Line# ", lineNumber, reader), number,
                         record.validFromM.asString("%Y%m%d%H%M%S", BAS::DateTime::Zone::UTC)});
}

bool CacheManager::batchLine(const BAS::String& line, unsigned long lineNumber, std::size_t kept,
                             const STR::FileIoTurbo& reader, NumberPortabilityTree* tree, int reports) {
  LineBatch& batch = batchM;
  const std::size_t index = batch.linesM++;
  batch.lineNumbersM[index] = lineNumber;
  batch.keptM[index] = kept;
  const std::size_t parsed = batch.parsedM;
  const bool good = parseLine(line, lineNumber, reader, 0, batch.numbersM[parsed], batch.recordsM[parsed]);
  if (good) {
    batch.numberViewsM[parsed] = batch.numbersM[parsed].view();
    batch.parsedIndexM[index] = parsed;
    ++batch.parsedM;
  } else {
    batch.parsedIndexM[index] = batchCM;
    batch.rejectedM[index] = line;
  }
  if (batch.linesM == batchCM) flushBatch(reader, tree, reports);
  return good;
}

void CacheManager::flushBatch(const STR::FileIoTurbo& reader, NumberPortabilityTree* tree, int reports) {
  LineBatch& batch = batchM;
  tree->insertMany(batch.numberViewsM, batch.recordsM, batch.parsedM, true, batch.acceptedM);
  std::size_t taken = 0;  // lines whose record the tree kept
  for (std::size_t i = 0; i < batch.linesM; ++i) {
    const unsigned long lineNumber = batch.lineNumbersM[i];
    const std::size_t parsed = batch.parsedIndexM[i];
    if (parsed == batchCM) {
      // Parsed again only to report it, now that the lines before it have had their messages.
      parseLine(batch.rejectedM[i], lineNumber, reader, reports, numberM, recordM);
      if (flaggedM != nullptr) flaggedM->push_back(FlaggedLine{batch.keptM[i], true, batch.rejectedM[i], {}});
      continue;
    }
    if (batch.acceptedM[parsed]) {
      ++taken;
      continue;
    }
    for (int report = 0; report < reports; ++report) {
      reportDuplicate(lineNumber, batch.numbersM[parsed], batch.recordsM[parsed], reader);
    }
    if (flaggedM != nullptr) {
      flaggedM->push_back(FlaggedLine{batch.keptM[i], false, batch.numbersM[parsed], batch.recordsM[parsed]});
    }
  }
  if (!secondPassM && batch.linesM > 0) {
    // Once per batch, so that a display reading the figures costs the loader nothing per line.
    const long position = reader.stream() != nullptr ? std::ftell(reader.stream()) : -1;
    progressM.addBatch(taken, batch.linesM - taken,
                       position >= 0 ? static_cast<std::uint64_t>(position)
                                     : progressM.bytesReadM.load(std::memory_order_relaxed));
  }
  batch.linesM = 0;
  batch.parsedM = 0;
}

bool CacheManager::insertCache(NumberPortabilityTree* tree, const BAS::String& line, unsigned long lineNumber,
                               bool orderedInsert, STR::FileIoTurbo& reader) {
  if (!parseLine(line, lineNumber, reader, 1, numberM, recordM)) return false;
  if (!tree->insert(numberM, recordM, orderedInsert)) reportDuplicate(lineNumber, numberM, recordM, reader);
  return true;
}

bool CacheManager::load() {
  if (!plugInM->checkFile()) return false;
  if (dataFileReaderM.isOpen()) dataFileReaderM.closeFile();
  dataFileReaderM.openFile(fileNameM, openModeCM);
  const ProgressScope progress(progressM, dataFileReaderM);

  if (atEnd(dataFileReaderM)) {
    if (dataFileReaderM.isOpen()) {
      dataFileReaderM.closeFile();
      plugInM->reportStatus("INF_FILE_CLOSED", BAS::Status::NORMAL, dataFileReaderM.fileName());
    }
    return true;
  }

  unsigned long lineNumber = 1;
  while (true) {
    lineM = BAS::NULL_STRING;
    const bool delivered = dataFileReaderM.readLine(lineM);
    if (!delivered || atEnd(dataFileReaderM)) break;
    // Parsed and inserted once, and the standby tree made a copy of the active one below; a
    // rejected line is still reported once per tree.
    batchLine(lineM, lineNumber, lineNumber - 1, dataFileReaderM, active(), 2);
    ++lineNumber;
  }
  flushBatch(dataFileReaderM, active(), 2);
  standby()->copyFrom(*active());
  standbyStaleM = false;
  if (atEnd(dataFileReaderM)) {
    plugInM->reportStatus("INF_FILE_EOF", BAS::Status::NORMAL, dataFileReaderM.fileName());
    dataFileReaderM.closeFile();
    return true;
  }
  plugInM->reportStatus("ERR_FILE_READ_ERR", BAS::Status::CRITICAL, dataFileReaderM.fileName());
  return false;
}

void CacheManager::exchangeTrees() {
  BAS::WriteLocker locker(cacheLockM);
  std::swap(activeTreeM, standbyTreeM);
}

bool CacheManager::readInto(NumberPortabilityTree* tree, STR::FileIoTurbo& reader, KeptLines* kept,
                            std::vector<FlaggedLine>* flagged) {
  const ProgressScope progress(progressM, reader);
  bool lastResult = false;
  unsigned long lineNumber = 1;
  std::size_t processed = 0;
  unsigned failedInRow = 0;
  flaggedM = flagged;
  while (!atEnd(reader) && failedInRow < maxFailedReadsInRow) {
    lineM = BAS::NULL_STRING;
    const bool delivered = reader.readLine(lineM);
    if (delivered && !atEnd(reader)) {
      lastResult = batchLine(lineM, lineNumber, processed++, reader, tree, 1);
      if (kept != nullptr) kept->append(lineM.view());
    }
    // A line that the reader failed to deliver before the end is skipped but still counted.
    failedInRow = delivered ? 0 : failedInRow + 1;
    ++lineNumber;
  }
  flushBatch(reader, tree, 1);
  flaggedM = nullptr;
  return lastResult;
}

void CacheManager::insertKeptLines(NumberPortabilityTree* tree, const KeptLines& lines, STR::FileIoTurbo& reader) {
  secondPassM = true;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string_view text = lines[i];
    lineM.assign(text.data(), text.size());
    batchLine(lineM, i + 1, i, reader, tree, 1);
  }
  flushBatch(reader, tree, 1);
  secondPassM = false;
}

void CacheManager::reportFlaggedLines(const std::vector<FlaggedLine>& flagged, const STR::FileIoTurbo& reader) {
  for (const FlaggedLine& line : flagged) {
    if (line.rejectedM) {
      parseLine(line.textM, line.keptM + 1, reader, 1, numberM, recordM);
    } else {
      reportDuplicate(line.keptM + 1, line.textM, line.recordM, reader);
    }
  }
}

bool CacheManager::cacheReload(const bool& reuseOnFailure) {
  if (!plugInM->checkFile()) return false;
  if (dataFileReaderM.isOpen()) dataFileReaderM.closeFile();
  dataFileReaderM.openFile(fileNameM, openModeCM);

  NumberPortabilityTree* fresh = standby();
  fresh->clearAndDestroy();
  std::vector<FlaggedLine> flagged;
  const bool loadResult = readInto(fresh, dataFileReaderM, nullptr, &flagged);

  if (!loadResult && !reuseOnFailure) {
    fresh->clearAndDestroy();
    // The standby tree no longer mirrors the active one; a delta load publishes the standby
    // tree, so it must get the active records back before it adds to them.
    standbyStaleM = true;
    return false;
  }

  exchangeTrees();
  standbyStaleM = false;
  // The old tree gets the same records as the fresh one: a copy, and the reports that
  // inserting the same lines into it would give, in the same order.
  reportFlaggedLines(flagged, dataFileReaderM);
  standby()->copyFrom(*active());

  if (dataFileReaderM.closeFile()) {
    plugInM->reportStatus("INF_DELETE_OLD_DATA", BAS::Status::NORMAL, plugInM->registeredName());
    return true;
  }
  plugInM->reportStatus("ERR_CLOSE_NP_FILE", BAS::Status::CRITICAL, dataFileReaderM.fileName());
  return false;
}

void CacheManager::restoreStandby() {
  // A copy of the active tree's records, not a fresh reading of the main data file: the file
  // may have changed since (that is how a reload fails), and lookups see the active records.
  standby()->copyFrom(*active());
  standbyStaleM = false;
}

bool CacheManager::cacheDeltaLoad(const BAS::String& deltaFileName) {
  if (!plugInM->checkFile(deltaFileName)) return false;
  if (deltaFileReaderM.isOpen()) deltaFileReaderM.closeFile();
  deltaFileReaderM.openFile(deltaFileName, openModeCM);
  if (standbyStaleM) restoreStandby();

  KeptLines kept;
  kept.reserveFor(deltaFileName);
  readInto(standby(), deltaFileReaderM, &kept, nullptr);

  exchangeTrees();
  insertKeptLines(standby(), kept, deltaFileReaderM);
  kept.release();

  {
    STR::FileIo output(fileNameM, std::ios_base::out);
    standby()->printTree(output.stream(), false);
    output.closeFile();
  }

  if (dataFileReaderM.closeFile()) {
    deltaFileReaderM.closeFile();
    return true;
  }
  plugInM->reportStatus("ERR_CLOSE_NP_FILE", BAS::Status::CRITICAL, dataFileReaderM.fileName());
  return false;
}

bool CacheManager::printData(const BAS::String& fileName) {
  BAS::ReadLocker locker(cacheLockM);
  if (fileName == BAS::NULL_STRING) {
    activeTreeM->printTree(std::cout, true);
  } else {
    STR::FileIo output(fileName, std::ios_base::out);
    activeTreeM->printTree(output.stream(), true);
    output.closeFile();
  }
  return true;
}

}  // namespace DAT::NumberPortability
