// BAS::Framework is the running framework of one process: the registry, the log, the directory
// of live registered objects, the root object's answers, the event handler, the probe groups
// and, at its end, the owner-less threads. The host (and each test) creates one;
// it becomes current() for its lifetime. Thread-safe, except that configuration (registry,
// event handler, probe directory) is set before plug-ins are created.
#pragma once

#include "BAS/Export.h"
#include "BAS/Log.h"
#include "BAS/Mutex.h"
#include "BAS/RegistryEntry.h"
#include "BAS/String.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace BAS {

class EventHandler;
class InstrumentationProbeGroup;
class Message;
class RegisteredObject;

class BAS_EXPORT Framework {
public:
  Framework();
  // Stops and releases the owner-less threads (BAS::Thread::releaseOwnerless), releases the
  // probe groups, then the rest.
  ~Framework();
  Framework(const Framework&) = delete;
  Framework& operator=(const Framework&) = delete;

  // The framework of the process, or null when none exists.
  static Framework* current();

  Log& log() { return logM; }
  RegistryEntry& registry() { return registryM; }
  const RegistryEntry& registry() const { return registryM; }

  // Sets the event handler: the root object answers "REQ_EVENTHANDLER_NAME" with it and an
  // EventHandler object of that name receives events. Without one the request goes unanswered.
  void setEventHandlerName(const std::optional<String>& name) EXCLUDES(mutexM);
  std::optional<String> eventHandlerName() const EXCLUDES(mutexM);
  EventHandler* eventHandler() const EXCLUDES(mutexM);
  // Replaces the root object's answering of requests (tests use it for odd answers).
  void setRootRequestHandler(std::function<bool(Message&)> handler) EXCLUDES(mutexM);

  // Where the probe broker looks for probe information files; empty: the working directory.
  void setProbeDirectory(const String& directory) EXCLUDES(mutexM);
  String probeDirectory() const EXCLUDES(mutexM);

  // Object directory. registerObject is false when the name is taken, empty or the root
  // object's. deliverRequest and deliverMessage call the receiver without holding mutexM, so
  // that a receiver may register, unregister or deliver in turn.
  bool registerObject(const String& name, RegisteredObject* object) EXCLUDES(mutexM);
  void unregisterObject(const String& name, RegisteredObject* object) EXCLUDES(mutexM);
  RegisteredObject* findObject(const String& name) const EXCLUDES(mutexM);
  // Unregisters from `framework` only if that framework still exists: an object may end after
  // the framework it registered with.
  static void unregisterIfLive(Framework* framework, const String& name, RegisteredObject* object)
      EXCLUDES(chainLockCM);

  bool deliverRequest(Message& request) EXCLUDES(mutexM);
  bool deliverMessage(Message& message) EXCLUDES(mutexM);

  // Ownership handed to the framework, released in ~Framework.
  void adoptProbeGroup(InstrumentationProbeGroup* group) EXCLUDES(mutexM);
  std::vector<InstrumentationProbeGroup*> probeGroups() const EXCLUDES(mutexM);

private:
  // Guards the chain of live frameworks (every previousM). Taken before a framework's mutexM
  // where both are held.
  static Mutex chainLockCM;

  Log logM;                // synchronises itself
  RegistryEntry registryM; // configured before plug-ins are created, then only read: no lock
  mutable Mutex mutexM;
  std::map<String, RegisteredObject*> objectsM GUARDED_BY(mutexM);
  std::optional<String> eventHandlerNameM GUARDED_BY(mutexM);
  std::unique_ptr<EventHandler> eventHandlerM GUARDED_BY(mutexM);
  std::function<bool(Message&)> rootRequestHandlerM GUARDED_BY(mutexM);
  String probeDirectoryM GUARDED_BY(mutexM);
  std::vector<InstrumentationProbeGroup*> probeGroupsM GUARDED_BY(mutexM);  // owned
  // The framework that was current before this one.
  Framework* previousM GUARDED_BY(chainLockCM);
};

}  // namespace BAS
