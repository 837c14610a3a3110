// One complete portability data set: normalised numbers to their histories in a decimal digit
// trie, with the count of accepted records. The cache manager owns two (active and standby).
// No lock of its own: search and printTree may run concurrently, insert and clearAndDestroy alone.
//
// Memory: the trie's nodes lie in one array, each number's history (a count and its records,
// StoredHistory) in a block of the tree's HistoryArena or, for most single records, in the
// node's payload pointer itself, and a record holds the index of its
// operator text in the tree's OperatorTable instead of the text. clearAndDestroy resets them
// and keeps their memory, so a reload refills pages that are already mapped, and emptying ten
// million numbers costs no more than a few resets.
#pragma once

#include "store/BothJobs.h"
#include "store/HistoryArena.h"
#include "store/NumberPortabilityData.h"
#include "store/OperatorTable.h"
#include "store/PrefixStack.h"
#include "store/PtrTree.h"
#include "store/PublicationStamp.h"
#include "store/RecordChunk.h"
#include "store/StoredHistory.h"

#include "BAS/DateTime.h"
#include "BAS/String.h"

#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace DAT::NumberPortability {

class NumberPortabilityTree {
public:
  // Values of the search method. Every other value searches as ANY_PREFIX_MATCH.
  // The longest stored prefix (the number included) whose history holds at the date,
  // falling back to shorter prefixes.
  static constexpr std::uint32_t BEST_MATCH = 0;
  // The number itself only.
  static constexpr std::uint32_t EXACT_MATCH = 1;
  // The shortest stored prefix (the number included), without fall-back.
  static constexpr std::uint32_t ANY_PREFIX_MATCH = 2;

  NumberPortabilityTree() : ptrTreeM(radixCM) {}
  ~NumberPortabilityTree() = default;
  NumberPortabilityTree(const NumberPortabilityTree&) = delete;
  NumberPortabilityTree& operator=(const NumberPortabilityTree&) = delete;

  // Adds `record` to the history of `number` (characters other than decimal digits are
  // skipped). ordered true: false, nothing changed and nothing counted, when the history
  // already has a record of that date. ordered false appends unchecked. Also false for a
  // number without any digit, which would otherwise act as a prefix of every number. Out of
  // memory propagates; what was inserted before stays.
  bool insert(const BAS::String& number, const NumberPortabilityData& record, bool ordered);

  // insert for count records at once, in order: accepted[i] is insert's result for
  // numbers[i] and records[i]. Equal to count single inserts, but the trie walks of the batch
  // overlap their cache misses, which makes loading several times faster.
  void insertMany(const std::string_view* numbers, const NumberPortabilityData* records, std::size_t count,
                  bool ordered, bool* accepted);

  // Ordered insert of every record of `chunk`, after chunk.sort(), as single inserts in the
  // order of add would do it: the places (RecordChunk) of the records refused are appended to
  // `refused`, in no particular order. An empty tree builds itself from the sorted numbers in
  // one pass, each node and history written once and in key order; a tree that holds records
  // takes them in key order, so that the walks of neighbouring numbers share the nodes they
  // wait for. Only reads the chunk: trees may take the same chunk at the same time. Out of
  // memory propagates; an empty tree is then empty again, a filled one keeps what it took.
  void insertChunk(const RecordChunk& chunk, std::vector<std::size_t>& refused);

  // True and `result` set to a copy of the record that holds for `number` at `dateTime` under
  // `method`; false and `result` untouched when none does. The number is used as given, its
  // non-digits skipped. Inline, so that it compiles into the processing modules' lookups;
  // BEST_MATCH allocates only for numbers with more than prefixRoomCM stored prefixes.
  bool search(const BAS::String& number, const BAS::DateTime& dateTime, NumberPortabilityData& result,
              std::uint32_t method) const {
    if (method == BEST_MATCH) {
      PrefixStack<const StoredHistory*, prefixRoomCM> histories;
      ptrTreeM.search(number, histories);
      const StoredHistory* history = nullptr;
      while (histories.pop(history)) {
        if (answer(history, dateTime, result)) return true;
      }
      return false;
    }
    const StoredHistory* const history = ptrTreeM.search(number, method == EXACT_MATCH);
    return history != nullptr && answer(history, dateTime, result);
  }

