#include "store/NumberPortabilityTree.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <new>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {

namespace {

constexpr std::string_view bannerRuleCM = "-----------------------------------------------------------\n";
constexpr std::string_view bannerTitleCM = "                 Number Portability Data\n";

void writeLine(std::ostream& out, std::string_view line) { out.write(line.data(), static_cast<std::streamsize>(line.size())); }

}  // namespace

bool NumberPortabilityTree::insert(const BAS::String& number, const NumberPortabilityData& record, bool ordered) {
  // One walk finds the number's node or creates its path.
  StoredHistory** const slot = ptrTreeM.payloadSlot(number.view());
  return slot != nullptr && addToHistory(slot, StoredRecord(record.validFromM, operatorsM.intern(record.networkOperatorM)), ordered);
}

void NumberPortabilityTree::insertMany(const std::string_view* numbers, const NumberPortabilityData* records,
                                       std::size_t count, bool ordered, bool* accepted) {
  StoredHistory** slots[batchCM];
  for (std::size_t first = 0; first < count; first += batchCM) {
    const std::size_t batch = std::min(count - first, batchCM);
    ptrTreeM.payloadSlots(numbers + first, batch, slots);
    // The histories are fetched for the whole batch before any is changed.
    for (std::size_t i = 0; i < batch; ++i) {
      if (slots[i] != nullptr && *slots[i] != nullptr) StoredHistory::prefetch(*slots[i]);
    }
    // In order: a number may come twice in one batch, and the first of two equal dates must win.
    for (std::size_t i = 0; i < batch; ++i) {
      const NumberPortabilityData& record = records[first + i];
      accepted[first + i] = slots[i] != nullptr &&
                            addToHistory(slots[i], StoredRecord(record.validFromM, operatorsM.intern(record.networkOperatorM)), ordered);
    }
  }
}

void NumberPortabilityTree::insertChunk(const RecordChunk& chunk, std::vector<std::size_t>& refused) {
  std::vector<std::uint32_t> operators(chunk.operators().size());
  for (std::size_t i = 0; i < operators.size(); ++i) operators[i] = operatorsM.intern(chunk.operators().text(i));

  std::vector<std::pair<StoredRecord, std::size_t>> run;  // buildHistory's room
  const std::size_t keyed = chunk.keyedCount();
  const bool built = recordCountM == 0 && [&] {
    try {
      return ptrTreeM.buildSorted(
          keyed, [&chunk](std::size_t place) { return chunk.key(place); },
          [&](std::size_t first, std::size_t length) { return buildHistory(chunk, first, length, operators, refused, run); });
    } catch (...) {
      clearAndDestroy();
      throw;
    }
  }();
  if (built) {
    // The build passes over numbers without a digit, which insert refuses; they sort first.
    for (std::size_t place = 0; place < keyed && chunk.key(place).length() == 0; ++place) refused.push_back(place);
  } else {
    insertSorted(chunk, operators, refused);
  }
  // Numbers with more digits than a key holds, one by one; their digits differ from every key's.
  for (std::size_t place = keyed; place < chunk.size(); ++place) {
    StoredHistory** const slot = ptrTreeM.payloadSlot(chunk.number(place).view());
    if (slot == nullptr || !addToHistory(slot, translated(chunk, place, operators), true)) refused.push_back(place);
  }
}

StoredHistory* NumberPortabilityTree::buildHistory(const RecordChunk& chunk, std::size_t first, std::size_t length,
                                                   const std::vector<std::uint32_t>& operators,
                                                   std::vector<std::size_t>& refused,
                                                   std::vector<std::pair<StoredRecord, std::size_t>>& run) {
  if (length == 1) {
    StoredHistory* const history = singleHistory(translated(chunk, first, operators));
    ++recordCountM;
    return history;
  }
  // Newest first; among records of one date, the one added first stays and the rest are
  // refused, as ordered inserts in the order of add would do.
  run.clear();
  for (std::size_t place = first; place < first + length; ++place) run.emplace_back(translated(chunk, place, operators), place);
  std::stable_sort(run.begin(), run.end(), [](const auto& a, const auto& b) { return a.first.secs() > b.first.secs(); });
  std::size_t kept = 0;
  for (std::size_t i = 0; i < run.size(); ++i) {
    if (kept != 0 && run[kept - 1].first.secs() == run[i].first.secs()) {
      refused.push_back(run[i].second);
      continue;
    }
    run[kept++] = run[i];
  }
  StoredHistory* history = nullptr;
  if (kept == 1) {
    history = singleHistory(run[0].first);
  } else {
    history = historiesM.allocate(static_cast<std::uint32_t>(kept));
    for (std::size_t i = 0; i < kept; ++i) history->data()[i] = run[i].first;
  }
  recordCountM += static_cast<std::uint32_t>(kept);
  return history;
}

