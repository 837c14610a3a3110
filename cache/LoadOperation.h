// DAT::NumberPortability::LoadOperation carries out the reading and tree building of one load,
// reload or delta load for the CacheManager: lines read by the reading rule into blocks, parsed
// on two threads, gathered into a chunk that is sorted by number and inserted into a tree a
// chunk at a time, while the next chunk is read; the second pass over the same lines; the copy
// of one tree into the other. Everything that one operation needs lives in the object made for
// it, so that a failure, an exception included, leaves nothing half-set for the next operation,
// and a dump can run beside.
//
// Thread contract: made, used and destroyed by the thread of its operation; the trees it fills
// must not be read by anyone meanwhile. It runs jobs on two threads of its own (parsing on
// one, inserting a chunk on the other), which have ended by the time a reading
// returns, and by the time the destructor returns when a failure cut the reading short.
#pragma once

#include "BAS/LargeBlock.h"
#include "STR/FileIoTurbo.h"
#include "cache/CacheOwner.h"
#include "cache/DataFileLines.h"
#include "cache/DataLineParser.h"
#include "cache/HelperThread.h"
#include "cache/KeptLines.h"
#include "cache/LineBlock.h"
#include "cache/LoadProgress.h"
#include "store/BothJobs.h"
#include "store/NumberPortabilityData.h"
#include "store/NumberPortabilityTree.h"
#include "store/RecordChunk.h"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace DAT::NumberPortability {

class LoadOperation {
public:
  // The operation parses with `parser`, reports through `owner`, keeps `progress` up to date
  // while it reads a file (not in a second pass), inserts `chunkLines` lines (a block at least)
  // at a time, and gathers them in `records`, which it leaves empty with its memory returned to
  // the system (RecordChunk::release), the heap's free pages with it.
  LoadOperation(const DataLineParser& parser, CacheOwner& owner, LoadProgress& progress, std::size_t chunkLines,
                RecordChunk& records);
  ~LoadOperation();
  LoadOperation(const LoadOperation&) = delete;
  LoadOperation& operator=(const LoadOperation&) = delete;

  // How the reading of a file ended.
  struct Reading {
    // What insertCache gives for the last processed line: true for a record or a duplicate,
    // false for a rejected line; false as well when no line was processed.
    bool lastGood = false;
    // Reading stopped at a line that the reader failed to deliver (the initial load only).
    bool failedRead = false;
  };

  // The initial load: the rest of the file into `tree`, each rejected line and duplicate
  // reported twice, once for it and once for the copy of it that the caller makes (copy()).
  // Stops at the first line that the reader fails to deliver.
  Reading loadBoth(DataFileLines& lines, NumberPortabilityTree& tree);
  // The first pass of a reload or delta load: the rest of the file into `tree`, each report
  // once; a line that the reader fails to deliver is skipped and counted. With `kept`, every
  // processed line is appended to it for the second pass; without, the lines that gave a
  // report are noted for reportAgain().
  Reading readInto(DataFileLines& lines, NumberPortabilityTree& tree, KeptLines* kept);
  // The reports that the noted lines would give if the same processed lines were inserted into
  // a second, empty tree: numbered by their place among the processed lines, in the same order.
  void reportAgain(const STR::FileIoTurbo& reader);
  // The second pass of a delta load: the kept lines into `tree`, numbered from 1, each report once.
  void insertKept(NumberPortabilityTree& tree, const KeptLines& kept, const STR::FileIoTurbo& reader);
  // Makes `into` hold exactly the records of `from` (NumberPortabilityTree::copyFrom).
  void copy(NumberPortabilityTree& into, const NumberPortabilityTree& from);
  // Two jobs at once, the second on the operation's helper thread.
  PBC::BothJobs bothJobs() { return helperM.bothJobs(); }

  // Parses one line as the loaders do; a rejected line is reported `reports` times (0: not at
  // all) and gives false.
  static bool parseLine(const DataLineParser& parser, CacheOwner& owner, const BAS::String& line,
                        unsigned long lineNumber, const BAS::String& fileName, int reports, BAS::String& number,
                        NumberPortabilityData& record);
  // Reports that a tree refused the record of `number` from line `lineNumber` as a duplicate.
  static void reportDuplicate(CacheOwner& owner, unsigned long lineNumber, const BAS::String& number,
                              const NumberPortabilityData& record, const BAS::String& fileName);

  // Test seam: after `fills` more tree fills (a chunk inserted into a tree, a tree copied),
  // the next one throws std::bad_alloc once it has done its work, as memory running out part
  // way through an operation would; then the seam is off again. Negative: off. Process-wide.
  static void failTreeFillAfterForTesting(long fills);

private:
  // A processed line that gave a report in the first pass: its place among the processed
  // lines and what the report needs again (the line if it was rejected, else the duplicate).
  struct NotedLine {
    std::size_t placeM = 0;
    bool rejectedM = false;
    BAS::String textM;  // the line, or the normalised number of the duplicate
    NumberPortabilityData recordM;
  };

  // A line of the chunk that gave no record: a rejected line (with its text), or one that the
  // reader failed to deliver; after `recordsBeforeM` records of the chunk.
  struct SkippedLine {
    std::size_t recordsBeforeM = 0;
    bool rejectedM = false;
    BAS::String textM;
  };

