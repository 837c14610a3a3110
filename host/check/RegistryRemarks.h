// Host::RegistryRemarks places the plug-in library's remarks on the keys of an instance's
// registry table at their line of the registry file ("FILE:LINE: PATH TEXT"). CheckSession
// prints them; the start-up of run and script logs them as messages of the object "nphost" and
// goes on. One thread.
#pragma once

#include "BAS/String.h"
#include "plugin/DataFileCheckListener.h"

#include <optional>
#include <string>

namespace Host {

class HostSession;

class RegistryRemarks {
public:
  using Weight = DAT::NumberPortability::DataFileCheckListener::Weight;

  // A finding: a key the plug-in ignores or a value it takes otherwise than meant. Severity 5,
  // the log's severity of configuration; arguments: registry file, line, key path, the remark.
  static constexpr const char* findingIdCM = "ERR_NPHOST_CONFIGURATION";
  // A note: legitimate, worth knowing. Severity 1; the same arguments.
  static constexpr const char* noteIdCM = "INF_NPHOST_CONFIGURATION";

  struct Remark {
    Weight weight = Weight::FINDING;
    std::string registryFile;
    unsigned line = 0;  // 0 when the registry file does not hold the key
    std::string path;   // the instance's name, "." and the key
    std::string text;   // the rest of the sentence whose subject is `path`
  };

  // The library's remark on `key` of the chosen instance's table, placed in the registry file
  // that `session` read; nothing for the key that nphost reads itself (Library).
  static std::optional<Remark> place(const HostSession& session, const BAS::String& key, Weight weight,
                                     const BAS::String& text);
  // "FILE:LINE: PATH TEXT", a note with "note: " before the path.
  static std::string sentence(const Remark& remark);
  // After HostSession::openLibrary with its log: has the library judge the chosen instance's
  // table and logs each remark. A library without the check entry point makes none.
  static void log(HostSession& session);
};

}  // namespace Host
