#include "BAS/RegisteredObject.h"

#include "BAS/Framework.h"
#include "BAS/Log.h"
#include "BAS/Message.h"
#include "BAS/MutexLocker.h"
#include "BAS/RegistryEntry.h"

#include <cstdio>

namespace BAS {

Mutex RegisteredObject::statusLockerCM;
Mutex RegisteredObject::nameLockerCM;
Mutex RegisteredObject::isRegisteredLockerCM;
Mutex RegisteredObject::isValidLockerCM;
Mutex RegisteredObject::isUsableLockerCM;
Mutex RegisteredObject::rootNameLockerCM;
String RegisteredObject::rootNameCM = "Framework";

RegisteredObject::RegisteredObject() = default;

RegisteredObject::RegisteredObject(const String& name) : nameM(name) {
  Framework* framework = Framework::current();
  // The framework refuses empty names, the root object's name and names already taken.
  const bool registered = framework != nullptr && framework->registerObject(name, this);
  if (registered) frameworkM = framework;
  {
    MutexLocker locker(isRegisteredLockerCM);
    isRegisteredM = registered;
  }
  MutexLocker locker(isValidLockerCM);
  isValidM = registered;
}

RegisteredObject::~RegisteredObject() {
  if (frameworkM == nullptr) return;
  Framework::unregisterIfLive(frameworkM, lockedName(), this);
}

bool RegisteredObject::isUsable() {
  MutexLocker usableLocker(isUsableLockerCM);
  MutexLocker validLocker(isValidLockerCM);
  return isValidM;
}

void RegisteredObject::receiveMessage(const Message&) {}

bool RegisteredObject::receiveRequest(Message&) { return false; }

void RegisteredObject::update(const String&) {}

void RegisteredObject::update(const Status&) {}

void RegisteredObject::getInstrumentationProbe(InstrumentationProbeList&) const {}

bool RegisteredObject::readRegistry() { return true; }

bool RegisteredObject::evalEnvironment() { return true; }

void RegisteredObject::setEDRContainerIndices() {}

bool RegisteredObject::registryUpdate(const RegistryEntry*, ProtectedBool&) { return false; }

bool RegisteredObject::updateBoolFlag(const RegistryEntry*, RegistryEntry*, const String&, bool&, const String&,
                                      ProtectedBool&) {
  return false;
}

bool RegisteredObject::setBoolFlag(const RegistryEntry*, const String&, bool&) { return false; }

String RegisteredObject::lockedName() const {
  MutexLocker locker(nameLockerCM);
  return nameM;
}

void RegisteredObject::setStatus(const Status& status, bool log) {
  MutexLocker statusLocker(statusLockerCM);
  String objectName;
  {
    MutexLocker nameLocker(nameLockerCM);
    objectName = nameM;
  }
  statusM = status;
  statusM.setObjectName(objectName);
  if (log) writeLog(statusM);
}

void RegisteredObject::writeLog(const Status& status) const {
  if (Framework* framework = Framework::current()) {
    framework->log().writeStatus(status);
    return;
  }
  const std::string line = Log::formatLine(Log::statusRecord(status), Log::Format::TEXT);
  std::fprintf(stderr, "%s\n", line.c_str());
}

const RegistryEntry* RegisteredObject::registry() const {
  Framework* framework = Framework::current();
  if (framework == nullptr) return nullptr;
  const String name = lockedName();
  if (name.empty()) return nullptr;
  return framework->registry().findPath(name);
}

bool RegisteredObject::sendRequest(Message& request) {
  Framework* framework = Framework::current();
  return framework != nullptr && framework->deliverRequest(request);
}

bool RegisteredObject::sendMessage(Message& message) {
  Framework* framework = Framework::current();
  return framework != nullptr && framework->deliverMessage(message);
}

}  // namespace BAS
