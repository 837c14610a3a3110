// BAS::RegisteredObject is the base of every object that the framework knows by name: plug-ins,
// the root object, the event handler. It carries the name, the registered and validity flags,
// the latest status, and access to the object's registry subtree, the log and messaging.
//
// Thread contract: the class-level locks below are shared by all registered objects of the
// process; each is held only around the read, write or report that needs it. Lock order where
// two are held: statusLockerCM before nameLockerCM; isUsableLockerCM before isValidLockerCM.
#pragma once

#include "BAS/Export.h"
#include "BAS/InstrumentationProbeList.h"
#include "BAS/Mutex.h"
#include "BAS/ProtectedBool.h"
#include "BAS/Status.h"
#include "BAS/String.h"

namespace BAS {

class Framework;
class Message;
class RegistryEntry;

class BAS_EXPORT RegisteredObject {
public:
  static Mutex statusLockerCM ACQUIRED_BEFORE(nameLockerCM);
  static Mutex nameLockerCM;
  static Mutex isRegisteredLockerCM;
  static Mutex isValidLockerCM;
  static Mutex isUsableLockerCM ACQUIRED_BEFORE(isValidLockerCM);
  static Mutex rootNameLockerCM;
  // Name of the framework's root object, which answers framework requests.
  static String rootNameCM GUARDED_BY(rootNameLockerCM);

  // An unnamed object; never registered, starts invalid.
  RegisteredObject();
  // Registers `name` with the current framework. The registered flag tells whether that
  // worked: there is no framework, or a live object already has that name, when it did not.
  // The validity flag starts equal to the registered flag.
  explicit RegisteredObject(const String& name);
  virtual ~RegisteredObject();
  RegisteredObject(const RegisteredObject&) = delete;
  RegisteredObject& operator=(const RegisteredObject&) = delete;

  // The virtual operations, in the framework's slot order. The defaults do nothing and answer
  // false, except isUsable (the validity flag) and evalEnvironment and readRegistry (true).
  virtual bool isUsable();
  virtual void receiveMessage(const Message& message);
  virtual bool receiveRequest(Message& request);
  virtual void update(const String& text);
  virtual void update(const Status& status);
  virtual void getInstrumentationProbe(InstrumentationProbeList& list) const;
  virtual bool readRegistry();
  virtual bool evalEnvironment();
  virtual void setEDRContainerIndices();
  virtual bool registryUpdate(const RegistryEntry* update, ProtectedBool& taken);
  virtual bool updateBoolFlag(const RegistryEntry* update, RegistryEntry* entry, const String& key, bool& flag,
                              const String& path, ProtectedBool& taken);
  virtual bool setBoolFlag(const RegistryEntry* entry, const String& key, bool& flag);

  const String& name() const REQUIRES(nameLockerCM) { return nameM; }
  // The name, taking nameLockerCM around the read.
  String lockedName() const EXCLUDES(nameLockerCM);
  bool isRegistered() const REQUIRES(isRegisteredLockerCM) { return isRegisteredM; }
  bool isValid() const REQUIRES(isValidLockerCM) { return isValidM; }
  void setValid(bool valid) REQUIRES(isValidLockerCM) { isValidM = valid; }
  Status& status() REQUIRES(statusLockerCM) { return statusM; }

  // Sets the status, filling in the object's name; with `log` true also writes it to the log.
  // Takes statusLockerCM (and nameLockerCM inside it).
  void setStatus(const Status& status, bool log) EXCLUDES(statusLockerCM, nameLockerCM);
  // Writes a status to the framework log (standard error when no framework exists).
  void writeLog(const Status& status) const;
  // The object's own registry subtree (the entry at its dotted name), or null.
  const RegistryEntry* registry() const;

  // Delivers a request to its receiver; true when it was answered.
  static bool sendRequest(Message& request);
  // Delivers a message to its receiver and writes it to the log as an event; true when an
  // object of the receiver's name existed.
  static bool sendMessage(Message& message);

private:
  String nameM GUARDED_BY(nameLockerCM);
  bool isRegisteredM GUARDED_BY(isRegisteredLockerCM) = false;
  bool isValidM GUARDED_BY(isValidLockerCM) = false;
  Status statusM GUARDED_BY(statusLockerCM);
  Framework* frameworkM = nullptr;  // the framework it registered with; set at construction, then only read
};

}  // namespace BAS