void NumberPortabilityTree::insertSorted(const RecordChunk& chunk, const std::vector<std::uint32_t>& operators,
                                         std::vector<std::size_t>& refused) {
  // Where the keys lie close together (a large chunk against the tree), the cursor walks only
  // the levels below the key before, one key after the other. Where they lie far apart (a
  // small delta against a large tree, a chunk against a tree of a hundred million) each key
  // has most of its walk of its own, one read after another: there the batched walk, whose
  // reads overlap, is faster. Chosen for the chunk by how many records of the tree lie between
  // two of its keys on average, then batch by batch by the digits the keys share.
  Trie::SortedInsert cursor(ptrTreeM);
  const bool close = recordCountM <= closeGapCM * chunk.keyedCount();
  char digits[batchCM][PBC::DigitKey::maxDigitsCM];
  std::string_view numbers[batchCM];
  StoredHistory** slots[batchCM];
  const std::size_t count = chunk.keyedCount();
  PBC::DigitKey previous;
  for (std::size_t first = 0; first < count; first += batchCM) {
    const std::size_t batch = std::min(count - first, batchCM);
    PBC::DigitKey keys[batchCM];
    std::size_t ownLevels = 0;
    for (std::size_t i = 0; i < batch; ++i) {
      keys[i] = chunk.key(first + i);
      ownLevels += keys[i].length() - keys[i].commonPrefix(previous);
      previous = keys[i];
    }
    if (close && ownLevels <= batch * closeLevelsCM) {
      for (std::size_t i = 0; i < batch; ++i) {
        StoredHistory** const slot = cursor.reach(keys[i]);
        if (slot == nullptr || !addToHistory(slot, translated(chunk, first + i, operators), true)) refused.push_back(first + i);
      }
      continue;
    }
    for (std::size_t i = 0; i < batch; ++i) {
      const unsigned length = keys[i].length();
      for (unsigned d = 0; d < length; ++d) digits[i][d] = PBC::PtrTreeDigits::character(keys[i].digit(d));
      numbers[i] = std::string_view(digits[i], length);
    }
    ptrTreeM.payloadSlots(numbers, batch, slots);
    cursor.restart();
    for (std::size_t i = 0; i < batch; ++i) {
      if (slots[i] != nullptr && *slots[i] != nullptr) StoredHistory::prefetch(*slots[i]);
    }
    for (std::size_t i = 0; i < batch; ++i) {
      if (slots[i] == nullptr || !addToHistory(slots[i], translated(chunk, first + i, operators), true)) {
        refused.push_back(first + i);
      }
    }
  }
}

StoredHistory* NumberPortabilityTree::singleHistory(const StoredRecord& record) {
  if (StoredHistory* const single = StoredHistory::single(record)) return single;
  StoredHistory* const history = historiesM.allocate(1);
  history->data()[0] = record;
  return history;
}

bool NumberPortabilityTree::addToHistory(StoredHistory** slot, const StoredRecord& stored, bool ordered) {
  StoredHistory* const old = *slot;
  StoredRecord room;
  const std::span<const StoredRecord> records = old != nullptr ? StoredHistory::recordsOf(old, room) : std::span<const StoredRecord>();
  const auto count = static_cast<std::uint32_t>(records.size());
  std::uint32_t position = count;
  if (ordered && old != nullptr) {
    position = StoredHistory::findPosition(records, stored.validFrom());
    if (position == StoredHistory::takenCM) return false;
  }
  if (old == nullptr) {
    *slot = singleHistory(stored);
    ++recordCountM;
    return true;
  }
  // A count that no longer fits is a block that cannot be had: reported like any other
  // allocation failure. Everything that can fail comes before the history changes.
  if (count == std::numeric_limits<std::uint32_t>::max()) throw std::bad_array_new_length();
  StoredHistory* const grown = historiesM.allocate(count + 1);
  StoredRecord* const to = grown->data();
  std::copy_n(records.data(), position, to);
  std::copy_n(records.data() + position, count - position, to + position + 1);
  to[position] = stored;
  if (!StoredHistory::isSingle(old)) historiesM.release(old);
  *slot = grown;
  ++recordCountM;
  return true;
}

void NumberPortabilityTree::clearAndDestroy() {
  ptrTreeM.destroy();
  historiesM.reset();
  operatorsM.clear();
  ptrTreeM.createRoot();
  recordCountM = 0;
}

void NumberPortabilityTree::copyFrom(const NumberPortabilityTree& other) {
  clearAndDestroy();
  operatorsM = other.operatorsM;
  // Node for node, and each history into a block of its own length: the free blocks that the
  // other tree's growing histories left behind are not copied.
  ptrTreeM.copyFrom(other.ptrTreeM, [this](const StoredHistory* history) {
    if (StoredHistory::isSingle(history)) return const_cast<StoredHistory*>(history);
    StoredHistory* const copy = historiesM.allocate(history->size());
    std::copy_n(history->data(), history->size(), copy->data());
    return copy;
  });
  historiesM.releaseUnused();
  recordCountM = other.recordCountM;
}

