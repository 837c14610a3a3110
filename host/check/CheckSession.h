// Host::CheckSession is `nphost check`: it reads the registry file as script and run do, loads
// the plug-in library and has the library judge the instance's registry table and its data file
// through its check entry point, printing each finding and the summary. It starts no plug-in
// and sets up no log. One thread.
#pragma once

#include <iosfwd>

namespace Host {

class HostSession;

class CheckSession {
public:
  explicit CheckSession(HostSession& session) : sessionM(session) {}

  // Findings ("FILE:LINE: what is wrong", the registry file's before the data file's) and the
  // summary on `out`; why nothing could be checked on `err`, and a progress line there while
  // `errDescriptor` is a terminal and the file is large. The exit status (ExitStatus): done
  // when clean, findingsCM after any finding.
  int run(std::ostream& out, std::ostream& err, int errDescriptor);

private:
  HostSession& sessionM;
};

}  // namespace Host
