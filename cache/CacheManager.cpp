#include "cache/CacheManager.h"

#include "BAS/SimpleString.h"
#include "BAS/Status.h"
#include "BAS/WriteLocker.h"
#include "STR/FileIo.h"
#include "plugin/NumberPortabilityPlugIn.h"

#include <cstdio>
#include <iostream>

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

}  // namespace

CacheManager::CacheManager(PlugIn* plugIn, const BAS::String& nationalAccessCode,
                           const BAS::String& internationalAccessCode, const BAS::String& countryCode,
                           const BAS::String& internationalAccessCodeSign, unsigned int numberOfColumns,
                           const BAS::String& fileName)
    : fileNameM(fileName),
      nationalAccessCodeM(nationalAccessCode),
      internationalAccessCodeM(internationalAccessCode),
      countryCodeM(countryCode),
      internationalAccessCodeSignM(internationalAccessCodeSign),
      numberOfColumnsM(numberOfColumns),
      activeTreeM(new NumberPortabilityTree),
      standbyTreeM(new NumberPortabilityTree),
      plugInM(plugIn) {}

CacheManager::~CacheManager() {
  delete active();
  delete standby();
}

void CacheManager::normalize(BAS::String& number) const {
  const BAS::String& iac = internationalAccessCodeM;
  if (number.empty()) {
    number = iac + countryCodeM;
  } else if (number.startsWith(internationalAccessCodeSignM)) {
    number.replace(0, internationalAccessCodeSignM.length(), iac.view());
  } else if (number.startsWith(iac)) {
    // already in the stored form
  } else if (number.startsWith(nationalAccessCodeM)) {
    number.replace(0, nationalAccessCodeM.length(), (iac + countryCodeM).view());
  } else {
    number.replace(0, 0, (iac + countryCodeM).view());
  }
}

bool CacheManager::insertCache(NumberPortabilityTree* tree, const BAS::String& line, unsigned long lineNumber,
                               bool orderedInsert, STR::FileIoTurbo& reader) {
  line.split(fieldsM);
  if (fieldsM.size() != numberOfColumnsM) {
    plugInM->reportStatus("ERR_NUMBER_OF_FIELDS_IN_RECORD", BAS::Status::MINOR,
                          {BAS::String::decimal(fieldsM.size()), BAS::String::decimal(numberOfColumnsM), line,
                           location("At Line# ", lineNumber, reader)});
    return false;
  }
  BAS::String& number = fieldsM[0];
  BAS::String& dateText = fieldsM[1];
  BAS::String& operatorText = fieldsM[2];
  number.trim();
  dateText.trim();
  operatorText.trim();
  normalize(number);
  const BAS::SimpleString networkOperator(operatorText.view());
  const BAS::DateTime validFrom(dateText);
  const NumberPortabilityData record(validFrom, networkOperator);
  if (!(record.validFromM.secs() < BAS::DateTime::invalidSecsCM)) {
    plugInM->reportStatus("ERR_INVALID_DATETIME", BAS::Status::MINOR,
                          {location("Invalid N-Port Data at Line# ", lineNumber, reader), dateText, number});
    return false;
  }
  if (!tree->insert(number, record, orderedInsert)) {
    plugInM->reportStatus("ERR_DUPLICATE_NUMPORTDATA", BAS::Status::MINOR,
                          {location("Invalid N-Port Data at Line# ", lineNumber, reader), number,
                           record.validFromM.asString("%Y%m%d%H%M%S", BAS::DateTime::Zone::UTC)});
  }
  return true;
}

bool CacheManager::load() {
  if (!plugInM->checkFile()) return false;
  if (dataFileReaderM.isOpen()) dataFileReaderM.closeFile();
  dataFileReaderM.openFile(fileNameM, openModeCM);

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
    insertCache(active(), lineM, lineNumber, true, dataFileReaderM);
    insertCache(standby(), lineM, lineNumber, true, dataFileReaderM);
    ++lineNumber;
  }
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

bool CacheManager::readInto(NumberPortabilityTree* tree, STR::FileIoTurbo& reader, KeptLines& kept) {
  bool lastResult = false;
  unsigned long lineNumber = 1;
  unsigned failedInRow = 0;
  while (!atEnd(reader) && failedInRow < maxFailedReadsInRow) {
    lineM = BAS::NULL_STRING;
    const bool delivered = reader.readLine(lineM);
    if (delivered && !atEnd(reader)) {
      lastResult = insertCache(tree, lineM, lineNumber, true, reader);
      kept.append(lineM.view());
    }
    // A line that the reader failed to deliver before the end is skipped but still counted.
    failedInRow = delivered ? 0 : failedInRow + 1;
    ++lineNumber;
  }
  return lastResult;
}

void CacheManager::insertKeptLines(NumberPortabilityTree* tree, const KeptLines& lines, STR::FileIoTurbo& reader) {
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string_view text = lines[i];
    lineM.assign(text.data(), text.size());
    insertCache(tree, lineM, i + 1, true, reader);
  }
}

bool CacheManager::cacheReload(const bool& reuseOnFailure) {
  if (!plugInM->checkFile()) return false;
  if (dataFileReaderM.isOpen()) dataFileReaderM.closeFile();
  dataFileReaderM.openFile(fileNameM, openModeCM);

  NumberPortabilityTree* fresh = standby();
  fresh->clearAndDestroy();
  KeptLines kept;
  const bool loadResult = readInto(fresh, dataFileReaderM, kept);

  if (!loadResult && !reuseOnFailure) {
    fresh->clearAndDestroy();
    // The standby tree no longer mirrors the active one; a delta load publishes the standby
    // tree, so it must get the active records back before it adds to them.
    standbyStaleM = true;
    return false;
  }

  exchangeTrees();
  standbyStaleM = false;
  NumberPortabilityTree* old = standby();
  old->clearAndDestroy();
  insertKeptLines(old, kept, dataFileReaderM);
  kept.release();

  if (dataFileReaderM.closeFile()) {
    plugInM->reportStatus("INF_DELETE_OLD_DATA", BAS::Status::NORMAL, plugInM->lockedName());
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
  readInto(standby(), deltaFileReaderM, kept);

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
