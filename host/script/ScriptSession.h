// Host::ScriptSession is `nphost script`: it starts the plug-in through a HostSession, reports
// its validity and init result, then feeds it the commands of an input stream through a
// CommandInterpreter, one answer line each. main runs it. One thread.
#pragma once

#include <iosfwd>

namespace Host {

class HostSession;

class ScriptSession {
public:
  // The session is not owned and must outlive this object.
  explicit ScriptSession(HostSession& session) : sessionM(session) {}

  // Answers go to `out`, one line each, flushed at once; errors go to `err` as one sentence
  // starting "nphost: ". Returns the exit status.
  int run(std::istream& in, std::ostream& out, std::ostream& err);

private:
  HostSession& sessionM;
};

}  // namespace Host
