// Host::ExitStatus holds the exit statuses of nphost and the one way its run and script
// sessions end early: a sentence on standard error and the status. The start-up, the sessions
// and main use it.
#pragma once

#include <ostream>
#include <string>

namespace Host {

struct ExitStatus {
  static constexpr int doneCM = 0;
  static constexpr int badInputCM = 1;       // command line or registry file
  static constexpr int noLibraryCM = 2;      // plug-in library or entry point
  static constexpr int invalidObjectCM = 3;  // the plug-in object is not valid

  // Writes "nphost: " and the sentence, with a full stop if it has none, and returns `status`.
  static int fail(std::ostream& err, int status, const std::string& sentence) {
    err << "nphost: " << sentence << (sentence.ends_with('.') ? "" : ".") << std::endl;
    return status;
  }
};

}  // namespace Host
