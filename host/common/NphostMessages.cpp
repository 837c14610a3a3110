#include "host/common/NphostMessages.h"

#include "BAS/Log.h"
#include "BAS/Status.h"

namespace Host {

void NphostMessages::write(BAS::Log& log, const char* id, const std::vector<std::string>& arguments) {
  std::vector<BAS::String> texts;
  texts.reserve(arguments.size());
  for (const std::string& argument : arguments) texts.emplace_back(argument);
  BAS::Status status;
  status.set(BAS::String(objectNameCM), BAS::String(id), BAS::Status::NORMAL, texts);
  log.writeStatus(status);
}

}  // namespace Host
