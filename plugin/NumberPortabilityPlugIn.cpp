#include "plugin/NumberPortabilityPlugIn.h"

#include "BAS/Message.h"
#include "BAS/MutexLocker.h"
#include "BAS/WriteLocker.h"

namespace DAT::NumberPortability {

const BAS::String PlugIn::registryFileNameCM("FileName");
const BAS::String PlugIn::registryDeltaFileNameCM("DeltaFileName");
const BAS::String PlugIn::registryCountryCodeCM("CountryCode");
const BAS::String PlugIn::registryNationalAccessCodeCM("NationalAccessCode");
const BAS::String PlugIn::registryInternationalAccessCodeCM("InternationalAccessCode");
const BAS::String PlugIn::registryInternationalAccessCodeSignCM("InternationalAccessCodeSign");
const BAS::String PlugIn::registrySearchMethodCM("SearchMethod");
const BAS::String PlugIn::registryReloadCM("Reload");
const BAS::String PlugIn::registryAdditionalNumPortDataCM("AdditionalNumPortData");
const BAS::String PlugIn::registryPrintDataCM("PrintData");
const BAS::String PlugIn::registryReuseOnFailureCM("ReuseOnFailure");
const BAS::String PlugIn::defaultInternationalAccessCodeCM("00");
const BAS::String PlugIn::defaultInternationalAccessCodeSignCM("+");

PlugIn::PlugIn() {
  reportStatus("ERR_OBJ_NOT_INITIALIZED", BAS::Status::CRITICAL, "DAT::NumberPortability::PlugIn");
  setValidNow(false);
}

PlugIn::PlugIn(const BAS::String& name, const BAS::String& version) : PLG::DataPlugIn(name, version) {
  bool registered;
  {
    BAS::MutexLocker locker(isRegisteredLockerCM);
    registered = isRegistered();
  }
  setValidNow(registered);
  if (validNow()) setValidNow(readRegistry());
  // Made whether or not the registry could be read, so that a failed construction still has
  // a cache manager (with the file name as far as it was read) and later calls find one.
  cacheManagerM = new CacheManager(this, nationalAccessCodeM, internationalAccessCodeM, countryCodeM,
                                   internationalAccessCodeSignM, numberOfColumnsCM, fileNameM);
  if (validNow()) setValidNow(evalEnvironment());
  if (validNow()) setValidNow(initInstrumentationProbe());
}

PlugIn::~PlugIn() {
  {
    BAS::MutexLocker operation(operationLockM);
    closeCheckReader();
  }
  // A started plug-in is stopped by the framework's shutdown before it is destroyed; should
  // that not have happened, the worker must still end before the cache it uses goes away.
  if (workerThreadM != nullptr && !stopWorkerM.load()) shutdown();
  unLock();
  delete cacheManagerM;
}

bool PlugIn::validNow() const {
  BAS::MutexLocker locker(isValidLockerCM);
  return isValid();
}

void PlugIn::setValidNow(bool valid) {
  BAS::MutexLocker locker(isValidLockerCM);
  setValid(valid);
}

BAS::String PlugIn::registeredName() const { return lockedName(); }

namespace {

PortabilityLookup::Generation generationOf(const PublicationStamp& stamp) {
  return PortabilityLookup::Generation{stamp.numberM, stamp.utcMillisM};
}

}  // namespace

void PlugIn::lookUp(const std::string_view* numbers, const BAS::DateTime* dateTimes, std::size_t count,
                    Answer* answers, bool* found) {
  // The host's answers are its own type, so that it needs no store header; the records are
  // copied over a chunk at a time, which costs little beside the walks. Each chunk is one hold
  // of the read lock, so its stamp belongs to each of its answers.
  constexpr std::size_t chunkCM = 64;
  NumberPortabilityData records[chunkCM];
  std::uint32_t keyLengths[chunkCM];
  for (std::size_t done = 0; done < count; done += chunkCM) {
    const std::size_t n = std::min(chunkCM, count - done);
    PublicationStamp stamp;
    if (cacheManagerM != nullptr) {
      cacheManagerM->searchMany(numbers + done, dateTimes + done, n, searchMethodM, records, found + done, keyLengths,
                                &stamp);
    } else {
      std::fill_n(found + done, n, false);
    }
    const Generation read = generationOf(stamp);
    for (std::size_t i = 0; i < n; ++i) {
      Answer& answer = answers[done + i];
      if (found[done + i]) {
        answer.validFrom = records[i].validFromM;
        answer.networkOperator = records[i].networkOperatorM;
        answer.keyLength = keyLengths[i];
      }
      answer.generation = read;
    }
  }
}

PortabilityLookup::Generation PlugIn::generation() const {
  return cacheManagerM != nullptr ? generationOf(cacheManagerM->publishedStamp()) : Generation{};
}

void PlugIn::normalize(std::string_view number, std::string& into) const {
  // The caller's buffer goes in and out by moves, so its capacity is kept from call to call.
  into.assign(number);
  BAS::String text(std::move(into));
  if (cacheManagerM != nullptr) cacheManagerM->normalize(text);
  into = std::move(text.mutableStr());
}

PortabilityLookup::LoadFigures PlugIn::loadFigures() const {
  LoadFigures figures;
  if (cacheManagerM == nullptr) return figures;
  const LoadProgress& progress = cacheManagerM->progress();
  constexpr auto relaxed = std::memory_order_relaxed;
  figures.loading = progress.loadingM.load(relaxed);
  figures.fileBytes = progress.fileBytesM.load(relaxed);
  figures.bytesRead = progress.bytesReadM.load(relaxed);
  figures.linesRead = progress.linesReadM.load(relaxed);
  figures.linesTaken = progress.linesTakenM.load(relaxed);
  figures.linesRejected = progress.linesRejectedM.load(relaxed);
  figures.lastLoadSeconds = static_cast<double>(progress.lastOperationNanosM.load(relaxed)) / 1e9;
  return figures;
}

template <class Arguments>
void PlugIn::report(const char* messageId, BAS::Status::Severity severity, const Arguments& arguments) {
  BAS::MutexLocker statusLocker(statusLockerCM);
  BAS::String objectName;
  {
    BAS::MutexLocker nameLocker(nameLockerCM);
    objectName = name();
  }
  status().set(objectName, messageId, severity, arguments);
  writeLog(status());
}

void PlugIn::reportStatus(const char* messageId, BAS::Status::Severity severity, const BAS::String& argument) {
  report(messageId, severity, argument);
}

void PlugIn::reportStatus(const char* messageId, BAS::Status::Severity severity,
                          const std::vector<BAS::String>& arguments) {
  report(messageId, severity, arguments);
}

bool PlugIn::evalEnvironment() {
  BAS::String root;
  {
    BAS::MutexLocker locker(rootNameLockerCM);
    root = rootNameCM;
  }
  BAS::Message request(registeredName(), root, "REQ_EVENTHANDLER_NAME", "");
  if (sendRequest(request) && request.answer().size() == 1) eventHandlerNameM = request.answer().front();
  return true;
}

bool PlugIn::init() {
  // A default-constructed plug-in has nothing to load.
  if (cacheManagerM == nullptr) return false;
  reportStatus("INF_LOAD_DATA", BAS::Status::NORMAL, registeredName());
  // Named, so that a failure that ends it says whose worker it was.
  workerThreadM = new BAS::Thread(nullptr, registeredName() + " worker");
  lock();
  workerThreadM->start([this] { run(); });
  bool loaded;
  {
    BAS::MutexLocker operation(operationLockM);
    loaded = cacheManagerM->load();
  }
  if (!loaded) return false;
  BAS::String count;
  count.convert(recordCount());
  reportStatus("INF_NUM_NPORT_LOADED", BAS::Status::NORMAL, count);
  return true;
}

bool PlugIn::shutdown() {
  stopWorkerM.store(true);
  unLock();
  if (workerThreadM != nullptr) workerThreadM->stop();
  return true;
}

bool PlugIn::isUsable() {
  bool valid;
  {
    BAS::MutexLocker usableLocker(isUsableLockerCM);
    BAS::MutexLocker validLocker(isValidLockerCM);
    valid = isValid();
  }
  return valid && usableM.load();
}

void PlugIn::lock() { wakeUpLockM.take(); }

void PlugIn::unLock() { wakeUpLockM.give(); }

std::uint32_t PlugIn::recordCount() {
  BAS::WriteLocker locker(cacheManagerM->cacheLockM);
  return cacheManagerM->activeTreeM->recordCountM;
}

void PlugIn::sendEvent(const char* eventName) {
  BAS::Message event(registeredName(), eventHandlerNameM, eventName, "");
  sendMessage(event);
}

void PlugIn::closeCheckReader() {
  if (!fileIoM.isOpen()) return;
  fileIoM.closeFile();
  reportStatus("INF_FILE_CLOSED", BAS::Status::NORMAL, fileIoM.fileName());
}

}  // namespace DAT::NumberPortability
