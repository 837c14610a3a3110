// DAT::NumberPortability::DataFileCheckListener receives what the plug-in library's check finds:
// each key of the plug-in's registry table that the plug-in ignores or takes otherwise than it
// reads, each data line the load would reject or that looks wrong, progress while it reads, and
// a summary. A host implements it and passes it to the entry point "DAT_NumberPortabilityCheck",
// which judges with the library's own knowledge of its keys and its own parser, so the host
// compiles none of it.
// Thread contract: the check calls the listener on the caller's thread only, one call at a time.
#pragma once

#include "BAS/String.h"

#include <cstdint>

namespace BAS {
class RegistryEntry;
}

namespace DAT::NumberPortability {

class DataFileCheckListener {
public:
  struct Summary {
    BAS::String fileName;
    std::uint64_t lines = 0;        // every line read, an unended last one included
    std::uint64_t records = 0;      // records the load would keep
    std::uint64_t numbers = 0;      // distinct keys those records would be stored under
    std::uint64_t rejected = 0;     // lines the load would skip
    std::uint64_t suspicious = 0;   // loaded lines whose number is written oddly
    std::uint64_t operators = 0;    // distinct operator identifiers among the records
    BAS::String earliest;           // the first and last valid-from, 14 digits UTC; empty without records
    BAS::String latest;
  };

  // What the entry point judges: the registry table alone (a host about to start the plug-in),
  // or the table and then the data file it names.
  enum class Scope { SETTINGS, SETTINGS_AND_DATA };

  // How much a remark on a key weighs: a finding is a mistake (a key the plug-in ignores, a
  // value it takes otherwise than the writer meant); a note is legitimate but worth knowing.
  enum class Weight { FINDING, NOTE };

  // The library's entry point: judges the registry table `subtree` of the plug-in instance `name`
  // (each key through setting()), then, with SETTINGS_AND_DATA, the data file it names. False
  // when it could not check at all: no table, or (data scope) the plug-in would not start on the
  // table (a mandatory key missing, a SearchMethod it cannot read) or the data file cannot be
  // opened or read; cannotCheck() then said why and no summary follows. True once everything
  // asked was judged; with SETTINGS_AND_DATA, summary() came last.
  using EntryPoint = bool (*)(const BAS::RegistryEntry* subtree, const BAS::String& name, Scope scope,
                              DataFileCheckListener& listener);
  static constexpr const char* entryPointNameCM = "DAT_NumberPortabilityCheck";

  // A remark on the key `key` (bare, as in the table) of the plug-in's table, in the table's
  // order, before anything about the data file. `text` is the rest of one sentence whose
  // subject is the key's path (the instance name, "." and the key): it names the values the
  // plug-in takes and says what the plug-in does with this one. Every key that is neither a
  // start-up nor an update-time key of the plug-in gets a finding, the host's own (Library)
  // included: the host knows which keys are its own.
  virtual void setting(const BAS::String& key, Weight weight, const BAS::String& text) = 0;

  // The data file is open and about to be read; every finding is about this file.
  virtual void begin(const BAS::String& fileName, std::uint64_t fileSize) = 0;
  // A line the load would reject or whose number looks wrong; `lineNumber` counts from 1, and
  // is 0 for a finding about the whole file. `text` is one sentence saying what is wrong and
  // what the plug-in would do with the line.
  virtual void finding(std::uint64_t lineNumber, const BAS::String& text) = 0;
  // Called every few thousand lines while the file is read.
  virtual void progress(std::uint64_t lines, std::uint64_t bytesRead) = 0;
  virtual void summary(const Summary& summary) = 0;
  // One sentence, without the program's name in front.
  virtual void cannotCheck(const BAS::String& reason) = 0;

protected:
  virtual ~DataFileCheckListener() = default;
};

}  // namespace DAT::NumberPortability
