#include "cache/LoadOperation.h"

#include "BAS/Status.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <new>
#include <string_view>

namespace DAT::NumberPortability {

namespace {

// Fills left before the test seam fails one; negative: off. Atomic, no lock: set by a test
// between operations, read by the operation in progress.
std::atomic<long> fillsBeforeFailureCM{-1};

// The figures of one reading of the file open in `reader`: started before its first line,
// ended on every way out.
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

LoadOperation::LoadOperation(const DataLineParser& parser, CacheOwner& owner, LoadProgress& progress,
                             std::size_t chunkLines, RecordChunk& records)
    : parserM(parser),
      ownerM(owner),
      progressM(progress),
      chunkLinesM(chunkLines),
      lentM{records},
      chunksM{LineChunk(records), LineChunk(ownRecordsM)} {}

// The threads end first (a job that one still runs after a failure finishes), then the blocks
// and the chunks go, their memory back to the system at once. A chunk is a bounded number
// of lines, so the next operation faults in a few thousand fresh pages for it, not one per
// record of the file; the pages of the trees, which are that large, stay mapped.
LoadOperation::~LoadOperation() = default;

void LoadOperation::failTreeFillAfterForTesting(long fills) { fillsBeforeFailureCM.store(fills); }

void LoadOperation::countFill() {
  const long left = fillsBeforeFailureCM.load(std::memory_order_relaxed);
  if (left < 0) return;
  fillsBeforeFailureCM.store(left - 1, std::memory_order_relaxed);
  if (left == 0) throw std::bad_alloc();
}

bool LoadOperation::parseLine(const DataLineParser& parser, CacheOwner& owner, const BAS::String& line,
                              unsigned long lineNumber, const BAS::String& fileName, int reports, BAS::String& number,
                              NumberPortabilityData& record) {
  if (reports == 0) return parser.parse(line, lineNumber, fileName, number, record, nullptr);
  DataLineParser::Rejection rejection;
  if (parser.parse(line, lineNumber, fileName, number, record, &rejection)) return true;
  for (int i = 0; i < reports; ++i) owner.reportStatus(rejection.messageIdM, BAS::Status::MINOR, rejection.argumentsM);
  return false;
}

void LoadOperation::reportDuplicate(CacheOwner& owner, unsigned long lineNumber, const BAS::String& number,
                                    const NumberPortabilityData& record, const BAS::String& fileName) {
  owner.reportStatus("ERR_DUPLICATE_NUMPORTDATA", BAS::Status::MINOR,
                     {DataLineParser::location("Invalid N-Port Data at Line# ", lineNumber, fileName), number,
                      record.validFromM.asString("%Y%m%d%H%M%S", BAS::DateTime::Zone::UTC)});
}

LoadOperation::Reading LoadOperation::loadBoth(DataFileLines& lines, NumberPortabilityTree& tree) {
  // Parsed and inserted once; a rejected line is still reported once per tree.
  return read(lines, tree, 2, nullptr, true);
}

LoadOperation::Reading LoadOperation::readInto(DataFileLines& lines, NumberPortabilityTree& tree, KeptLines* kept) {
  noteLinesM = kept == nullptr;
  const Reading reading = read(lines, tree, 1, kept, false);
  noteLinesM = false;
  return reading;
}

LoadOperation::Reading LoadOperation::read(DataFileLines& lines, NumberPortabilityTree& tree, int reports,
                                           KeptLines* kept, bool stopAtFailedRead) {
  const STR::FileIoTurbo& reader = lines.reader();
  const ProgressScope progress(progressM, reader);
  Reading reading;
  lastGoodM = false;
  std::size_t processed = 0;
  std::string_view line;  // in the reader's buffer until the next step
  for (DataFileLines::Step step; (step = lines.next(line)) != DataFileLines::Step::end;) {
    if (step == DataFileLines::Step::line) {
      chunkLine(line, lines.lineNumber(), processed++, reader, tree, reports);
      if (kept != nullptr) kept->append(line);
    } else if (step == DataFileLines::Step::failed) {
      if (stopAtFailedRead) {
        reading.failedRead = true;
        break;
      }
      skipLine(lines.lineNumber(), processed, reader, tree, reports);
    }
  }
  flushChunk(reader, tree, reports);
  reading.lastGood = lastGoodM;
  return reading;
}

void LoadOperation::reportAgain(const STR::FileIoTurbo& reader) {
  BAS::String number;
  NumberPortabilityData record;
  for (const NotedLine& line : notedM) {
    if (line.rejectedM) {
      parseLine(parserM, ownerM, line.textM, line.placeM + 1, reader.fileName(), 1, number, record);
    } else {
      reportDuplicate(ownerM, line.placeM + 1, line.textM, line.recordM, reader.fileName());
    }
  }
}

void LoadOperation::insertKept(NumberPortabilityTree& tree, const KeptLines& kept, const STR::FileIoTurbo& reader) {
  secondPassM = true;
  for (std::size_t i = 0; i < kept.size(); ++i) chunkLine(kept[i], i + 1, i, reader, tree, 1);
  flushChunk(reader, tree, 1);
  secondPassM = false;
}

void LoadOperation::copy(NumberPortabilityTree& into, const NumberPortabilityTree& from) {
  into.copyFrom(from);
  countFill();
}

void LoadOperation::chunkLine(std::string_view line, unsigned long lineNumber, std::size_t place,
                              const STR::FileIoTurbo& reader, NumberPortabilityTree& tree, int reports) {
  LineBlock& block = blocksM[fillingM];
  block.append(line, lineNumber, place);
  if (block.full()) blockFilled(reader, tree, reports);
}

void LoadOperation::skipLine(unsigned long lineNumber, std::size_t place, const STR::FileIoTurbo& reader,
                             NumberPortabilityTree& tree, int reports) {
  LineBlock& block = blocksM[fillingM];
  block.appendFailed(lineNumber, place);
  if (block.full()) blockFilled(reader, tree, reports);
}

void LoadOperation::blockFilled(const STR::FileIoTurbo& reader, NumberPortabilityTree& tree, int reports) {
  pendingBlocksM[pendingCountM++] = fillingM;
  parsedM[fillingM] = false;
  advanceBlocks(reader, false);
  // The next block to fill is one that is not waiting.
  fillingM = 0;
  while (std::find(pendingBlocksM, pendingBlocksM + pendingCountM, fillingM) != pendingBlocksM + pendingCountM) ++fillingM;
  const LineChunk& chunk = filling();
  if (chunk.recordsM.size() + chunk.skippedM.size() < chunkLinesM) return;
  // The chunk before must be in the tree first: chunks go in in file order, so that the earlier
  // of two equal records wins and the reports come in file order. Meanwhile this chunk is
  // sorted here: the inserting thread is the one the others wait for.
  filling().recordsM.sort();
  finishInsert(reader, reports);
  startInsert(tree);
}

void LoadOperation::advanceBlocks(const STR::FileIoTurbo& reader, bool drain) {
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
    if (helpedBlockM != noBlockCM && !helperM.busy()) collectHelpedBlock();
    if (helpedBlockM == noBlockCM) {
      const std::size_t* const unparsed = oldestUnparsed();
      if (unparsed != pendingBlocksM + pendingCountM) {
        const std::size_t block = *unparsed;
        helpedBlockM = block;
        helperM.start([this, block] { blocksM[block].parse(parserM); });
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
      blocksM[*unparsed].parse(parserM);
      parsedM[*unparsed] = true;
    } else {
      collectHelpedBlock();
    }
  }
}

void LoadOperation::collectHelpedBlock() {
  if (helpedBlockM == noBlockCM) return;
  helperM.finish();
  parsedM[helpedBlockM] = true;
  helpedBlockM = noBlockCM;
}

void LoadOperation::addBlock(const LineBlock& block, const STR::FileIoTurbo& reader) {
  if (block.empty()) return;
  LineChunk& chunk = filling();
  RecordChunk& records = chunk.recordsM;
  if (chunk.empty()) {
    chunk.firstLineM = block.firstLine();
    chunk.firstPlaceM = block.firstKept();
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
    lastGoodM = block.kind(i) == LineBlock::Kind::parsed;
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

void LoadOperation::flushChunk(const STR::FileIoTurbo& reader, NumberPortabilityTree& tree, int reports) {
  if (!blocksM[fillingM].empty()) {
    pendingBlocksM[pendingCountM++] = fillingM;
    parsedM[fillingM] = false;
  }
  advanceBlocks(reader, true);
  fillingM = 0;
  filling().recordsM.sort();
  finishInsert(reader, reports);
  startInsert(tree);
  finishInsert(reader, reports);
}

void LoadOperation::startInsert(NumberPortabilityTree& tree) {
  LineChunk& chunk = filling();
  chunk.refusedM.clear();
  // Inserting a chunk into a grown tree takes a single thread: beside the reading and parsing
  // of the next one, it keeps the second processor busy. The chunk comes sorted.
  inserterM.start([&chunk, &tree] {
    tree.insertChunk(chunk.recordsM, chunk.refusedM);
    countFill();
  });
  insertingM = true;
  fillingChunkM ^= 1;
}

void LoadOperation::finishInsert(const STR::FileIoTurbo& reader, int reports) {
  if (!insertingM) return;
  insertingM = false;
  inserterM.finish();
  LineChunk& chunk = chunksM[fillingChunkM ^ 1];
  RecordChunk& records = chunk.recordsM;
  const std::vector<std::size_t>& refused = chunk.refusedM;

  // The reports in file order: the skipped lines fall between the records.
  std::vector<std::pair<std::uint32_t, std::size_t>>& refusals = chunk.refusalsM;  // index and place
  refusals.clear();
  for (const std::size_t place : refused) refusals.emplace_back(records.index(place), place);
  std::sort(refusals.begin(), refusals.end());
  unsigned long lineNumber = chunk.firstLineM;
  std::size_t place = chunk.firstPlaceM;
  BAS::String number;
  NumberPortabilityData record;
  auto skipped = chunk.skippedM.cbegin();
  const auto passSkipped = [&](std::size_t recordsBefore) {
    for (; skipped != chunk.skippedM.cend() && skipped->recordsBeforeM == recordsBefore; ++skipped, ++lineNumber) {
      if (!skipped->rejectedM) continue;
      // Parsed again only to report it, now that the lines before it have had their messages.
      parseLine(parserM, ownerM, skipped->textM, lineNumber, reader.fileName(), reports, number, record);
      if (noteLinesM) notedM.push_back(NotedLine{place, true, skipped->textM, {}});
      ++place;
    }
  };
  auto refusal = refusals.cbegin();
  for (std::size_t i = 0;; ++i) {
    passSkipped(i);
    if (i == records.size()) break;
    if (refusal != refusals.cend() && refusal->first == i) {
      const BAS::String refusedNumber = records.number(refusal->second);
      const NumberPortabilityData refusedRecord = records.record(refusal->second);
      for (int report = 0; report < reports; ++report) {
        reportDuplicate(ownerM, lineNumber, refusedNumber, refusedRecord, reader.fileName());
      }
      if (noteLinesM) notedM.push_back(NotedLine{place, false, refusedNumber, refusedRecord});
      ++refusal;
    }
    ++lineNumber;
    ++place;
  }
  if (!secondPassM) progressM.refuse(refused.size());
  records.clear();
  chunk.skippedM.clear();
}

}  // namespace DAT::NumberPortability