void NumberPortabilityTree::printTree(std::ostream& out, bool withBanner, const PBC::BothJobs& both) const {
  if (withBanner) {
    // The banner reaches a console or FIFO before the walk begins, so someone watching sees
    // that a dump has started even while a large tree is still being walked.
    for (const std::string_view line : {bannerRuleCM, bannerTitleCM, bannerRuleCM}) {
      writeLine(out, line);
      out.flush();
    }
  }
  // The trie is cut into pieces whose lines collect in a text each. A window of pieces at a
  // time is formatted by the two jobs, the first taking the smaller share, as it also writes
  // out the window before in piece order; so no more than two windows' text is held.
  const std::vector<Piece> pieces = ptrTreeM.pieces(printPiecesCM, printCutDepthCM);
  std::vector<std::string> texts[2] = {std::vector<std::string>(printWindowCM), std::vector<std::string>(printWindowCM)};
  // A text is given up once written, not cleared: a slot would keep the capacity of the largest
  // piece it ever held, and all slots together far more than a window.
  const auto writeWindow = [&out](std::vector<std::string>& window) {
    for (std::string& text : window) {
      out.write(text.data(), static_cast<std::streamsize>(text.size()));
      std::string().swap(text);
    }
  };
  std::size_t window = 0;
  std::size_t span = printWindowCM;  // pieces in the next window, scaled by the last one's text
  for (std::size_t first = 0, end = 0; first < pieces.size(); first = end, ++window) {
    end = std::min(first + span, pieces.size());
    const std::size_t middle = first + (end - first) * printFirstShareCM / 100;
    std::vector<std::string>& current = texts[window % 2];
    std::vector<std::string>& before = texts[(window + 1) % 2];
    both(
        [&] {
          formatPieces(pieces, first, middle, current.data());
          writeWindow(before);
        },
        [&] { formatPieces(pieces, middle, end, current.data() + (middle - first)); });
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < end - first; ++i) bytes += current[i].size();
    span = std::clamp<std::size_t>((end - first) * printWindowBytesCM / std::max<std::size_t>(bytes, 1), 1, printWindowCM);
  }
  writeWindow(texts[(window + 1) % 2]);
  // Deliberately not line by line, as a history's own printTree flushes: the records go out
  // in the large texts of whole pieces and are flushed once, at the end, which makes the dump
  // of millions of records many times faster than a flush per line would. A reader of a
  // console or FIFO therefore sees them in large bursts; a file is finished by its close.
  out.flush();
}

void NumberPortabilityTree::formatPieces(const std::vector<Piece>& pieces, std::size_t first, std::size_t end,
                                         std::string* texts) const {
  // A walk in key order waits on every node. So several walkers take turns, one node each,
  // each asking for its next node before the turn passes; their waits overlap.
  // A history found by a walker is formatted two turns later: one turn for its count and first
  // records to arrive, one for the rest of its records.
  struct Found {
    const StoredHistory* list = nullptr;
    std::string key;
  };
  struct Lane {
    Trie::Walker walker;
    std::string* text = nullptr;
    bool busy = false;
    Found found[2];      // [0] waits for the rest of its records, [1] for its first line
    bool holding[2] = {false, false};
  };
  std::vector<Lane> lanes(printLanesCM);

  const auto format = [&](Lane& lane, Found& found) {
    StoredRecord room;
    StoredHistory::appendLines(StoredHistory::recordsOf(found.list, room), operatorsM, *lane.text, found.key);
  };
  // One turn of a lane: format the oldest history, move the next one up, and take a step.
  const auto turn = [&](Lane& lane) {
    if (lane.holding[0]) format(lane, lane.found[0]);
    lane.holding[0] = lane.holding[1];
    if (lane.holding[1]) {
      std::swap(lane.found[0], lane.found[1]);
      if (!StoredHistory::isSingle(lane.found[0].list)) __builtin_prefetch(lane.found[0].list->data() + 1);
      lane.holding[1] = false;
    }
    const StoredHistory* list = nullptr;
    if (lane.walker.step(list, radixCM)) {
      // Not a look at the history yet: it has only just been asked for.
      if (list != nullptr) {
        StoredHistory::prefetch(list);
        lane.found[1].list = list;
        lane.found[1].key.assign(lane.walker.currentKey());
        lane.holding[1] = true;
      }
      return;
    }
    if (lane.holding[0]) format(lane, lane.found[0]);
    lane.holding[0] = false;
    lane.busy = false;
  };

  std::size_t next = first;  // the next piece a walker takes
  for (;;) {
    bool anyBusy = false;
    for (Lane& lane : lanes) {
      if (!lane.busy && next < end) {
        lane.text = texts + (next - first);
        lane.busy = true;
        lane.walker.start(pieces[next++]);
      }
      if (!lane.busy) continue;
      anyBusy = true;
      turn(lane);
    }
    if (!anyBusy) break;
  }
}

}  // namespace DAT::NumberPortability
