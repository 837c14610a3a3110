// Host::CheckSession is `nphost check`: it reads the registry file as script and run do, loads
// the plug-in library and has the library judge the data file through its check entry point,
// printing each finding and the summary. It starts no plug-in and sets up no log. One thread.
#pragma once

#include <iosfwd>

namespace Host {

class HostSession;

class CheckSession {
public:
  // Exit statuses of a check.
  static constexpr int cleanCM = 0;
  static constexpr int findingsCM = 1;   // a rejected or suspicious line, or no record at all
  static constexpr int notCheckedCM = 2; // the registry, the library or the data file cannot be used

  explicit CheckSession(HostSession& session) : sessionM(session) {}

  // Findings ("FILE:LINE: what is wrong") and the summary on `out`; why nothing could be
  // checked on `err`, and a progress line there while `errDescriptor` is a terminal and the
  // file is large. The exit status.
  int run(std::ostream& out, std::ostream& err, int errDescriptor);

private:
  HostSession& sessionM;
};

}  // namespace Host
