// DAT::NumberPortability::CacheManager owns the portability data that the plug-in serves: two
// trees with the same records, the active one that lookups and dumps read and a standby one in
// which loads, reloads and delta loads build their change before the two are exchanged. The
// reading and building itself is a LoadOperation's, one made for each operation.
//
// Thread contract: search() may run in any number of threads at once, and printData() beside
// them and beside one load, reload or delta load. load, cacheReload and cacheDeltaLoad must not
// run at the same time as one another; the plug-in serialises them. Lookups wait only while the
// two tree pointers are exchanged, never for a dump; an exchange waits for a dump in progress.
#pragma once

#include "BAS/DateTime.h"
#include "BAS/ReadLocker.h"
#include "BAS/RWLock.h"
#include "BAS/String.h"
#include "BAS/ThreadAnnotations.h"
#include "STR/FileIoTurbo.h"
#include "cache/CacheOwner.h"
#include "cache/DataLineParser.h"
#include "cache/LoadOperation.h"
#include "cache/LoadProgress.h"
#include "cache/PublishedStamp.h"
#include "store/NumberPortabilityData.h"
#include "store/NumberPortabilityTree.h"
#include "store/PublicationStamp.h"
#include "store/RecordChunk.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

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
  //
  // cacheReload and cacheDeltaLoad let exceptions through (memory running out, a table that is
  // full). On every way out the active tree serves what was last published: the old data before
  // the exchange, the new data after it. The standby tree is marked for rebuild whenever it may
  // differ, and the next delta load rebuilds it from the active tree before it adds to it.
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

  // search for count numbers under one hold of the read lock, as NumberPortabilityTree::searchMany
  // (keyLengths included). With `stamp`, *stamp is the stamp of the tree that the searches read,
  // taken under the same hold, so that it names the data that gave every answer of the call.
  void searchMany(const std::string_view* numbers, const BAS::DateTime* dateTimes, std::size_t count,
                  unsigned int searchMethod, NumberPortabilityData* results, bool* found,
                  std::uint32_t* keyLengths = nullptr, PublicationStamp* stamp = nullptr) {
    BAS::ReadLocker locker(cacheLockM);
    if (stamp != nullptr) *stamp = activeTreeM->stamp();
    activeTreeM->searchMany(numbers, dateTimes, count, searchMethod, results, found, keyLengths);
  }

  // Dumps the active tree with banner to standard output (a name equal to BAS::NULL_STRING)
  // or to what the named file leads to: a file is replaced by the dump, a FIFO or a device is
  // written. Always true; a file that could not be written is reported by STR::FileIo. Holds
  // the read side of the lock for the whole dump, as a long reader: lookups go on meanwhile,
  // also while an exchange waits for the dump to end.
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
  // of lines at least): about 48 bytes each while a chunk is sorted, whatever the file's size.
  // A tree is built from its first chunk in one pass and takes the later ones walk by walk,
  // which is slower and leaves its node and history free lists with some unused blocks: at ten
  // million records about 3 bytes per record per tree, as much for three chunks as for twenty.
  // A larger chunk's keys lie closer together, so each walk reads fewer levels of its own: at
  // ten million records a reload took 1.4 to 1.6 s with the default against 1.65 to 1.9 s with
  // half of it, for 5 bytes per record more at the peak. Not while an operation runs.
  void setChunkLines(std::size_t lines) { chunkLinesM = lines; }
  static constexpr std::size_t defaultChunkLinesCM = std::size_t{1} << 20;
  // How far the operation in progress has read its file; readable from any thread.
  const LoadProgress& progress() const { return progressM; }
  // The record count of the tree that answers lookups, as the last exchange (or the end of the
  // initial load) published it. Any thread; takes no lock, so it never waits.
  std::uint32_t publishedRecords() const { return publishedRecordsM.load(std::memory_order_relaxed); }
  // The stamp of the tree that answers lookups: the publication that made it so (the end of the
  // initial load is 1, each exchange of a reload or delta load the next) and its UTC time; a
  // number of 0 until the initial load has published. Any thread; never waits for the cache.
  PublicationStamp publishedStamp() const { return publishedStampM.load(); }

private:
  // The operation in progress is the only writer of the tree pointers, so it may read them
  // without the lock; lookups only ever read them too.
  NumberPortabilityTree* active() const NO_THREAD_SAFETY_ANALYSIS { return activeTreeM; }
  NumberPortabilityTree* standby() const NO_THREAD_SAFETY_ANALYSIS { return standbyTreeM; }
  // Publishes the standby tree: stamps it and exchanges the two pointers under the write side
  // of the lock.
  void exchangeTrees();
  // Publishes the active tree as the initial load leaves it: stamps it, and offers its stamp
  // and record count to hosts.
  void publishLoaded();
  // The stamp of the next publication.
  PublicationStamp nextStamp();
  // The loader of one operation, over the manager's parser, owner, figures and record arrays.
  LoadOperation makeOperation() { return LoadOperation(parserM, *plugInM, progressM, chunkLinesM, recordArraysM); }

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
  // Guards the two tree pointers: lookups hold the read side, dumps too (as long readers); the
  // exchange and the plug-in's reading of the active tree's record count hold the write side.
  BAS::RWLock cacheLockM;

private:
  CacheOwner* plugInM;  // the plug-in; not owned; never null

  // Set at construction or by the one operation in progress only (operations never overlap),
  // so no lock.
  std::size_t chunkLinesM = defaultChunkLinesCM;
  // The standby tree may hold other records than the active one: set before an operation
  // changes it, cleared only where both trees are known to hold the same records.
  bool standbyStaleM = false;
  // Lent to one operation at a time, which leaves it empty, its memory returned to the system.
  RecordChunk recordArraysM;
  // Written by the operation in progress only; see its fields.
  LoadProgress progressM;
  // The active tree's record count, stored with every exchange and at the end of the initial
  // load; atomic, read without a lock by hosts that must never wait for the cache.
  std::atomic<std::uint32_t> publishedRecordsM{0};
  // Publications so far; counted by the operation in progress only (operations never overlap),
  // so no lock.
  std::uint64_t publicationsM = 0;
  // The active tree's stamp, stored with every publication; read without a lock (see its class).
  PublishedStamp publishedStampM;
};

}  // namespace DAT::NumberPortability
