// DAT::NumberPortability::CacheManager owns the portability data that the plug-in serves: two
// trees with the same records, the active one that lookups and dumps read and a standby one in
// which loads, reloads and delta loads build their change before the two are exchanged.
//
// Thread contract: search() may run in any number of threads at once. load, cacheReload,
// cacheDeltaLoad and printData must not run at the same time as one another; the plug-in
// serialises them. Lookups wait only while the two tree pointers are exchanged. Each of those
// operations starts a helper thread of its own (parsing, sorting, filling the second tree,
// formatting a dump beside it) and ends it before it returns.
#pragma once

#include "BAS/DateTime.h"
#include "BAS/ReadLocker.h"
#include "BAS/RWLock.h"
#include "BAS/String.h"
#include "BAS/ThreadAnnotations.h"
#include "STR/FileIoTurbo.h"
#include "cache/CacheOwner.h"
#include "cache/DataLineParser.h"
#include "cache/HelperThread.h"
#include "cache/LineBlock.h"
#include "cache/KeptLines.h"
#include "cache/LoadProgress.h"
#include "store/NumberPortabilityData.h"
#include "store/NumberPortabilityTree.h"
#include "store/RecordChunk.h"

#include <cstddef>
#include <utility>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {

class CacheManager {
public:
  // Keeps references to the four codes (the plug-in's own fields, which outlive the manager)
  // and copies the file name and the number of columns.
  CacheManager(CacheOwner* plugIn, const BAS::String& nationalAccessCode, const BAS::String& internationalAccessCode,
               const BAS::String& countryCode, const BAS::String& internationalAccessCodeSign,
               unsigned int numberOfColumns, const BAS::String& fileName);
  virtual ~CacheManager();
  CacheManager(const CacheManager&) = delete;
  CacheManager& operator=(const CacheManager&) = delete;

  // Initial load of the main data file into both trees, before lookups begin. False when the
  // file check fails or reading fails before the end of the file.
  bool load();
  // Full reload of the main data file. False when the file check fails, when the file gave no
  // good last line and `reuseOnFailure` is false (the old data then stays active), or when
  // closing the reader fails.
  bool cacheReload(const bool& reuseOnFailure);
  // Adds the records of a delta file to both trees and rewrites the main data file with the
  // merged data. False when the file check fails or closing the main data reader fails.
  bool cacheDeltaLoad(const BAS::String& deltaFileName);

  // The record that holds for `number` (in stored form; not normalised here) at `dateTime`
  // with the search method; false and `result` untouched when none holds.
  bool search(const BAS::String& number, const BAS::DateTime& dateTime, NumberPortabilityData& result,
              unsigned int searchMethod) {
    BAS::ReadLocker locker(cacheLockM);
    return activeTreeM->search(number, dateTime, result, searchMethod);
  }

  // search for count numbers under one hold of the read lock, as NumberPortabilityTree::searchMany.
  void searchMany(const std::string_view* numbers, const BAS::DateTime* dateTimes, std::size_t count,
                  unsigned int searchMethod, NumberPortabilityData* results, bool* found) {
    BAS::ReadLocker locker(cacheLockM);
    activeTreeM->searchMany(numbers, dateTimes, count, searchMethod, results, found);
  }

  // Dumps the active tree with banner to standard output (a name equal to BAS::NULL_STRING)
  // or to what the named file leads to: a file is replaced by the dump, a FIFO or a device is
  // written. Always true; a file that could not be written is reported by STR::FileIo.
  bool printData(const BAS::String& fileName);

  // Parses one data line and inserts its record into `tree`; reports a rejected line. False
  // when the line has the wrong number of fields or an unreadable date-time; true when the
  // record was inserted or refused as a duplicate.
  bool insertCache(NumberPortabilityTree* tree, const BAS::String& line, unsigned long lineNumber,
                   bool orderedInsert, STR::FileIoTurbo& reader);

