#include "BAS/Message.h"

namespace BAS {

Message::Message(const String& sender, const String& receiver, const String& messageId, const String& argument)
    : senderM(sender), receiverM(receiver), messageIdM(messageId), argumentM(argument) {}

Message::~Message() = default;

}  // namespace BAS
