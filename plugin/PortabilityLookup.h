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
  // Which data answered: the publication that made it the data that answers lookups. The end
  // of the initial load is publication 1, each exchange of a reload or delta load the next;
  // with the UTC time of the publication the pair is unique across restarts. Publication 0:
  // no data published yet.
  struct Generation {
    std::uint64_t publication = 0;
    std::int64_t publishedAtMillis = 0;  // milliseconds since 1970-01-01 00:00:00 UTC
  };

  // What a lookup found: from validFrom on, the number is served by networkOperator, by the
  // record of a stored key of keyLength digits (in its international form: the international
  // access code and the country code included). The number itself answered exactly when
  // keyLength equals digitCount() of the number looked up; a stored prefix of it when less.
  // generation names the data that the lookup read.
  struct Answer {
    BAS::DateTime validFrom;
    BAS::SimpleString networkOperator;
    std::uint32_t keyLength = 0;
    Generation generation;
  };

  // The digits of `number` as a lookup reads them: the decimal digits, every other character
  // (blank, hyphen, plus sign, letter) skipped, as the data's keys skip them.
  static std::size_t digitCount(std::string_view number) noexcept {
    std::size_t digits = 0;
    for (const char c : number) digits += c >= '0' && c <= '9' ? 1 : 0;
    return digits;
  }

  // The library's entry point: the lookup interface of a plug-in object that the same
  // library's module-start entry point made; null for any other object.
  using EntryPoint = PortabilityLookup* (*)(PLG::DataPlugIn*);
  static constexpr const char* entryPointNameCM = "DAT_NumberPortabilityLookup";

  // For each i below count: found[i] tells whether a record holds for numbers[i] (in stored
  // form) at dateTimes[i] with the configured search method, and answers[i] is that record with
  // the length of the key that answered (all three untouched when none holds) and, in every
  // case, the generation of the data that was read. Each answer comes wholly from one
  // generation: its record, its key length and its generation are read together.
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
  // The generation of the data that answers lookups now, as the last publication left it.
  // Never waits, whatever the cache is doing.
  virtual Generation generation() const = 0;
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