  // Brings a number to the stored form: international access code, country code, national
  // number. Reads the owner's current codes on every call.
  void normalize(BAS::String& number) const { parserM.normalize(number); }
  // The parser that reads the data lines, with the owner's codes; the benchmark times it alone.
  const DataLineParser& parser() const { return parserM; }
  // Lines that a load, reload or delta load gathers before it inserts them into a tree (a block
  // of lines at least): fewer keep less memory aside while a file is read, more load faster, as
  // an empty tree is built from its first chunk in one pass. 16 Mi lines unless set. Not while
  // an operation runs.
  void setChunkLines(std::size_t lines) { chunkLinesM = lines; }
  // How far the operation in progress has read its file; readable from any thread.
  const LoadProgress& progress() const { return progressM; }

private:
  // Lines parsed and waiting to be inserted together: a tree takes a whole chunk sorted by
  // number, which builds an empty tree in one pass. Bounded, so that what a chunk holds (about
  // fifty bytes a record) stays small beside the trees of a national data set.
  std::size_t chunkLinesM = std::size_t{1} << 24;

  // The operation in progress is the only writer of the tree pointers, so it may read them
  // without the lock; lookups only ever read them too.
  NumberPortabilityTree* active() const NO_THREAD_SAFETY_ANALYSIS { return activeTreeM; }
  NumberPortabilityTree* standby() const NO_THREAD_SAFETY_ANALYSIS { return standbyTreeM; }
  void exchangeTrees();
  // Reads the rest of the reader's file into `tree` by the reading rule; the result of
  // insertCache for the last processed line (false if none). With `kept`, every processed line
  // is kept for a second pass; with `flagged`, the lines that gave a report are noted instead.
  struct FlaggedLine;
  bool readInto(NumberPortabilityTree* tree, STR::FileIoTurbo& reader, KeptLines* kept,
                std::vector<FlaggedLine>* flagged);
  // Inserts the kept lines into `tree`, numbered from 1, as the second pass of an operation.
  void insertKeptLines(NumberPortabilityTree* tree, const KeptLines& lines, STR::FileIoTurbo& reader);
  // Reports the flagged lines again, as a second pass over the same lines into an empty tree
  // would: numbered by their place among the processed lines, in the same order.
  void reportFlaggedLines(const std::vector<FlaggedLine>& flagged, const STR::FileIoTurbo& reader);
  // Makes the standby tree hold the active tree's records again after a reload that failed
  // without reuse had emptied it.
  void restoreStandby();
  // Reads one data line into `number` and `record` with the parser, as insertCache does; a
  // rejected line is reported `reports` times (once per tree it was meant for; 0 while
  // it waits in the chunk) and gives false.
  bool parseLine(const BAS::String& line, unsigned long lineNumber, const STR::FileIoTurbo& reader, int reports,
                 BAS::String& number, NumberPortabilityData& record);
  // Reports that a tree refused the record of `number` as a duplicate.
  void reportDuplicate(unsigned long lineNumber, const BAS::String& number, const NumberPortabilityData& record,
                       const STR::FileIoTurbo& reader);
  // Takes line `lineNumber` into the chunk, which is inserted into `tree` once it is full.
  // `kept` is the line's place among the processed lines.
  void chunkLine(const BAS::String& line, unsigned long lineNumber, std::size_t kept, const STR::FileIoTurbo& reader,
                 NumberPortabilityTree* tree, int reports);
  // Notes line `lineNumber`, which the reader failed to deliver, in the chunk's line count.
  void skipLine(unsigned long lineNumber, std::size_t kept, const STR::FileIoTurbo& reader, NumberPortabilityTree* tree,
                int reports);
  // The lines read have filled a block: it waits to be parsed, the parsed blocks go into the
  // chunk, and the chunk is inserted once it is full.
  void blockFilled(const STR::FileIoTurbo& reader, NumberPortabilityTree* tree, int reports);
  // Gives the oldest block not parsed yet to the helper thread when that is free, and adds the
  // parsed blocks at the front of the waiting ones to the chunk. Returns once a block is free
  // to read into; with `drain`, once every waiting block is added.
  void advanceBlocks(const STR::FileIoTurbo& reader, bool drain);
  // Waits until the helper thread has parsed the block given to it, if any, and notes it parsed.
  void collectHelpedBlock();
  // Adds the block being filled and every waiting block to the chunk.
  void takeBlocks(const STR::FileIoTurbo& reader);
  // Adds what a parsed block gave to the chunk.
  void addBlock(const LineBlock& block, const STR::FileIoTurbo& reader);
  // Inserts what was read into the tree and reports its rejected lines and duplicates, line by
  // line in file order, each `reports` times: once per tree that gets (or will get by a copy)
  // the same lines, as single inserts into each would.
  void flushChunk(const STR::FileIoTurbo& reader, NumberPortabilityTree* tree, int reports);
  // Two jobs at once, the second on the operation's helper thread; one after the other outside
  // an operation.
  PBC::BothJobs bothJobs();
  // flushChunk for the chunk alone, its blocks taken.
  void insertChunk(const STR::FileIoTurbo& reader, NumberPortabilityTree* tree, int reports);

