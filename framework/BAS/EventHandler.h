// BAS::EventHandler is the framework's event handler object: it receives the events that
// plug-ins send (the framework logs every event as it is sent) and counts them.
#pragma once

#include "BAS/Export.h"
#include "BAS/RegisteredObject.h"

#include <atomic>
#include <cstddef>

namespace BAS {

class BAS_EXPORT EventHandler : public RegisteredObject {
public:
  explicit EventHandler(const String& name) : RegisteredObject(name) {}
  void receiveMessage(const Message& message) override;
  std::size_t received() const { return receivedM.load(); }

private:
  std::atomic<std::size_t> receivedM{0};  // atomic: counted by any sender's thread, no lock
};

}  // namespace BAS
