// DAT::NumberPortability::PortabilityLookup is what the plug-in library hands a host beside the
// framework's life cycle: lookups of numbers at dates, a batch at a time. The host asks the
// library's entry point "DAT_NumberPortabilityLookup" for it and calls it through its virtual
// table, so that none of the cache's or the store's code (nor the lock that guards them) is
// compiled into the host: every lookup runs the library's one copy.
//
// Beside lookups it normalises numbers as the data file's are, and gives the figures a host
// shows (records, load progress).
//
// Thread contract: any number of threads may call any operation at once, during loads, reloads
// and delta loads.
#pragma once

#include "BAS/DateTime.h"
#include "BAS/SimpleString.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace PLG {
class DataPlugIn;
}

namespace DAT::NumberPortability {

class PortabilityLookup {
public:
  // What a lookup found: from validFrom on, the number is served by networkOperator.
  struct Answer {
    BAS::DateTime validFrom;
    BAS::SimpleString networkOperator;
  };

  // The library's entry point: the lookup interface of a plug-in object that the same
  // library's module-start entry point made; null for any other object.
  using EntryPoint = PortabilityLookup* (*)(PLG::DataPlugIn*);
  static constexpr const char* entryPointNameCM = "DAT_NumberPortabilityLookup";

  // For each i below count: found[i] tells whether a record holds for numbers[i] (in stored
  // form) at dateTimes[i] with the configured search method, and answers[i] is that record
  // (untouched when none holds).
  virtual void lookUp(const std::string_view* numbers, const BAS::DateTime* dateTimes, std::size_t count,
                      Answer* answers, bool* found) = 0;

  // `number` in the stored form, as the data file's numbers are brought to it with the
  // configured dialling codes, written into `into` (whose capacity is reused, so a caller that
  // keeps one per thread allocates nothing once it has grown).
  virtual void normalize(std::string_view number, std::string& into) const = 0;

  // How far the load, reload or delta load in progress has read its data file. The fields are
  // read one by one while the load goes on, so they may be a batch of lines apart.
  struct LoadFigures {
    bool loading = false;           // a load is reading its file now
    std::uint64_t fileBytes = 0;    // its size; 0 when not known
    std::uint64_t bytesRead = 0;
    std::uint64_t linesRead = 0;    // data lines
    std::uint64_t linesTaken = 0;   // of them, kept as a record
    // of them, skipped: not three fields, no valid date-time, or a duplicate of an earlier record
    std::uint64_t linesRejected = 0;
    // How long the last load, reload or delta load that ended took; 0 until one has ended.
    double lastLoadSeconds = 0.0;
  };
  // The figures of the load in progress, or when none runs, of the last one. Never waits.
  virtual LoadFigures loadFigures() const = 0;
  // Records in the data that answers lookups, as the last exchange of the data published them.
  // Never waits, whatever the cache is doing.
  virtual std::uint64_t activeRecords() = 0;
  // The configured main data file, as the registry names it.
  virtual std::string dataFileName() const = 0;
  // Whether the background worker that carries out probe requests runs: false before init,
  // after shutdown, and once a failure ended it (the framework logged why). Never waits.
  virtual bool workerRunning() const = 0;

protected:
  // The plug-in object owns its interface; a host never deletes through it.
  virtual ~PortabilityLookup() = default;
};

}  // namespace DAT::NumberPortability
