// DAT::NumberPortability::DataFileCheck judges a data file before it goes live: it reads the
// plug-in's registry keys with the plug-in's defaults and reads the file by the load's own rule,
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

#include <cstdint>
#include <string>
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

  // As DataFileCheckListener::EntryPoint: false (after cannotCheck) when the registry lacks
  // what the plug-in needs or the file cannot be opened or read; true after summary().
  bool run(const BAS::RegistryEntry* subtree, const BAS::String& name);

private:
  // Lines between two progress reports.
  static constexpr std::uint64_t progressLinesCM = 16384;

  bool readRegistry(const BAS::RegistryEntry* subtree, const BAS::String& name);
  // Judges one line that the load would hand to its parser.
  void judge(const BAS::String& line, std::uint64_t lineNumber);
  // What is odd about the number field as written, or empty when it is plain.
  std::string oddity(std::string_view number, std::uint64_t lineNumber) const;
  void reject(std::uint64_t lineNumber, const std::string& text);

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
  DataFileCheckListener::Summary summaryM;
  BAS::DateTime::Secs earliestM = BAS::DateTime::invalidSecsCM;
  BAS::DateTime::Secs latestM = 0;
  BAS::String numberM;            // the line's number in stored form, reused across lines
  NumberPortabilityData recordM;  // the line's record, reused across lines
};

}  // namespace DAT::NumberPortability
