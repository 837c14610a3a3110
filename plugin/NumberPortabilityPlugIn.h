// DAT::NumberPortability::PlugIn is the number-portability data plug-in as the framework sees
// it: configuration from the registry, the cache of portability data, lookups for processing
// modules, run-time reload, delta load and print through registry updates and probes, and the
// background worker that carries out probe requests.
//
// Thread contract: the framework's control thread constructs, calls init, shutdown and
// destroys; search and isUsable may run in any number of processing threads at any time;
// registry updates and probe writes arrive on any thread. Cache operations (reload, delta
// load, print) from updates and from the worker are serialised by operationLockM, while
// lookups go on. An exception from a cache operation passes through the update or the worker
// that ran it, with every lock released; one that leaves the worker's body ends the worker.
#pragma once

#include "BAS/BinarySemaphore.h"
#include "BAS/DateTime.h"
#include "BAS/InstrumentationProbeGroup.h"
#include "BAS/InstrumentationProbeValueIf.h"
#include "BAS/Mutex.h"
#include "BAS/Status.h"
#include "BAS/String.h"
#include "BAS/Thread.h"
#include "PLG/DataPlugIn.h"
#include "STR/FileIoTurbo.h"
#include "cache/CacheManager.h"
#include "cache/CacheOwner.h"
#include "plugin/PortabilityLookup.h"
#include "store/NumberPortabilityData.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {

class PlugIn : public PLG::DataPlugIn, public CacheOwner, public PortabilityLookup {
public:
  // Kinds of request that a probe write hands to the worker (values of requestTypeM).
  enum RequestType : std::int32_t { RELOAD_REQUEST = 0, DELTA_LOAD_REQUEST = 1, PRINT_DATA_REQUEST = 2 };

  // The probe values: a write posts the matching request to the worker and returns at once.
  // They hold a plain pointer to the plug-in; the framework owns them after construction.
  class ReloadProbeValue : public BAS::InstrumentationProbeValueIf {
  public:
    explicit ReloadProbeValue(PlugIn* plugIn) : plugInM(plugIn) {}
    ~ReloadProbeValue() override;
    bool setValue(const BAS::String& value) override;

  private:
    PlugIn* plugInM;
  };
  class AdditionalNumPortDataValue : public BAS::InstrumentationProbeValueIf {
  public:
    explicit AdditionalNumPortDataValue(PlugIn* plugIn) : plugInM(plugIn) {}
    ~AdditionalNumPortDataValue() override;
    bool setValue(const BAS::String& value) override;

  private:
    PlugIn* plugInM;
  };
  class PrintDataProbeValue : public BAS::InstrumentationProbeValueIf {
  public:
    explicit PrintDataProbeValue(PlugIn* plugIn) : plugInM(plugIn) {}
    ~PrintDataProbeValue() override;
    bool setValue(const BAS::String& value) override;

  private:
    PlugIn* plugInM;
  };

  // Registry keys, defaults and the data file's number of columns.
  static const BAS::String registryFileNameCM;
  static const BAS::String registryDeltaFileNameCM;
  static const BAS::String registryCountryCodeCM;
  static const BAS::String registryNationalAccessCodeCM;
  static const BAS::String registryInternationalAccessCodeCM;
  static const BAS::String registryInternationalAccessCodeSignCM;
  static const BAS::String registrySearchMethodCM;
  static const BAS::String registryReloadCM;
  static const BAS::String registryAdditionalNumPortDataCM;
  static const BAS::String registryPrintDataCM;
  static const BAS::String registryReuseOnFailureCM;
  static const BAS::String defaultInternationalAccessCodeCM;
  static const BAS::String defaultInternationalAccessCodeSignCM;
  static constexpr unsigned int defaultSearchMethodCM = NumberPortabilityTree::BEST_MATCH;
  static constexpr unsigned int numberOfColumnsCM = 3;
  static constexpr bool defaultReuseOnFailureCM = true;

  // A plug-in that stays invalid for its whole life (reports "ERR_OBJ_NOT_INITIALIZED").
  PlugIn();
  // Registers the name, reads the registry, checks the data file, creates the cache manager,
  // learns the event handler's name and builds the probes; a failed step leaves it invalid.
  PlugIn(const BAS::String& name, const BAS::String& version);
  ~PlugIn() override;

  bool isUsable() override;
  void getInstrumentationProbe(BAS::InstrumentationProbeList& list) const override;
  bool readRegistry() override;
  bool evalEnvironment() override;
  bool registryUpdate(const BAS::RegistryEntry* update, BAS::ProtectedBool& taken) override;
  // Starts the worker and loads the data file; true when the data was loaded.
  bool init() override;
  // Stops the worker; always true. Call before destroying a started plug-in.
  bool shutdown() override;

  // The record that holds for `number` (in stored international form) at `dateTime` with the
  // configured search method; false, and `result` untouched, when none holds. Any thread.
  bool search(const BAS::String& number, const BAS::DateTime& dateTime, NumberPortabilityData& result) {
    return cacheManagerM != nullptr && cacheManagerM->search(number, dateTime, result, searchMethodM);
  }

  // search for count numbers at once, for a host that has a batch of records in hand: found[i]
  // and results[i] as search gives them. Several times faster per record than single searches,
  // and the lock is taken once. Any thread.
  void searchMany(const std::string_view* numbers, const BAS::DateTime* dateTimes, std::size_t count,
                  NumberPortabilityData* results, bool* found) {
    if (cacheManagerM != nullptr) {
      cacheManagerM->searchMany(numbers, dateTimes, count, searchMethodM, results, found);
    } else {
      std::fill_n(found, count, false);
    }
  }

