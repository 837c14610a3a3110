// DAT::NumberPortability::DataFileCheck judges a configuration and its data file before they go
// live: it has RegistryTableCheck judge the plug-in's registry table, reads the plug-in's registry
// keys with the plug-in's defaults and reads the file by the load's own rule,
// with the load's parser and a tree of its own, and tells a DataFileCheckListener about every
// line the load would skip and every number written in a way that stores it under a surprising
// key. It starts no plug-in and writes no log. The entry point "DAT_NumberPortabilityCheck" runs it.
// Thread contract: one object per check, used by one thread.
#pragma once

#include "BAS/DateTime.h"
#include "BAS/String.h"
#include "STR/FileIoTurbo.h"
#include "cache/DataLineParser.h"
#include "plugin/DataFileCheckListener.h"
#include "store/NumberPortabilityData.h"
#include "store/NumberPortabilityTree.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <string_view>
#include <unordered_set>

namespace BAS {
class RegistryEntry;
}

namespace DAT::NumberPortability {

class DataFileCheck {
public:
  explicit DataFileCheck(DataFileCheckListener& listener);
  DataFileCheck(const DataFileCheck&) = delete;
  DataFileCheck& operator=(const DataFileCheck&) = delete;

  // As DataFileCheckListener::EntryPoint: false (after cannotCheck) when there is no table, or,
  // with SETTINGS_AND_DATA, the plug-in would not start on it or the file cannot be opened or
  // read; true after the table's remarks (SETTINGS) or after summary().
  bool run(const BAS::RegistryEntry* subtree, const BAS::String& name, DataFileCheckListener::Scope scope);

private:
  // Lines between two progress reports.
  static constexpr std::uint64_t progressLinesCM = 16384;
  // Lines judged together: the trie walks of a batch overlap their cache misses, as in the load.
  static constexpr std::size_t batchCM = 64;

  bool readRegistry(const BAS::RegistryEntry& subtree, const BAS::String& name);
  // Parses one line that the load would hand to its parser into the batch; judges the batch
  // when it is full.
  void judge(std::string_view line, std::uint64_t lineNumber);
  // Offers the batch's records to the tree and reports its lines in file order.
  void flush();
  // What is odd about the number field as written, or empty when it is plain.
  std::string oddity(std::string_view number, std::uint64_t lineNumber) const;
  void reject(std::uint64_t lineNumber, const std::string& text);

  // A line waiting in the batch: either its rejection, or its record at parsedM.
  struct Pending {
    std::uint64_t lineNumberM = 0;
    std::size_t parsedM = 0;  // index into the parsed arrays, or batchCM for a rejected line
    std::string rejectionM;   // what is wrong with a line the parser refused
    std::string oddityM;      // what is odd about the number of a parsed line, or empty
  };

  DataFileCheckListener& listenerM;
  BAS::String fileNameM;
  BAS::String countryCodeM;
  BAS::String nationalAccessCodeM;
  BAS::String internationalAccessCodeM;
  BAS::String internationalAccessCodeSignM;
  DataLineParser parserM;  // refers to the four codes above
  STR::FileIoTurbo readerM;
  // Receives every good record, so that duplicates are refused exactly as the load refuses them.
  NumberPortabilityTree treeM;
  std::unordered_set<std::string> operatorsM;
  std::string operatorM;  // the operator looked up in operatorsM, reused across lines
  DataFileCheckListener::Summary summaryM;
  BAS::DateTime::Secs earliestM = BAS::DateTime::invalidSecsCM;
  BAS::DateTime::Secs latestM = 0;

  Pending pendingM[batchCM];
  std::size_t pendingCountM = 0;
  std::size_t parsedCountM = 0;
  BAS::String numbersM[batchCM];  // in stored form
  std::string_view numberViewsM[batchCM];
  NumberPortabilityData recordsM[batchCM];
  BAS::DateTime latestPossibleM[batchCM];
  NumberPortabilityData existingM[batchCM];
  bool knownM[batchCM] = {};     // the number had a history before the batch
  bool acceptedM[batchCM] = {};  // the tree took the record
  std::string newKeysM[batchCM];  // digits of the numbers that had no history before the batch
};

}  // namespace DAT::NumberPortability