  // Lines parsed and waiting to be inserted together: a tree takes a whole chunk sorted by
  // number, which builds an empty tree in one pass. Two take turns: one is filled while the
  // other is inserted.
  struct LineChunk {
    explicit LineChunk(RecordChunk& records) : recordsM(records) {}
    RecordChunk& recordsM;
    std::vector<SkippedLine> skippedM;       // in file order
    unsigned long firstLineM = 0;            // the line number of the chunk's first line
    std::size_t firstPlaceM = 0;             // and its place among the processed lines
    std::vector<std::uint32_t> operatorsM;   // addBlock's room: a block's operator indexes to the chunk's
    std::vector<std::size_t> refusedM;       // the places of the records the tree refused
    std::vector<std::pair<std::uint32_t, std::size_t>> refusalsM;  // their indexes and places, in file order
    bool empty() const { return recordsM.empty() && skippedM.empty(); }
  };

  // Gives the chunk's records back once everything that could still use them has ended, and
  // with them what the blocks, the helper thread and the rest of the operation freed on the heap.
  struct RecordsLent {
    RecordChunk& recordsM;
    ~RecordsLent() {
      recordsM.release();
      BAS::LargeBlock::returnFreeHeap();
    }
  };

  static constexpr std::size_t blockCountCM = 4;
  static constexpr std::size_t noBlockCM = blockCountCM;

  // Reads the rest of the file into `tree` by the reading rule, reporting each line `reports`
  // times; a line that the reader fails to deliver stops the reading or is skipped.
  Reading read(DataFileLines& lines, NumberPortabilityTree& tree, int reports, KeptLines* kept, bool stopAtFailedRead);
  // Takes line `lineNumber` at place `place` into the block being filled.
  void chunkLine(std::string_view line, unsigned long lineNumber, std::size_t place, const STR::FileIoTurbo& reader,
                 NumberPortabilityTree& tree, int reports);
  // Notes line `lineNumber`, which the reader failed to deliver, in the chunk's line count.
  void skipLine(unsigned long lineNumber, std::size_t place, const STR::FileIoTurbo& reader, NumberPortabilityTree& tree,
                int reports);
  // The lines read have filled a block: it waits to be parsed, the parsed blocks go into the
  // chunk, and the chunk is inserted once it is full.
  void blockFilled(const STR::FileIoTurbo& reader, NumberPortabilityTree& tree, int reports);
  // Gives the oldest block not parsed yet to the helper thread when that is free, and adds the
  // parsed blocks at the front of the waiting ones to the chunk. Returns once a block is free
  // to read into; with `drain`, once every waiting block is added.
  void advanceBlocks(const STR::FileIoTurbo& reader, bool drain);
  // Waits until the helper thread has parsed the block given to it, if any, and notes it parsed.
  void collectHelpedBlock();
  // Adds what a parsed block gave to the chunk.
  void addBlock(const LineBlock& block, const STR::FileIoTurbo& reader);
  // Adds every waiting block to the chunk and inserts it, after the chunk before it.
  void flushChunk(const STR::FileIoTurbo& reader, NumberPortabilityTree& tree, int reports);
  // Hands the chunk being filled, sorted, to the inserter thread, which inserts it; the other
  // chunk takes the next lines. REQUIRES: no chunk is being inserted.
  void startInsert(NumberPortabilityTree& tree);
  // Waits until the chunk being inserted, if any, is in the tree (passing on what the insert
  // threw), then reports its rejected lines and duplicates, line by line in file order, each
  // `reports` times: once per tree that gets (or will get by a copy) the same lines.
  void finishInsert(const STR::FileIoTurbo& reader, int reports);
  LineChunk& filling() { return chunksM[fillingChunkM]; }
  // Counts a tree fill for the test seam.
  static void countFill();

  const DataLineParser& parserM;
  CacheOwner& ownerM;
  LoadProgress& progressM;
  const std::size_t chunkLinesM;
  bool secondPassM = false;                  // the lines are inserted again: the figures have them already
  bool noteLinesM = false;                   // insertChunk notes the lines it reports in notedM
  std::vector<NotedLine> notedM;

  bool lastGoodM = false;  // the last line processed gave a record

  // Destroyed after the threads, which may be working on them until they end.
  RecordsLent lentM;
  RecordChunk ownRecordsM;  // the second chunk's records, released before lentM returns the heap
  LineChunk chunksM[2];
  std::size_t fillingChunkM = 0;  // the chunk that takes the parsed blocks
  // The other chunk and the tree it goes into belong to the inserter thread: this thread
  // touches them only after HelperThread::finish.
  bool insertingM = false;
  LineBlock blocksM[blockCountCM];  // lines read, to be parsed and added to the chunk
  std::size_t fillingM = 0;         // the block that takes the next line
  std::size_t pendingBlocksM[blockCountCM] = {};  // the full blocks not yet added, in file order
  std::size_t pendingCountM = 0;
  bool parsedM[blockCountCM] = {};  // per block: a waiting block has been parsed
  // The block that the helper thread parses, or noBlockCM. The helper writes only into that
  // block, and this thread touches it only after HelperThread::finish.
  std::size_t helpedBlockM = noBlockCM;
  HelperThread inserterM;  // inserts one chunk while the next is read
  HelperThread helperM;    // last, so that the threads end first
};

}  // namespace DAT::NumberPortability
