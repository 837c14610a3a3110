#include "BAS/Framework.h"

#include "BAS/EventHandler.h"
#include "BAS/InstrumentationProbeGroup.h"
#include "BAS/Message.h"
#include "BAS/Mutex.h"
#include "BAS/MutexLocker.h"
#include "BAS/RegisteredObject.h"
#include "BAS/Thread.h"

#include <atomic>

namespace BAS {

namespace {

// The live frameworks form a chain through previousM, the current one first. The head is
// changed only under Framework::chainLockCM, together with the previousM links; it is atomic
// so that current(), called on every report and delivery, reads it without the lock.
std::atomic<Framework*> head{nullptr};

String rootName() {
  MutexLocker locker(RegisteredObject::rootNameLockerCM);
  return RegisteredObject::rootNameCM;
}

const String eventHandlerRequestCM = "REQ_EVENTHANDLER_NAME";

}  // namespace

Mutex Framework::chainLockCM;

Framework::Framework() : registryM(String()) {
  MutexLocker locker(chainLockCM);
  previousM = head.load();
  head.store(this);
}

Framework::~Framework() {
  // Owner-less threads may still report through this framework or use its objects, so they
  // end first; the objects that are ours go while the framework is still current, so their
  // destructors can unregister; the chain is left last.
  Thread::releaseOwnerless();

  std::vector<InstrumentationProbeGroup*> groups;
  {
    MutexLocker locker(mutexM);
    groups.swap(probeGroupsM);
  }
  for (InstrumentationProbeGroup* group : groups) delete group;

  std::unique_ptr<EventHandler> handler;
  {
    MutexLocker locker(mutexM);
    handler = std::move(eventHandlerM);
  }
  handler.reset();

  MutexLocker locker(chainLockCM);
  if (head.load() == this) {
    head.store(previousM);
  } else {
    // Ended out of order: unlink from the middle of the chain.
    for (Framework* f = head.load(); f != nullptr; f = f->previousM) {
      if (f->previousM == this) {
        f->previousM = previousM;
        break;
      }
    }
  }
}

Framework* Framework::current() { return head.load(); }

void Framework::setEventHandlerName(const std::optional<String>& name) {
  // The old handler is destroyed and the new one made without mutexM held: both unregister
  // or register through the object directory, which takes it.
  std::unique_ptr<EventHandler> old;
  {
    MutexLocker locker(mutexM);
    old = std::move(eventHandlerM);
    eventHandlerNameM = name;
  }
  old.reset();
  if (!name) return;
  auto handler = std::make_unique<EventHandler>(*name);
  MutexLocker locker(mutexM);
  eventHandlerM = std::move(handler);
}

std::optional<String> Framework::eventHandlerName() const {
  MutexLocker locker(mutexM);
  return eventHandlerNameM;
}

EventHandler* Framework::eventHandler() const {
  MutexLocker locker(mutexM);
  return eventHandlerM.get();
}

void Framework::setRootRequestHandler(std::function<bool(Message&)> handler) {
  MutexLocker locker(mutexM);
  rootRequestHandlerM = std::move(handler);
}

void Framework::setProbeDirectory(const String& directory) {
  MutexLocker locker(mutexM);
  probeDirectoryM = directory;
}

String Framework::probeDirectory() const {
  MutexLocker locker(mutexM);
  return probeDirectoryM;
}

bool Framework::registerObject(const String& name, RegisteredObject* object) {
  if (name.empty() || object == nullptr || name == rootName()) return false;
  MutexLocker locker(mutexM);
  return objectsM.emplace(name, object).second;
}

void Framework::unregisterObject(const String& name, RegisteredObject* object) {
  MutexLocker locker(mutexM);
  const auto found = objectsM.find(name);
  if (found != objectsM.end() && found->second == object) objectsM.erase(found);
}

void Framework::unregisterIfLive(Framework* framework, const String& name, RegisteredObject* object) {
  if (framework == nullptr) return;
  MutexLocker locker(chainLockCM);
  for (Framework* f = head.load(); f != nullptr; f = f->previousM) {
    if (f == framework) {
      framework->unregisterObject(name, object);
      return;
    }
  }
}

RegisteredObject* Framework::findObject(const String& name) const {
  MutexLocker locker(mutexM);
  const auto found = objectsM.find(name);
  return found == objectsM.end() ? nullptr : found->second;
}

bool Framework::deliverRequest(Message& request) {
  if (request.receiver() == rootName()) {
    std::function<bool(Message&)> handler;
    std::optional<String> eventHandlerName;
    {
      MutexLocker locker(mutexM);
      handler = rootRequestHandlerM;
      eventHandlerName = eventHandlerNameM;
    }
    if (handler) return handler(request);
    if (request.messageId() != eventHandlerRequestCM || !eventHandlerName) return false;
    request.answer().assign(1, *eventHandlerName);
    return true;
  }
  RegisteredObject* receiver = findObject(request.receiver());
  return receiver != nullptr && receiver->receiveRequest(request);
}

bool Framework::deliverMessage(Message& message) {
  RegisteredObject* receiver = findObject(message.receiver());
  if (receiver != nullptr) receiver->receiveMessage(message);
  logM.writeEvent(message, receiver != nullptr);
  return receiver != nullptr;
}

void Framework::adoptProbeGroup(InstrumentationProbeGroup* group) {
  if (group == nullptr) return;
  MutexLocker locker(mutexM);
  probeGroupsM.push_back(group);
}

std::vector<InstrumentationProbeGroup*> Framework::probeGroups() const {
  MutexLocker locker(mutexM);
  return probeGroupsM;
}

}  // namespace BAS
