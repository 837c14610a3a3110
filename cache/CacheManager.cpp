#include "cache/CacheManager.h"

#include "BAS/SimpleString.h"
#include "BAS/Status.h"
#include "BAS/WriteLocker.h"
#include "STR/FileIo.h"

#include <sys/stat.h>

#include <cstdio>
#include <exception>
#include <thread>
#include <utility>
#include <algorithm>
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

void CacheManager::chunkLine(const BAS::String& line, unsigned long lineNumber, std::size_t kept,
                             const STR::FileIoTurbo& reader, NumberPortabilityTree* tree, int reports) {
  LineBlock& block = blocksM[fillingM];
  block.append(line.view(), lineNumber, kept);
  if (block.full()) blockFilled(reader, tree, reports);
}

void CacheManager::skipLine(unsigned long lineNumber, std::size_t kept, const STR::FileIoTurbo& reader,
                            NumberPortabilityTree* tree, int reports) {
  LineBlock& block = blocksM[fillingM];
  block.appendFailed(lineNumber, kept);
  if (block.full()) blockFilled(reader, tree, reports);
}

void CacheManager::blockFilled(const STR::FileIoTurbo& reader, NumberPortabilityTree* tree, int reports) {
  const std::size_t full = fillingM;
  pendingBlocksM[pendingCountM++] = full;
  parsedM[full] = false;
  if (helperM == nullptr) {
    blocksM[full].parse(parserM, reader.fileName());
    parsedM[full] = true;
  }
  advanceBlocks(reader, false);
  // The next block to fill is one that is not waiting.
  fillingM = 0;
  while (std::find(pendingBlocksM, pendingBlocksM + pendingCountM, fillingM) != pendingBlocksM + pendingCountM) ++fillingM;
  if (chunkM.recordsM.size() + chunkM.skippedM.size() >= chunkLinesM) insertChunk(reader, tree, reports);
}

void CacheManager::advanceBlocks(const STR::FileIoTurbo& reader, bool drain) {
  // Parsing is most of the work of reading a data file, and reading the lines and adding them
  // to the chunk the rest. The helper thread parses the oldest full block whenever it is free;
  // this thread goes on reading into the other blocks, adds the parsed ones in file order, and
  // parses a block itself only when no block is left to read into. So the helper parses most
  // blocks and this thread reads and adds meanwhile, each kept busy.
  const auto oldestUnparsed = [this] {
    return std::find_if(pendingBlocksM, pendingBlocksM + pendingCountM,
                        [this](std::size_t block) { return !parsedM[block] && block != helpedBlockM; });
  };
  for (;;) {
    if (helpedBlockM != noBlockCM && !helperM->busy()) collectHelpedBlock();
    if (helperM != nullptr && helpedBlockM == noBlockCM) {
      const std::size_t* const unparsed = oldestUnparsed();
      if (unparsed != pendingBlocksM + pendingCountM) {
        const std::size_t block = *unparsed;
        helpedBlockM = block;
        helperM->start([this, block, &reader] { blocksM[block].parse(parserM, reader.fileName()); });
      }
    }
    std::size_t added = 0;
    for (; added < pendingCountM && parsedM[pendingBlocksM[added]]; ++added) {
      addBlock(blocksM[pendingBlocksM[added]], reader);
      blocksM[pendingBlocksM[added]].clear();
    }
    std::copy(pendingBlocksM + added, pendingBlocksM + pendingCountM, pendingBlocksM);
    pendingCountM -= added;
    if (pendingCountM == 0 || (!drain && pendingCountM < blockCountCM)) return;
    // No block is free to read into (or the file ended): parse one here, else wait for the helper.
    const std::size_t* const unparsed = oldestUnparsed();
    if (unparsed != pendingBlocksM + pendingCountM) {
      blocksM[*unparsed].parse(parserM, reader.fileName());
      parsedM[*unparsed] = true;
    } else {
      collectHelpedBlock();
    }
  }
}

void CacheManager::collectHelpedBlock() {
  if (helpedBlockM == noBlockCM) return;
  helperM->finish();
  parsedM[helpedBlockM] = true;
  helpedBlockM = noBlockCM;
}

void CacheManager::takeBlocks(const STR::FileIoTurbo& reader) {
  if (!blocksM[fillingM].empty()) {
    pendingBlocksM[pendingCountM++] = fillingM;
    parsedM[fillingM] = false;
  }
  advanceBlocks(reader, true);
  fillingM = 0;
}

