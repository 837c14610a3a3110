// DAT::NumberPortability::StoredHistory is one number's history as a portability tree stores
// it: a record count followed by exactly that many records, newest first, in one block of the
// tree's HistoryArena, so that a number costs its node's pointer, four bytes and eight per
// record; a history of one record usually costs only the pointer (see single). The tree
// creates, grows (by moving to a larger block) and searches them; the static helpers hold the
// history rules that NumberPortabilityList shares. Not synchronised: reads may run
// concurrently, changes alone.
#pragma once

#include "store/NumberPortabilityData.h"
#include "store/OperatorTable.h"
#include "store/StoredRecord.h"

#include "BAS/DateTime.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <span>
#include <string>
#include <string_view>

namespace DAT::NumberPortability {

class StoredHistory {
public:
  // No room: the position that findPosition gives for a date already stored.
  static constexpr std::uint32_t takenCM = std::numeric_limits<std::uint32_t>::max();

  static constexpr std::size_t bytesFor(std::uint32_t count) noexcept {
    return sizeof(StoredHistory) + std::size_t{count} * sizeof(StoredRecord);
  }

  // Starts the lifetime of a history of `count` records in `block` (bytesFor(count) bytes);
  // the records are left for the caller to write.
  static StoredHistory* create(void* block, std::uint32_t count) noexcept { return ::new (block) StoredHistory(count); }

  // Three numbers in four have a single record. Such a history, when its operator index
  // leaves the top bit of the record's word clear (below 2^23: every real operator table),
  // is the tree's payload pointer itself: the record's word shifted up, tagged by a low bit
  // that no block's address has. single gives that pointer, or null when the record does not
  // fit and needs a block like any longer history. Such a pointer must never be dereferenced:
  // recordsOf reads both forms.
  static StoredHistory* single(const StoredRecord& record) noexcept {
    if constexpr (sizeof(std::uintptr_t) < sizeof(std::uint64_t)) {
      return nullptr;
    } else {
      const std::uint64_t word = record.word();
      if (word >> 63 != 0) return nullptr;
      return reinterpret_cast<StoredHistory*>(static_cast<std::uintptr_t>(word << 1 | singleTagCM));
    }
  }
  static bool isSingle(const StoredHistory* history) noexcept {
    return (reinterpret_cast<std::uintptr_t>(history) & singleTagCM) != 0;
  }
  // The records of either form; a single record is copied into `room`, which the span views.
  static std::span<const StoredRecord> recordsOf(const StoredHistory* history, StoredRecord& room) noexcept {
    if (!isSingle(history)) return history->records();
    room = StoredRecord::fromWord(static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(history)) >> 1);
    return {&room, 1};
  }
  // Asks for the block of a history, a no-op for a single record held in the pointer.
  static void prefetch(const StoredHistory* history) noexcept {
    if (!isSingle(history)) __builtin_prefetch(history);
  }

  std::uint32_t size() const noexcept { return countM; }
  StoredRecord* data() noexcept { return reinterpret_cast<StoredRecord*>(this + 1); }
  const StoredRecord* data() const noexcept { return reinterpret_cast<const StoredRecord*>(this + 1); }
  std::span<const StoredRecord> records() const noexcept { return {data(), countM}; }

  // The first record, in stored order, valid at or before `dateTime` (for a history newest
  // first: the record that holds then); null when none is. Inline: part of every lookup.
  static const StoredRecord* find(std::span<const StoredRecord> records, const BAS::DateTime& dateTime) noexcept {
    const BAS::DateTime::Secs secs = dateTime.secs();
    for (const StoredRecord& record : records) {
      if (record.secs() <= secs) return &record;
    }
    return nullptr;
  }
  // Where a record of `dateTime` goes to keep the history newest first, or takenCM when a
  // record of that date is stored already.
  static std::uint32_t findPosition(std::span<const StoredRecord> records, const BAS::DateTime& dateTime) noexcept;
  // A copy of `record` with its operator text, into `result`.
  static void expand(const StoredRecord& record, const OperatorTable& operators, NumberPortabilityData& result) {
    result.validFromM = record.validFrom();
    result.networkOperatorM = operators.text(record.operatorIndex());
  }
  // Appends one data-file line per record, in stored order: the number and the operator with
  // blanks trimmed, the date as 14 digits in UTC, columns separated by two blanks.
  static void appendLines(std::span<const StoredRecord> records, const OperatorTable& operators, std::string& out,
                          std::string_view number);

private:
  static constexpr std::uintptr_t singleTagCM = 1;

  explicit StoredHistory(std::uint32_t count) noexcept : countM(count) {}

  std::uint32_t countM;  // the records follow the count
};

static_assert(sizeof(StoredHistory) == 4 && alignof(StoredHistory) == alignof(StoredRecord),
              "the records follow the count without a gap");
static_assert(alignof(StoredHistory) > 1, "a block's address leaves the single-record tag clear");

}  // namespace DAT::NumberPortability