  // search for count numbers at once: found[i] and results[i] as search(numbers[i], dateTimes[i],
  // results[i], method) gives them, results[i] untouched where found[i] is false. With
  // keyLengths, keyLengths[i] is where found[i] the number of digits of the stored key whose
  // history answered (the number's own digits, characters other than decimal digits skipped,
  // when the number itself answered; fewer when a shorter stored prefix did), untouched
  // elsewhere. The trie walks and then the history reads of a batch overlap their cache misses,
  // so that a host with many records in hand looks them up several times faster than one by
  // one. Inline, as search.
  void searchMany(const std::string_view* numbers, const BAS::DateTime* dateTimes, std::size_t count,
                  std::uint32_t method, NumberPortabilityData* results, bool* found,
                  std::uint32_t* keyLengths = nullptr) const {
    using Lists = PrefixStack<Prefix, searchPrefixRoomCM>;
    for (std::size_t first = 0; first < count; first += batchCM) {
      const std::size_t batch = std::min(count - first, batchCM);
      Lists lists[batchCM];
      // EXACT_MATCH keeps the number's own history only, ANY_PREFIX_MATCH the shortest prefix's.
      ptrTreeM.searchMany(numbers + first, batch,
                          [&](std::size_t i, const StoredHistory* list, std::uint32_t depth, bool whole) {
                            Lists& stack = lists[i];
                            if (method == BEST_MATCH || (method == EXACT_MATCH ? whole : stack.empty())) {
                              stack.push_back(Prefix{list, depth});
                            }
                          });
      Prefix top;
      for (Lists& stack : std::span(lists, batch)) {
        if (stack.top(top)) StoredHistory::prefetch(top.history);
      }
      for (std::size_t i = 0; i < batch; ++i) {
        bool& hit = found[first + i];
        hit = false;
        Prefix prefix;
        while (!hit && lists[i].pop(prefix)) hit = answer(prefix.history, dateTimes[first + i], results[first + i]);
        if (hit && keyLengths != nullptr) keyLengths[first + i] = prefix.depth;
      }
    }
  }

  // Releases every number, history and record; the tree is empty and usable at once, and keeps
  // its memory for the next fill.
  void clearAndDestroy();

  // Makes this tree hold exactly the records of `other`, histories in the same order, and the
  // same record count: a copy of the node array and of each history, without walking the trie
  // or inserting anything, so a loader builds one tree and copies it. `other` must not be
  // changed meanwhile. Out of memory propagates; this tree is then empty.
  void copyFrom(const NumberPortabilityTree& other);

  // Writes every record as a data-file line (number, 14-digit UTC date, operator), numbers in
  // key order, each history newest first; with the banner, three banner lines before them,
  // each flushed before anything else is written. The records are flushed once, at the end.
  // The formatting is split in two jobs for `both`, window by window.
  void printTree(std::ostream& out, bool withBanner, const PBC::BothJobs& both = PBC::oneAfterTheOther) const;

  // The publication that made this tree the one that answers lookups; set by its publisher
  // while no lookup can reach the tree, read by lookups beside their search. A fill, a clear
  // or a copy leaves it: it changes only when the tree is published again.
  const PublicationStamp& stamp() const noexcept { return stampM; }
  void setStamp(const PublicationStamp& stamp) noexcept { stampM = stamp; }

  std::uint32_t recordCount() const noexcept { return recordCountM; }
  // Nodes of the trie, the root included.
  std::size_t nodeCount() const { return ptrTreeM.nodeCount(); }
  // Whether the tree holds blocks that inserts into it left unused, which a copy leaves out.
  bool hasFreeBlocks() const noexcept { return ptrTreeM.hasFreeGroups() || historiesM.hasFreeBlocks(); }

private:
  static constexpr int radixCM = 10;
  static constexpr std::size_t prefixRoomCM = 32;
  // A batch holds a stack per number, so each has less room inside; deeper ones use the heap.
  static constexpr std::size_t searchPrefixRoomCM = 8;