  // searchMany for a host, through the interface the library hands out.
  void lookUp(const std::string_view* numbers, const BAS::DateTime* dateTimes, std::size_t count, Answer* answers,
              bool* found) override;
  // The rest of the host's interface: the cache's normalisation, progress and record count.
  void normalize(std::string_view number, std::string& into) const override;
  LoadFigures loadFigures() const override;
  std::uint64_t activeRecords() override { return cacheManagerM != nullptr ? cacheManagerM->publishedRecords() : 0; }
  Generation generation() const override;
  std::string dataFileName() const override { return fileNameM.str(); }
  bool workerRunning() const override { return workerThreadM != nullptr && workerThreadM->isRunning(); }

  // Whether the configured data file can be opened; the answer is also stored as usable flag.
  bool checkFile() override REQUIRES(operationLockM);
  // Whether the named file can be opened; on success it stays open in the check reader until
  // the caller (or the destructor) closes it.
  bool checkFile(const BAS::String& fileName) override REQUIRES(operationLockM);

  // Reports a status message through the framework: sets the status and writes it to the log.
  void reportStatus(const char* messageId, BAS::Status::Severity severity, const BAS::String& argument) override;
  void reportStatus(const char* messageId, BAS::Status::Severity severity,
                    const std::vector<BAS::String>& arguments) override;
  BAS::String registeredName() const override;

  // The wake-up signal between posters and the worker: lock() takes it, unLock() gives it.
  void lock();
  void unLock();
  // The worker's body, started by init.
  void run();

  unsigned int searchMethod() const { return searchMethodM; }
  const BAS::String& eventHandlerName() const { return eventHandlerNameM; }
  const BAS::String& fileName() const { return fileNameM; }
  CacheManager* cacheManager() const { return cacheManagerM; }
  BAS::InstrumentationProbeGroup* probeGroup() const { return probeGroupM; }

private:
  // The reporting procedure: under the status lock, read the name under the name lock, set
  // the status and write it to the log.
  template <class Arguments>
  void report(const char* messageId, BAS::Status::Severity severity, const Arguments& arguments);
  void postRequest(RequestType type, const BAS::String& value);
  // The record count of the active tree, read under the write side of the cache lock.
  std::uint32_t recordCount();
  void sendEvent(const char* eventName);
  bool initInstrumentationProbe();
  bool validNow() const;
  void setValidNow(bool valid);
  // The steps of a registry update; each answers false when the update ends there.
  bool updateReload(const BAS::RegistryEntry* update, BAS::ProtectedBool& taken) EXCLUDES(operationLockM);
  bool updateDeltaLoad(const BAS::RegistryEntry* update, BAS::ProtectedBool& taken) EXCLUDES(operationLockM);
  void updatePrint(const BAS::RegistryEntry* update, BAS::ProtectedBool& taken) EXCLUDES(operationLockM);
  // Closes the check reader if a file is open and reports "INF_FILE_CLOSED".
  void closeCheckReader() REQUIRES(operationLockM);
  // The worker's three requests.
  void workReload(const BAS::String& value) REQUIRES(operationLockM);
  void workDeltaLoad(const BAS::String& value) REQUIRES(operationLockM);
  void workPrint(const BAS::String& value) REQUIRES(operationLockM);
  // The worker's stop state: ends through the cancellation of its thread.
  void stopState(BAS::Thread* self);

  // Configuration, written by readRegistry during construction only, then read.
  BAS::String fileNameM;
  BAS::String countryCodeM;
  BAS::String nationalAccessCodeM;
  BAS::String internationalAccessCodeM;
  BAS::String internationalAccessCodeSignM;
  BAS::String eventHandlerNameM;  // written by evalEnvironment during construction only
  // The check reader: the file checks of construction and of the cache operations use it,
  // so two checks never overlap.
  STR::FileIoTurbo fileIoM GUARDED_BY(operationLockM);
  // Atomic, so no lock: written by file checks and failed reloads, read by isUsable in any thread.
  std::atomic<bool> usableM{false};
  unsigned int searchMethodM = defaultSearchMethodCM;  // written during construction only
  // Owned. Made by the constructor and deleted by the destructor; the pointer never changes in
  // between, so lookups in any thread read it without a lock (the cache guards its trees).
  CacheManager* cacheManagerM = nullptr;
  // The request slot. Posters write it and the worker copies it at the start of a cycle, both
  // under requestLockM, so a post during a cycle neither is read half-written nor changes the
  // request in progress.
  std::int32_t requestTypeM GUARDED_BY(requestLockM) = -1;
  BAS::String requestValueM GUARDED_BY(requestLockM);
  BAS::InstrumentationProbeGroup* probeGroupM = nullptr;  // made at construction; the framework owns it
  BAS::BinarySemaphore wakeUpLockM;  // synchronises itself
  // Made by init and stopped by shutdown or the destructor, which the framework calls in turn
  // on its control thread, so no lock; the framework releases the thread object. A host reads
  // it (workerRunning) only between init and shutdown, which its start and end order.
  BAS::Thread* workerThreadM = nullptr;
  // Atomic, so no lock: set by shutdown on the control thread, read by the worker after each
  // wake-up.
  std::atomic<bool> stopWorkerM{false};

  BAS::Mutex requestLockM;
  // A posted request that the worker has not yet taken up.
  bool requestPendingM GUARDED_BY(requestLockM) = false;
  // Held around each whole cache operation (reload, delta load, print, initial load), by
  // registry updates and by the worker alike, and around every use of the check reader.
  BAS::Mutex operationLockM;
};

}  // namespace DAT::NumberPortability
