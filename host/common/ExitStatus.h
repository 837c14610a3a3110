// Host::ExitStatus holds the exit statuses of nphost's run, script and check, one table for all
// three (ctl keeps its own: 0 carried out, 1 not), and the one way they end early: a sentence on
// standard error and the status. The start-up, the sessions and main use it.
#pragma once

#include <ostream>
#include <string>

namespace Host {

struct ExitStatus {
  static constexpr int doneCM = 0;
  // The command line, the registry file (unreadable, not TOML, a bad [Framework] value), the
  // input or the output cannot be used.
  static constexpr int badInputCM = 1;
  static constexpr int noLibraryCM = 2;  // the plug-in library or an entry point is not found
  // The plug-in could not start (or, for a check, would not): not valid after construction (a
  // missing mandatory key, a data file that cannot be read or is not a file), or its start-up
  // load failed.
  static constexpr int invalidObjectCM = 3;
  static constexpr int findingsCM = 4;  // check only: findings in the data or the configuration

  // Writes "nphost: " and the sentence, with a full stop if it has none, and returns `status`.
  static int fail(std::ostream& err, int status, const std::string& sentence) {
    err << "nphost: " << sentence << (sentence.ends_with('.') ? "" : ".") << std::endl;
    return status;
  }
};

}  // namespace Host