  // A processed line that gave a report in the first pass: its place among the processed
  // lines and what the report needs again (the line if it was rejected, else the duplicate).
  struct FlaggedLine {
    std::size_t keptM = 0;
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

  struct OperationScope;

  struct LineChunk {
    RecordChunk recordsM;
    std::vector<SkippedLine> skippedM;  // in file order
    unsigned long firstLineM = 0;       // the line number of the chunk's first line
    std::size_t firstKeptM = 0;         // and its place among the processed lines
    std::vector<std::uint32_t> operatorsM;  // addBlock's room: a block's operator indexes to the chunk's
    std::vector<std::size_t> refusedM;  // the places of the records the tree refused
    std::vector<std::pair<std::uint32_t, std::size_t>> refusalsM;  // their indexes and places, in file order
    bool lastGoodM = false;             // the last line processed gave a record
    bool empty() const { return recordsM.empty() && skippedM.empty(); }
  };

  BAS::String fileNameM;
  STR::FileIoTurbo dataFileReaderM;
  STR::FileIoTurbo deltaFileReaderM;
  DataLineParser parserM;

public:
  // The tree that lookups and dumps read, and the one in which changes are built. Both are
  // owned and always distinct; the pointers are exchanged only under the write side of
  // cacheLockM, by the one operation in progress.
  NumberPortabilityTree* activeTreeM GUARDED_BY(cacheLockM);
  NumberPortabilityTree* standbyTreeM GUARDED_BY(cacheLockM);
  // Guards the two tree pointers: lookups and dumps hold the read side; the exchange and the
  // plug-in's reading of the active tree's record count hold the write side.
  BAS::RWLock cacheLockM;

private:
  CacheOwner* plugInM;  // the plug-in; not owned; never null

  // Used by the one operation in progress only (operations never overlap).
  bool standbyStaleM = false;  // the standby tree was emptied by a reload that failed without reuse
  BAS::String lineM;              // the line being read, reused across lines
  BAS::String numberM;            // the normalised number of a line parsed on its own
  NumberPortabilityData recordM;  // the record of a line parsed on its own
  LineChunk chunkM;               // lines waiting to be inserted together
  static constexpr std::size_t blockCountCM = 4;
  static constexpr std::size_t noBlockCM = blockCountCM;
  LineBlock blocksM[blockCountCM];  // lines read, to be parsed and added to the chunk
  std::size_t fillingM = 0;         // the block that takes the next line
  std::size_t pendingBlocksM[blockCountCM] = {};  // the full blocks not yet added, in file order
  std::size_t pendingCountM = 0;
  bool parsedM[blockCountCM] = {};  // per block: a waiting block has been parsed
  // The block that the helper thread parses, or noBlockCM. The helper writes only into that
  // block, and this thread touches it only after HelperThread::finish.
  std::size_t helpedBlockM = noBlockCM;
  HelperThread* helperM = nullptr;  // the operation's helper thread; null outside an operation
  std::vector<FlaggedLine>* flaggedM = nullptr;  // where flushChunk notes the lines it reported
  NumberPortabilityTree* mirrorM = nullptr;      // a tree that flushChunk fills beside the one it is given
  bool secondPassM = false;       // the kept lines are inserted again: the figures have them already
  LoadProgress progressM;         // written by the operation in progress only; see its fields
};

}  // namespace DAT::NumberPortability