void CacheManager::addBlock(const LineBlock& block, const STR::FileIoTurbo& reader) {
  if (block.empty()) return;
  LineChunk& chunk = chunkM;
  RecordChunk& records = chunk.recordsM;
  if (chunk.empty()) {
    chunk.firstLineM = block.firstLine();
    chunk.firstKeptM = block.firstKept();
  }
  // The block's operator indexes to the chunk's.
  std::vector<std::uint32_t>& operators = chunk.operatorsM;
  operators.resize(block.operators().size());
  for (std::size_t i = 0; i < operators.size(); ++i) operators[i] = records.intern(block.operators().text(i));
  std::size_t taken = 0;
  std::size_t rejected = 0;
  for (std::size_t i = 0; i < block.size(); ++i) {
    switch (block.kind(i)) {
      case LineBlock::Kind::failed:
        chunk.skippedM.push_back(SkippedLine{records.size(), false, {}});
        continue;
      case LineBlock::Kind::rejected:
        chunk.skippedM.push_back(SkippedLine{records.size(), true, BAS::String(block.line(i))});
        ++rejected;
        break;
      case LineBlock::Kind::parsed: {
        const StoredRecord& record = block.record(i);
        records.add(block.number(i), block.numberText(i), StoredRecord(record.validFrom(), operators[record.operatorIndex()]));
        ++taken;
        break;
      }
    }
    chunk.lastGoodM = block.kind(i) == LineBlock::Kind::parsed;
  }
  if (!secondPassM) {
    // Once per block, so that a display reading the figures costs the loader nothing per line.
    // A duplicate is known only once the chunk is inserted: until then it counts as taken.
    const long position = reader.stream() != nullptr ? std::ftell(reader.stream()) : -1;
    progressM.addBatch(taken, rejected,
                       position >= 0 ? static_cast<std::uint64_t>(position)
                                     : progressM.bytesReadM.load(std::memory_order_relaxed));
  }
}

PBC::BothJobs CacheManager::bothJobs() {
  if (helperM == nullptr) return PBC::oneAfterTheOther;
  return [helper = helperM](const std::function<void()>& first, const std::function<void()>& second) {
    helper->start(second);
    try {
      first();
    } catch (...) {
      helper->finish();
      throw;
    }
    helper->finish();
  };
}

void CacheManager::flushChunk(const STR::FileIoTurbo& reader, NumberPortabilityTree* tree, int reports) {
  takeBlocks(reader);
  insertChunk(reader, tree, reports);
}

void CacheManager::insertChunk(const STR::FileIoTurbo& reader, NumberPortabilityTree* tree, int reports) {
  LineChunk& chunk = chunkM;
  RecordChunk& records = chunk.recordsM;
  // The helper thread takes the jobs of the sort and the build once its block is parsed.
  collectHelpedBlock();
  records.sort(bothJobs());
  std::vector<std::size_t>& refused = chunk.refusedM;
  refused.clear();
  if (mirrorM == nullptr) {
    tree->insertChunk(records, refused);
  } else {
    // The mirror takes the same sorted records beside the tree, instead of being copied
    // afterwards; it refuses the same ones.
    std::vector<std::size_t> mirrorRefused;
    bothJobs()([&] { tree->insertChunk(records, refused); }, [&] { mirrorM->insertChunk(records, mirrorRefused); });
  }

  // The reports in file order: the skipped lines fall between the records.
  std::vector<std::pair<std::uint32_t, std::size_t>>& refusals = chunk.refusalsM;  // index and place
  refusals.clear();
  for (const std::size_t place : refused) refusals.emplace_back(records.index(place), place);
  std::sort(refusals.begin(), refusals.end());
  unsigned long lineNumber = chunk.firstLineM;
  std::size_t kept = chunk.firstKeptM;
  auto skipped = chunk.skippedM.cbegin();
  const auto passSkipped = [&](std::size_t recordsBefore) {
    for (; skipped != chunk.skippedM.cend() && skipped->recordsBeforeM == recordsBefore; ++skipped, ++lineNumber) {
      if (!skipped->rejectedM) continue;
      // Parsed again only to report it, now that the lines before it have had their messages.
      parseLine(skipped->textM, lineNumber, reader, reports, numberM, recordM);
      if (flaggedM != nullptr) flaggedM->push_back(FlaggedLine{kept, true, skipped->textM, {}});
      ++kept;
    }
  };
  auto refusal = refusals.cbegin();
  for (std::size_t i = 0;; ++i) {
    passSkipped(i);
    if (i == records.size()) break;
    if (refusal != refusals.cend() && refusal->first == i) {
      const BAS::String number = records.number(refusal->second);
      const NumberPortabilityData record = records.record(refusal->second);
      for (int report = 0; report < reports; ++report) reportDuplicate(lineNumber, number, record, reader);
      if (flaggedM != nullptr) flaggedM->push_back(FlaggedLine{kept, false, number, record});
      ++refusal;
    }
    ++lineNumber;
    ++kept;
  }
  if (!secondPassM) progressM.refuse(refused.size());
  records.clear();
  chunk.skippedM.clear();
}

