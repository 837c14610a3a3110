// BAS::Message is a framework message between registered objects: sender, receiver, message
// identifier and one argument. Sent as a request, it comes back holding the answer's values.
// A value type.
#pragma once

#include "BAS/Export.h"
#include "BAS/String.h"

#include <vector>

namespace BAS {

class BAS_EXPORT Message {
public:
  Message(const String& sender, const String& receiver, const String& messageId, const String& argument);
  ~Message();

  const String& sender() const { return senderM; }
  const String& receiver() const { return receiverM; }
  const String& messageId() const { return messageIdM; }
  const String& argument() const { return argumentM; }

  // The answer's values, filled by whoever answers a request.
  const std::vector<String>& answer() const { return answerM; }
  std::vector<String>& answer() { return answerM; }

private:
  String senderM;
  String receiverM;
  String messageIdM;
  String argumentM;
  std::vector<String> answerM;
};

}  // namespace BAS
