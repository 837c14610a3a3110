// BAS::Framework is the running framework of one process: the registry, the log, the directory
// of live registered objects, the root object's answers, the event handler, the probe groups
// and, at its end, the owner-less threads. The host (and each test) creates one;
// it becomes current() for its lifetime. Thread-safe, except that configuration (registry,
// event handler, probe directory) is set before plug-ins are created.
#pragma once

#include "BAS/Export.h"
#include "BAS/Log.h"
#include "BAS/RegistryEntry.h"
#include "BAS/String.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
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
  void setEventHandlerName(const std::optional<String>& name);
  std::optional<String> eventHandlerName() const;
  EventHandler* eventHandler() const;
  // Replaces the root object's answering of requests (tests use it for odd answers).
  void setRootRequestHandler(std::function<bool(Message&)> handler);

  // Where the probe broker looks for probe information files; empty: the working directory.
  void setProbeDirectory(const String& directory);
  String probeDirectory() const;

  // Object directory. registerObject is false when the name is taken, empty or the root
  // object's. deliverRequest and deliverMessage call the receiver without holding mutexM.
  bool registerObject(const String& name, RegisteredObject* object);
  void unregisterObject(const String& name, RegisteredObject* object);
  RegisteredObject* findObject(const String& name) const;
  // Unregisters from `framework` only if that framework still exists: an object may end after
  // the framework it registered with.
  static void unregisterIfLive(Framework* framework, const String& name, RegisteredObject* object);

  bool deliverRequest(Message& request);
  bool deliverMessage(Message& message);

  // Ownership handed to the framework, released in ~Framework.
  void adoptProbeGroup(InstrumentationProbeGroup* group);
  std::vector<InstrumentationProbeGroup*> probeGroups() const;

private:
  Log logM;
  RegistryEntry registryM;
  mutable std::mutex mutexM;
  std::map<String, RegisteredObject*> objectsM;        // guarded by mutexM
  std::optional<String> eventHandlerNameM;              // guarded by mutexM
  std::unique_ptr<EventHandler> eventHandlerM;          // guarded by mutexM
  std::function<bool(Message&)> rootRequestHandlerM;   // guarded by mutexM
  String probeDirectoryM;                               // guarded by mutexM
  std::vector<InstrumentationProbeGroup*> probeGroupsM; // guarded by mutexM; owned
  Framework* previousM;  // the framework that was current before this one; guarded by a lock of Framework.cpp
};

}  // namespace BAS
