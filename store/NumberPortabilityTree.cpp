#include "store/NumberPortabilityTree.h"

#include <algorithm>
#include <new>
#include <ostream>
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
  NumberPortabilityList** const slot = ptrTreeM.payloadSlot(number.view());
  return slot != nullptr && addToHistory(slot, record, ordered);
}

void NumberPortabilityTree::insertMany(const std::string_view* numbers, const NumberPortabilityData* records,
                                       std::size_t count, bool ordered, bool* accepted) {
  NumberPortabilityList** slots[batchCM];
  for (std::size_t first = 0; first < count; first += batchCM) {
    const std::size_t batch = std::min(count - first, batchCM);
    ptrTreeM.payloadSlots(numbers + first, batch, slots);
    // The histories and then their arrays are fetched for the whole batch before any is changed.
    for (std::size_t i = 0; i < batch; ++i) {
      if (slots[i] != nullptr && *slots[i] != nullptr) __builtin_prefetch(*slots[i]);
    }
    for (std::size_t i = 0; i < batch; ++i) {
      if (slots[i] != nullptr && *slots[i] != nullptr) __builtin_prefetch((*slots[i])->records().data());
    }
    // In order: a number may come twice in one batch, and the first of two equal dates must win.
    for (std::size_t i = 0; i < batch; ++i) {
      accepted[first + i] = slots[i] != nullptr && addToHistory(slots[i], records[first + i], ordered);
    }
  }
}

bool NumberPortabilityTree::addToHistory(NumberPortabilityList** slot, const NumberPortabilityData& record,
                                         bool ordered) {
  if (*slot == nullptr) *slot = ::new (listsM.allocate(sizeof(NumberPortabilityList))) NumberPortabilityList();
  NumberPortabilityList& list = **slot;
  if (ordered) {
    if (!list.insertAt(record, &historiesM)) return false;
  } else {
    list.insert(record, &historiesM);
  }
  if (record.networkOperatorM.length() > BAS::SimpleString::inlineCapacityCM) ++longTextRecordsM;
  ++recordCountM;
  return true;
}

void NumberPortabilityTree::releaseRecordTexts() noexcept {
  if (longTextRecordsM == 0) return;
  listsM.forEachUsed([](char* begin, char* end) {
    auto* const first = reinterpret_cast<NumberPortabilityList*>(begin);
    auto* const last = reinterpret_cast<NumberPortabilityList*>(end);
    for (NumberPortabilityList* list = first; list != last; ++list) list->releaseRecords();
  });
  longTextRecordsM = 0;
}

void NumberPortabilityTree::clearAndDestroy() {
  releaseRecordTexts();
  ptrTreeM.destroy();
  listsM.reset();
  historiesM.reset();
  ptrTreeM.createRoot();
  recordCountM = 0;
}

void NumberPortabilityTree::copyFrom(const NumberPortabilityTree& other) {
  clearAndDestroy();
  other.ptrTreeM.forEach([this](const BAS::String& number, const NumberPortabilityList& list) {
    // Appending keeps each history in the order it has, newest first, without re-sorting.
    for (const NumberPortabilityData& record : list.records()) insert(number, record, false);
  });
}

void NumberPortabilityTree::printTree(std::ostream& out, bool withBanner) const {
  if (withBanner) {
    // The banner reaches a console or FIFO before the walk begins, so someone watching sees
    // that a dump has started even while a large tree is still being walked.
    for (const std::string_view line : {bannerRuleCM, bannerTitleCM, bannerRuleCM}) {
      writeLine(out, line);
      out.flush();
    }
  }
  // A walk in key order waits on every node, since nodes lie in the order they were created.
  // So the trie is cut into pieces, and several walkers take turns, one node each, each asking
  // for its next node before the turn passes; their waits overlap. Each piece's lines collect
  // in a text of their own, written out in piece order.
  using Trie = decltype(ptrTreeM);
  const std::vector<Trie::Piece> pieces = ptrTreeM.pieces(printPiecesCM, printCutDepthCM);
  std::vector<std::string> texts(printWindowCM);  // piece i in texts[i % printWindowCM]
  std::vector<bool> finished(printWindowCM, false);
  std::size_t nextPiece = 0;    // the next piece a walker takes
  std::size_t nextWritten = 0;  // the next piece to write
  std::size_t heldBytes = 0;    // in the texts of pieces taken but not yet written

  // A history found by a walker is formatted two turns later: one turn for the history object
  // to arrive, one for its records.
  struct Found {
    const NumberPortabilityList* list = nullptr;
    std::string key;
  };
  struct Lane {
    Trie::Walker walker;
    std::size_t piece = 0;
    bool busy = false;
    Found found[2];      // [0] waits for its records, [1] for its history object
    bool holding[2] = {false, false};
  };
  std::vector<Lane> lanes(printLanesCM);

  const auto format = [&](Lane& lane, Found& found) {
    std::string& text = texts[lane.piece % printWindowCM];
    const std::size_t before = text.size();
    found.list->appendLines(text, found.key);
    heldBytes += text.size() - before;
  };
  // One turn of a lane: format the oldest history, move the next one up, and take a step.
  const auto turn = [&](Lane& lane) {
    if (lane.holding[0]) format(lane, lane.found[0]);
    lane.holding[0] = lane.holding[1];
    if (lane.holding[1]) {
      std::swap(lane.found[0], lane.found[1]);
      lane.found[0].list->prefetch();
      lane.holding[1] = false;
    }
    const NumberPortabilityList* list = nullptr;
    if (lane.walker.step(list, radixCM)) {
      // Not a look at the history yet: it has only just been asked for.
      if (list != nullptr) {
        __builtin_prefetch(list);
        lane.found[1].list = list;
        lane.found[1].key.assign(lane.walker.currentKey());
        lane.holding[1] = true;
      }
      return;
    }
    if (lane.holding[0]) format(lane, lane.found[0]);
    lane.holding[0] = false;
    finished[lane.piece % printWindowCM] = true;
    lane.busy = false;
  };

  for (;;) {
    bool anyBusy = false;
    for (Lane& lane : lanes) {
      if (!lane.busy && nextPiece < pieces.size() && nextPiece < nextWritten + printWindowCM &&
          heldBytes < printHeldBytesCM) {
        lane.piece = nextPiece++;
        lane.busy = true;
        lane.walker.start(pieces[lane.piece]);
      }
      if (!lane.busy) continue;
      anyBusy = true;
      turn(lane);
    }
    while (nextWritten < nextPiece && finished[nextWritten % printWindowCM]) {
      std::string& text = texts[nextWritten % printWindowCM];
      out.write(text.data(), static_cast<std::streamsize>(text.size()));
      heldBytes -= text.size();
      text.clear();
      finished[nextWritten % printWindowCM] = false;
      ++nextWritten;
    }
    if (!anyBusy && nextPiece == pieces.size()) break;
  }
  // Deliberately not line by line, as a history's own printTree flushes: the records go out
  // in the large texts of whole pieces and are flushed once, at the end, which makes the dump
  // of millions of records many times faster than a flush per line would. A reader of a
  // console or FIFO therefore sees them in large bursts; a file is finished by its close.
  out.flush();
}

}  // namespace DAT::NumberPortability
