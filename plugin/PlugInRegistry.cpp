// Configuration from the registry, the file checks, and run-time registry updates.
#include "plugin/NumberPortabilityPlugIn.h"

#include "BAS/MutexLocker.h"
#include "BAS/RegistryEntry.h"

#include <cctype>

namespace DAT::NumberPortability {

namespace {

constexpr long openModeCM = 8;

BAS::String keyPath(const BAS::String& objectName, const BAS::String& key) { return objectName + "." + key; }

BAS::String upperCased(const BAS::String& text) {
  BAS::String upper = text;
  for (char& c : upper.mutableStr()) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return upper;
}

}  // namespace

bool PlugIn::readRegistry() {
  const BAS::RegistryEntry* subtree = nullptr;
  if (validNow()) {
    subtree = registry();
    if (subtree == nullptr) {
      reportStatus("ERR_REG_SUBTREE_NOT_FOUND", BAS::Status::CRITICAL, registeredName());
      return false;
    }
  }

  // The mandatory keys, in the order they are read; the first missing one ends the reading.
  const std::pair<const BAS::String*, BAS::String*> mandatory[] = {
      {&registryFileNameCM, &fileNameM},
      {&registryCountryCodeCM, &countryCodeM},
      {&registryNationalAccessCodeCM, &nationalAccessCodeM},
  };
  for (const auto& [key, field] : mandatory) {
    if (!validNow()) continue;
    const BAS::RegistryEntry* entry = subtree->find(*key);
    if (entry == nullptr) {
      reportStatus("ERR_REG_NAME_NOT_FOUND", BAS::Status::CRITICAL, keyPath(registeredName(), *key));
      return false;
    }
    *field = entry->value();
  }

  const std::pair<const BAS::String*, std::pair<BAS::String*, const BAS::String*>> optional[] = {
      {&registryInternationalAccessCodeCM, {&internationalAccessCodeM, &defaultInternationalAccessCodeCM}},
      {&registryInternationalAccessCodeSignCM, {&internationalAccessCodeSignM, &defaultInternationalAccessCodeSignCM}},
  };
  for (const auto& [key, target] : optional) {
    if (!validNow()) continue;
    const BAS::RegistryEntry* entry = subtree->find(*key);
    *target.first = entry != nullptr ? entry->value() : *target.second;
  }

  if (validNow()) {
    if (const BAS::RegistryEntry* entry = subtree->find(registrySearchMethodCM)) {
      if (!entry->value().toNum(searchMethodM)) {
        BAS::Status invalid("ERR_REG_VALUE_INVALID", BAS::Status::CRITICAL,
                            keyPath(registeredName(), registrySearchMethodCM));
        if (!entry->value().empty()) invalid.arguments().push_back(entry->value());
        setStatus(invalid, true);
        return false;
      }
    }
    if (searchMethodM != NumberPortabilityTree::EXACT_MATCH && searchMethodM != NumberPortabilityTree::ANY_PREFIX_MATCH) {
      searchMethodM = defaultSearchMethodCM;
    }
  }
  BAS::MutexLocker operation(operationLockM);
  return checkFile();
}

bool PlugIn::checkFile() {
  if (!fileIoM.openFile(fileNameM, openModeCM)) {
    reportStatus("ERR_FILE_NOT_FOUND", BAS::Status::MAJOR, fileNameM);
    usableM.store(false);
    return false;
  }
  const bool open = fileIoM.isOpen();
  if (open) {
    reportStatus("INF_FILE_OPENED", BAS::Status::NORMAL, fileNameM);
  } else {
    reportStatus("ERR_OPEN_FILE_FAILED", BAS::Status::MAJOR, fileNameM);
  }
  usableM.store(open);
  fileIoM.closeFile();
  return open;
}

bool PlugIn::checkFile(const BAS::String& fileName) {
  if (!fileIoM.openFile(fileName, openModeCM)) {
    reportStatus("ERR_FILE_NOT_FOUND", BAS::Status::MAJOR, fileName);
    return false;
  }
  if (!fileIoM.isOpen()) {
    reportStatus("ERR_OPEN_FILE_FAILED", BAS::Status::MAJOR, fileName);
    return false;
  }
  reportStatus("INF_FILE_OPENED", BAS::Status::NORMAL, fileName);
  return true;
}

bool PlugIn::registryUpdate(const BAS::RegistryEntry* update, BAS::ProtectedBool& taken) {
  if (update == nullptr) return true;
  const bool hasCommand = update->find(registryReloadCM) != nullptr ||
                          update->find(registryAdditionalNumPortDataCM) != nullptr ||
                          update->find(registryPrintDataCM) != nullptr;
  if (!hasCommand) return true;
  if (cacheManagerM == nullptr) {
    // A default-constructed plug-in holds no data to reload, extend or print.
    taken = true;
    return false;
  }
  if (update->find(registryReloadCM) != nullptr && !updateReload(update, taken)) return false;
  if (update->find(registryAdditionalNumPortDataCM) != nullptr && !updateDeltaLoad(update, taken)) return false;
  if (update->find(registryPrintDataCM) != nullptr) updatePrint(update, taken);
  return true;
}

bool PlugIn::updateReload(const BAS::RegistryEntry* update, BAS::ProtectedBool& taken) {
  taken = true;
  if (update->find(registryAdditionalNumPortDataCM) != nullptr) {
    reportStatus("ERR_INVALID_REG_ENTRIES", BAS::Status::CRITICAL,
                 "Both 'Reload' and 'AdditionalNumPortData' can not be specified in update registry.");
    return false;
  }
  bool reuseOnFailure = defaultReuseOnFailureCM;
  if (const BAS::RegistryEntry* entry = update->find(registryReuseOnFailureCM)) {
    const BAS::String value = upperCased(entry->value());
    if (value == "TRUE") {
      reuseOnFailure = true;
    } else if (value == "FALSE") {
      reuseOnFailure = false;
    } else {
      reportStatus("ERR_INVALID_REG_VALUE", BAS::Status::CRITICAL, {value, registryReuseOnFailureCM});
      return false;
    }
  }
  reportStatus("INF_RELOAD_DATA", BAS::Status::NORMAL, registeredName());

  BAS::MutexLocker operation(operationLockM);
  bool reloaded = checkFile();
  if (reloaded) {
    reloaded = cacheManagerM->cacheReload(reuseOnFailure);
    closeCheckReader();
  }
  if (reloaded) {
    reportStatus("INF_NUM_NPORT_RELOADED", BAS::Status::NORMAL, BAS::String::decimal(recordCount()));
    sendEvent("EVT::RELOAD_SUCCESSFUL");
    return true;
  }
  sendEvent("EVT::RELOAD_FAILED");
  usableM.store(reuseOnFailure);
  return reuseOnFailure;
}

bool PlugIn::updateDeltaLoad(const BAS::RegistryEntry* update, BAS::ProtectedBool& taken) {
  taken = true;
  reportStatus("INF_ADD_DATA", BAS::Status::NORMAL, registeredName());
  const BAS::String deltaFileName = update->find(registryAdditionalNumPortDataCM)->value();

  BAS::MutexLocker operation(operationLockM);
  bool loaded = false;
  bool counted = false;
  std::uint32_t before = 0;
  std::uint32_t after = 0;
  if (checkFile(deltaFileName)) {
    before = recordCount();
    loaded = cacheManagerM->cacheDeltaLoad(deltaFileName);
    after = recordCount();
    counted = true;
    closeCheckReader();
  }
  if (loaded) {
    reportStatus("INF_NUM_NPORT_ADDED", BAS::Status::NORMAL, BAS::String::decimal(after - before));
    sendEvent("EVT::ADD_NUM_PORT_DATA_SUCCESSFUL");
    return true;
  }
  if (counted && after != before) {
    reportStatus("INF_NUM_NPORT_ADDED", BAS::Status::NORMAL, BAS::String::decimal(after - before));
  }
  sendEvent("EVT::ADD_NUM_PORT_DATA_FAILED");
  return false;
}

void PlugIn::updatePrint(const BAS::RegistryEntry* update, BAS::ProtectedBool& taken) {
  taken = true;
  const BAS::String& destination = update->find(registryPrintDataCM)->value();
  BAS::MutexLocker operation(operationLockM);
  cacheManagerM->printData(destination.empty() ? BAS::String() : destination);
}

}  // namespace DAT::NumberPortability
