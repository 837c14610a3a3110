#include "BAS/EventHandler.h"

namespace BAS {

void EventHandler::receiveMessage(const Message&) { receivedM.fetch_add(1); }

}  // namespace BAS
