#include "host/script/ScriptSession.h"

#include "host/common/ExitStatus.h"
#include "host/common/NphostMessages.h"
#include "host/script/CommandInterpreter.h"
#include "host/startup/HostSession.h"
#include "plugin/PortabilityLookup.h"

#include <fmt/format.h>

#include <chrono>
#include <iostream>
#include <string>

namespace Host {

int ScriptSession::run(std::istream& in, std::ostream& out, std::ostream& err) {
  if (const int status = sessionM.start(err); status != ExitStatus::doneCM) return status;

  const bool valid = sessionM.isValid();
  out << "construct valid=" << (valid ? "true" : "false") << std::endl;
  if (!valid) return sessionM.refuseInvalid(err);
  const auto loadBegin = std::chrono::steady_clock::now();
  const bool started = sessionM.init();
  if (started) {
    const std::chrono::duration<double> loadTime = std::chrono::steady_clock::now() - loadBegin;
    NphostMessages::write(sessionM.log(), NphostMessages::readyIdCM,
                          {std::to_string(sessionM.lookup().activeRecords()), fmt::format("{:.3f}", loadTime.count())});
  }
  out << "init result=" << (started ? "true" : "false") << std::endl;
  // A plug-in that did not start serves no data: the commands would answer about nothing.
  if (!started) {
    sessionM.finish();
    return ExitStatus::fail(err, ExitStatus::invalidObjectCM,
                            "the plug-in '" + sessionM.instanceName() + "' did not start; the log says why.");
  }

  CommandInterpreter interpreter(CommandInterpreter::Services{sessionM.plugIn(), sessionM.lookup(), sessionM.counts(),
                                                              sessionM.rewrites(), sessionM.log(), sessionM.metrics(),
                                                              &sessionM.publications()});
  std::string line;
  while (std::getline(in, line)) {
    if (const auto answer = interpreter.execute(line)) out << *answer << std::endl;
    if (interpreter.isShutDown()) sessionM.noteShutDown();
  }
  sessionM.noteStopCause("end of input");
  sessionM.finish();
  return ExitStatus::doneCM;
}

}  // namespace Host