// The helper thread of an operation that reads a file. At its end the helper thread ends
// first (a job it still runs after a failure finishes), then the blocks and the chunk are
// forgotten and the chunk's memory goes back, as it would otherwise stay with the manager
// beside the trees. Its two large arrays go back lazily: the system takes their pages only
// when it runs short, so the next reload writes into the pages this one touched. Fresh pages
// instead would be faulted in by the hundred thousand at every reload; on a virtual machine
// that stalls the lookups on the other processors for milliseconds at a time.
struct CacheManager::OperationScope {
  explicit OperationScope(CacheManager& manager) : forgetM{manager} { manager.helperM = &helperM; }
  OperationScope(const OperationScope&) = delete;
  OperationScope& operator=(const OperationScope&) = delete;

  // Destroyed after the helper thread.
  struct Forget {
    ~Forget() {
      managerM.helperM = nullptr;
      managerM.mirrorM = nullptr;
      for (LineBlock& block : managerM.blocksM) block.clear();
      managerM.pendingCountM = 0;
      managerM.fillingM = 0;
      managerM.helpedBlockM = noBlockCM;
      LineChunk& chunk = managerM.chunkM;
      chunk.recordsM.release();
      std::vector<std::size_t>().swap(chunk.refusedM);
      std::vector<std::pair<std::uint32_t, std::size_t>>().swap(chunk.refusalsM);
      std::vector<SkippedLine>().swap(chunk.skippedM);
    }
    CacheManager& managerM;
  };
  Forget forgetM;
  HelperThread helperM;
};

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

  const OperationScope operation(*this);
  // Into two empty trees, the standby tree takes each chunk beside the active one; otherwise it
  // becomes a copy of the active tree at the end.
  mirrorM = active()->recordCount() == 0 && standby()->recordCount() == 0 ? standby() : nullptr;
  unsigned long lineNumber = 1;
  while (true) {
    lineM = BAS::NULL_STRING;
    const bool delivered = dataFileReaderM.readLine(lineM);
    if (!delivered || atEnd(dataFileReaderM)) break;
    // Parsed once and inserted into both trees (or copied into the standby one below); a
    // rejected line is still reported once per tree.
    chunkLine(lineM, lineNumber, lineNumber - 1, dataFileReaderM, active(), 2);
    ++lineNumber;
  }
  flushChunk(dataFileReaderM, active(), 2);
  if (mirrorM == nullptr) standby()->copyFrom(*active());
  mirrorM = nullptr;
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
  chunkM.lastGoodM = false;
  unsigned long lineNumber = 1;
  std::size_t processed = 0;
  unsigned failedInRow = 0;
  flaggedM = flagged;
  while (!atEnd(reader) && failedInRow < maxFailedReadsInRow) {
    lineM = BAS::NULL_STRING;
    const bool delivered = reader.readLine(lineM);
    if (delivered && !atEnd(reader)) {
      chunkLine(lineM, lineNumber, processed++, reader, tree, 1);
      if (kept != nullptr) kept->append(lineM.view());
    } else if (!delivered) {
      skipLine(lineNumber, processed, reader, tree, 1);
    }
    // A line that the reader failed to deliver before the end is skipped but still counted.
    failedInRow = delivered ? 0 : failedInRow + 1;
    ++lineNumber;
  }
  flushChunk(reader, tree, 1);
  flaggedM = nullptr;
  // As insertCache gives it for the last processed line.
  return chunkM.lastGoodM;
}

void CacheManager::insertKeptLines(NumberPortabilityTree* tree, const KeptLines& lines, STR::FileIoTurbo& reader) {
  secondPassM = true;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string_view text = lines[i];
    lineM.assign(text.data(), text.size());
    chunkLine(lineM, i + 1, i, reader, tree, 1);
  }
  flushChunk(reader, tree, 1);
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

  const OperationScope operation(*this);
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
  const OperationScope operation(*this);

  KeptLines kept;
  kept.reserveFor(deltaFileName);
  readInto(standby(), deltaFileReaderM, &kept, nullptr);

  exchangeTrees();
  insertKeptLines(standby(), kept, deltaFileReaderM);
  kept.release();

  {
    STR::FileIo output(fileNameM, std::ios_base::out);
    standby()->printTree(output.stream(), false, bothJobs());
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
  const OperationScope operation(*this);
  BAS::ReadLocker locker(cacheLockM);
  if (fileName == BAS::NULL_STRING) {
    activeTreeM->printTree(std::cout, true, bothJobs());
  } else {
    STR::FileIo output(fileName, std::ios_base::out);
    activeTreeM->printTree(output.stream(), true, bothJobs());
    output.closeFile();
  }
  return true;
}

}  // namespace DAT::NumberPortability