  static constexpr std::size_t batchCM = 32;
  // insertSorted gives a batch to the trie's cursor where its keys have at most this many
  // digits each, on average, past the digits they share with the key before, and the tree at
  // most closeGapCM records per key of the chunk.
  static constexpr std::size_t closeGapCM = 24;
  static constexpr std::size_t closeLevelsCM = 3;

  // A stored prefix met by a batched search: its history and the digits of its key.
  struct Prefix {
    const StoredHistory* history = nullptr;
    std::uint32_t depth = 0;
  };

  using Trie = PBC::PtrTree<StoredHistory, PBC::PayloadsOwnedElsewhere>;
  using Piece = Trie::Piece;
  // The dump's lines of pieces first to end, piece first + i into texts[i].
  void formatPieces(const std::vector<Piece>& pieces, std::size_t first, std::size_t end, std::string* texts) const;
  // The dump: pieces of the trie to cut (down to a depth that telephone numbers reach, so that
  // a single long chain is not cut level by level), walkers taking turns, and the pieces whose
  // text is held before it is written: at most printWindowCM, fewer where pieces are large, so
  // that a window's text stays near printWindowBytesCM. A cut is by depth, and the pieces of
  // number blocks are many times larger than the rest: a count of pieces alone let two windows
  // hold over a third of a large tree's text.
  static constexpr std::size_t printPiecesCM = 16384;
  static constexpr std::size_t printCutDepthCM = 16;
  static constexpr std::size_t printLanesCM = 16;
  static constexpr std::size_t printWindowCM = 512;
  static constexpr std::size_t printWindowBytesCM = std::size_t{4} << 20;
  // The share (percent) of a window that the first job formats: it also writes.
  static constexpr std::size_t printFirstShareCM = 45;

  // A history of `record` alone: held in the pointer where it fits, else in a block.
  StoredHistory* singleHistory(const StoredRecord& record);
  // Adds `record` to the history in `*slot`, creating the history when there is none yet.
  bool addToHistory(StoredHistory** slot, const StoredRecord& record, bool ordered);
  // The history of the records of `chunk` at places first to first + length, all of one number,
  // for the one-pass build: newest first, the first record of each date only; the places of
  // the others go to `refused`. `run` is room that the calls share.
  StoredHistory* buildHistory(const RecordChunk& chunk, std::size_t first, std::size_t length,
                              const std::vector<std::uint32_t>& operators, std::vector<std::size_t>& refused,
                              std::vector<std::pair<StoredRecord, std::size_t>>& run);
  // insertChunk into a tree that holds records: in sorted order, a batch at a time, by the
  // trie's sorted cursor or its batched walk.
  void insertSorted(const RecordChunk& chunk, const std::vector<std::uint32_t>& operators,
                    std::vector<std::size_t>& refused);
  // The record at `place` of `chunk` with this tree's operator index.
  static StoredRecord translated(const RecordChunk& chunk, std::size_t place, const std::vector<std::uint32_t>& operators) {
    const StoredRecord& record = chunk.stored(place);
    return StoredRecord(record.validFrom(), operators[record.operatorIndex()]);
  }
  // The record of `history` that holds at `dateTime`, with its operator text, into `result`.
  bool answer(const StoredHistory* history, const BAS::DateTime& dateTime, NumberPortabilityData& result) const {
    StoredRecord room;
    const StoredRecord* const found = StoredHistory::find(StoredHistory::recordsOf(history, room), dateTime);
    if (found == nullptr) return false;
    StoredHistory::expand(*found, operatorsM, result);
    return true;
  }

  Trie ptrTreeM;
  HistoryArena historiesM;   // the histories of the trie's numbers
  OperatorTable operatorsM;  // the operator texts that the records refer to
  PublicationStamp stampM;   // see stamp()

public:
  // Records accepted since construction or the last clearAndDestroy. Readable directly by the
  // plug-in, which reads it under the cache lock; only the tree's own operations change it.
  std::uint32_t recordCountM = 0;
};

}  // namespace DAT::NumberPortability
