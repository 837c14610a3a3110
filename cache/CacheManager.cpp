#include "cache/CacheManager.h"

#include "BAS/LongReadLocker.h"
#include "BAS/Status.h"
#include "BAS/WriteLocker.h"
#include "STR/FileIo.h"
#include "cache/DataFileLines.h"
#include "cache/HelperThread.h"
#include "cache/KeptLines.h"

#include <chrono>
#include <iostream>
#include <utility>

namespace DAT::NumberPortability {

namespace {

// The second argument of every openFile in the program.
constexpr long openModeCM = 8;

// The mark that the standby tree may differ from the active one. Made before an operation first
// changes the standby tree, so that no way out of the operation (an exception included) can
// leave a changed standby tree unmarked; only settle(), where both trees are known to hold the
// same records, takes it away.
class StandbyMark {
public:
  explicit StandbyMark(bool& stale) : staleM(stale) { staleM = true; }
  StandbyMark(const StandbyMark&) = delete;
  StandbyMark& operator=(const StandbyMark&) = delete;
  void settle() { staleM = false; }

private:
  bool& staleM;
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

bool CacheManager::insertCache(NumberPortabilityTree* tree, const BAS::String& line, unsigned long lineNumber,
                               bool orderedInsert, STR::FileIoTurbo& reader) {
  BAS::String number;
  NumberPortabilityData record;
  if (!LoadOperation::parseLine(parserM, *plugInM, line, lineNumber, reader.fileName(), 1, number, record)) return false;
  if (!tree->insert(number, record, orderedInsert)) {
    LoadOperation::reportDuplicate(*plugInM, lineNumber, number, record, reader.fileName());
  }
  return true;
}

bool CacheManager::load() {
  const LoadProgress::OperationTimer timer(progressM);
  if (!plugInM->checkFile()) return false;
  if (dataFileReaderM.isOpen()) dataFileReaderM.closeFile();
  dataFileReaderM.openFile(fileNameM, openModeCM);

  DataFileLines lines(dataFileReaderM);
  if (lines.atEnd()) {
    publishLoaded();
    if (dataFileReaderM.isOpen()) {
      dataFileReaderM.closeFile();
      plugInM->reportStatus("INF_FILE_CLOSED", BAS::Status::NORMAL, dataFileReaderM.fileName());
    }
    return true;
  }

  LoadOperation operation = makeOperation();
  StandbyMark mark(standbyStaleM);
  // One tree takes the chunks and the other becomes a copy of it at the end: after the first
  // chunk each one is merged walk by walk, and copying a tree costs far less than a second
  // tree's walks.
  const LoadOperation::Reading reading = operation.loadBoth(lines, *active());
  operation.copy(*standby(), *active());
  // A tree that took more than one chunk keeps the free groups and blocks that merging them
  // left; its copy has none. So the copy serves, and the filled tree becomes a copy of it in turn.
  if (active()->hasFreeBlocks()) {
    {
      BAS::WriteLocker locker(cacheLockM);
      std::swap(activeTreeM, standbyTreeM);
    }
    operation.copy(*standby(), *active());
  }
  mark.settle();
  publishLoaded();
  if (!reading.failedRead) {
    plugInM->reportStatus("INF_FILE_EOF", BAS::Status::NORMAL, dataFileReaderM.fileName());
    dataFileReaderM.closeFile();
    return true;
  }
  // The lines read so far stay loaded in both trees; the reader stays open.
  plugInM->reportStatus("ERR_FILE_READ_ERR", BAS::Status::CRITICAL, dataFileReaderM.fileName());
  return false;
}

PublicationStamp CacheManager::nextStamp() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return PublicationStamp{++publicationsM, std::chrono::duration_cast<std::chrono::milliseconds>(now).count()};
}

void CacheManager::publishLoaded() {
  // Under the write side, so that a lookup, should one come before the load ends, reads the
  // stamp with the records it reads.
  const PublicationStamp stamp = nextStamp();
  BAS::WriteLocker locker(cacheLockM);
  activeTreeM->setStamp(stamp);
  publishedRecordsM.store(activeTreeM->recordCount(), std::memory_order_relaxed);
  publishedStampM.store(stamp);
}

void CacheManager::exchangeTrees() {
  // No lookup reaches the standby tree: its stamp is set before the lock, and a lookup that
  // reads the tree after the exchange reads the stamp with it.
  standby()->setStamp(nextStamp());
  BAS::WriteLocker locker(cacheLockM);
  std::swap(activeTreeM, standbyTreeM);
  publishedRecordsM.store(activeTreeM->recordCount(), std::memory_order_relaxed);
  publishedStampM.store(activeTreeM->stamp());
}

bool CacheManager::cacheReload(const bool& reuseOnFailure) {
  const LoadProgress::OperationTimer timer(progressM);
  if (!plugInM->checkFile()) return false;
  if (dataFileReaderM.isOpen()) dataFileReaderM.closeFile();
  dataFileReaderM.openFile(fileNameM, openModeCM);

  LoadOperation operation = makeOperation();
  StandbyMark mark(standbyStaleM);
  NumberPortabilityTree* const fresh = standby();
  fresh->clearAndDestroy();
  DataFileLines lines(dataFileReaderM);
  const bool loadResult = operation.readInto(lines, *fresh, nullptr).lastGood;

  if (!loadResult && !reuseOnFailure) {
    // The old data stays in service; the standby tree stays marked, so that a delta load gives
    // it the active records back before it adds to them.
    fresh->clearAndDestroy();
    return false;
  }

  exchangeTrees();
  // The old tree gets the same records as the fresh one: a copy, and the reports that
  // inserting the same lines into it would give, in the same order.
  operation.reportAgain(dataFileReaderM);
  operation.copy(*standby(), *active());
  mark.settle();

  if (dataFileReaderM.closeFile()) {
    plugInM->reportStatus("INF_DELETE_OLD_DATA", BAS::Status::NORMAL, plugInM->registeredName());
    return true;
  }
  plugInM->reportStatus("ERR_CLOSE_NP_FILE", BAS::Status::CRITICAL, dataFileReaderM.fileName());
  return false;
}

bool CacheManager::cacheDeltaLoad(const BAS::String& deltaFileName) {
  const LoadProgress::OperationTimer timer(progressM);
  if (!plugInM->checkFile(deltaFileName)) return false;
  if (deltaFileReaderM.isOpen()) deltaFileReaderM.closeFile();
  deltaFileReaderM.openFile(deltaFileName, openModeCM);

  LoadOperation operation = makeOperation();
  // The delta goes on top of the data in service: a standby tree that may differ from it (a
  // reload failed or was cut short) becomes a copy of it first. A copy, not a fresh reading of
  // the main data file: the file may have changed since, and lookups see the active records.
  if (standbyStaleM) operation.copy(*standby(), *active());
  StandbyMark mark(standbyStaleM);

  KeptLines kept;
  kept.reserveFor(deltaFileName);
  DataFileLines lines(deltaFileReaderM);
  operation.readInto(lines, *standby(), &kept);

  exchangeTrees();
  operation.insertKept(*standby(), kept, deltaFileReaderM);
  kept.release();
  mark.settle();

  {
    // Opened and closed on this thread, so that the framework's report of a failed rewrite
    // comes from the thread that asked for the delta load.
    STR::FileIo output(fileNameM, std::ios_base::out);
    standby()->printTree(output.stream(), false, operation.bothJobs());
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
  // Its own helper, made before the lock is taken: a dump shares nothing with the load, reload
  // or delta load that may run beside it.
  HelperThread helper;
  BAS::LongReadLocker locker(cacheLockM);
  if (fileName == BAS::NULL_STRING) {
    activeTreeM->printTree(std::cout, true, helper.bothJobs());
  } else {
    STR::FileIo output(fileName, std::ios_base::out);
    activeTreeM->printTree(output.stream(), true, helper.bothJobs());
    output.closeFile();
  }
  return true;
}

}  // namespace DAT::NumberPortability
