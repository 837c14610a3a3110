#include "host/control/ControlVerb.h"

#include "host/control/ControlClient.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <ostream>

namespace Host {

namespace {

// Where the client finds a file that nphost names `name`: nphost takes a relative name in its
// own working folder, which the kernel shows under /proc for the process on the socket. Empty
// when that process is not known.
std::string asNphostSees(const std::string& name, pid_t server) {
  if (name.starts_with('/')) return name;
  if (server <= 0) return {};
  return "/proc/" + std::to_string(server) + "/cwd/" + name;
}

}  // namespace

int ControlVerb::run(const std::string& socket, const std::vector<std::string>& words, std::ostream& out,
                     std::ostream& err) {
  const std::string& verb = words.front();
  const bool reuse = words.size() == 2 && words[1] == "--reuse";
  const bool wellFormed = verb == "reload" ? words.size() == 1 || reuse : words.size() == 2 && !words[1].empty();
  if (!wellFormed) {
    err << "nphost: usage: nphost ctl SOCKET " << (verb == "reload" ? "reload [--reuse]" : verb + " FILE") << "."
        << std::endl;
    return 1;
  }
  // Each update is synchronous: its events and messages are logged before it answers, so an
  // "after" with no time to wait tells whether the log saw what the answer does not say (a print
  // answers true whatever became of the file).
  std::vector<std::string> update;
  if (verb == "reload") {
    // Without reuse first, also for --reuse: with reuse the plug-in answers true, and logs the
    // reload's success, for an empty file or a rejected last line too; only a reload without
    // reuse tells such a file from a good one, and it leaves the old data serving meanwhile.
    update = {"update", "Reload", "ReuseOnFailure=FALSE"};
  } else if (verb == "delta") {
    update = {"update", "AdditionalNumPortData=" + words[1]};
  } else {
    update = {"after", "ERR_FILE_NOT_WRITTEN", "0", "update", "PrintData=" + words[1]};
  }

  ControlClient client;
  if (!client.connect(socket)) {
    err << "nphost: " << client.error() << std::endl;
    return 1;
  }
  std::string printed;  // print: the file as this client reaches it
  if (verb == "print") {
    printed = asNphostSees(words[1], client.server());
    if (printed.empty()) {
      err << "nphost: the process behind '" << socket << "' is not known, so its working folder, where the print file '"
          << words[1] << "' would be, is not either; give the file's full path." << std::endl;
      return 1;
    }
    // Only a regular file can be read back; the dump into anything else is for `update
    // PrintData=` to send.
    struct stat status {};
    if (::stat(printed.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
      err << "nphost: the print file '" << words[1]
          << "' is not a regular file, so the dump could not be read back from it; name a regular file." << std::endl;
      return 1;
    }
  }

  if (!client.ask(update, update.front() == "after" ? 2 : 1, updateTimeoutMsCM)) {
    err << "nphost: " << client.error() << std::endl;
    return 1;
  }
  std::string reason = reasonOf(verb, client.answers());
  if (reason.empty() && verb == "print") reason = notADump(printed, words[1]);
  if (!reason.empty() && reuse && !client.answers().front().starts_with("error")) {
    // The file did not reload as a good one; the operator asked for what it holds all the same.
    if (!client.ask({"after", "EVT::RELOAD_SUCCESSFUL", "0", "update", "Reload", "ReuseOnFailure=TRUE"}, 2,
                    updateTimeoutMsCM)) {
      out << verb << " failed: " << reason << std::endl;
      err << "nphost: " << client.error() << std::endl;
      return 1;
    }
    const auto& again = client.answers();
    reason += "; with --reuse reloaded all the same: " + again.front();
    if (again.size() == 2 && again[1].ends_with(" failed")) reason += "; EVT::RELOAD_FAILED was logged";
  }
  const std::string verdict = reason.empty() ? verb + " ok" : verb + " failed: " + reason;
  out << verdict << std::endl;

  if (!client.ask({"status"})) {
    err << "nphost: " << client.error() << std::endl;
    return 1;
  }
  const std::string& status = client.answers().front();
  out << status << std::endl;
  return reason.empty() && !ControlClient::isFailure(status) ? 0 : 1;
}

std::string ControlVerb::reasonOf(const std::string& verb, const std::vector<std::string>& answers) {
  const std::string& answer = answers.front();
  if (ControlClient::isFailure(answer)) {
    if (answer.find(" saved=false") != std::string::npos)
      return answer + "; the delta serves, but the data file does not hold it";
    return answer;
  }
  // A print's wait is for the message of a file not written: ok means it came.
  if (verb == "print" && answers.size() == 2 && answers[1].ends_with(" ok"))
    return answer + "; ERR_FILE_NOT_WRITTEN was logged (the log says why)";
  return {};
}

std::string ControlVerb::notADump(const std::string& path, const std::string& name) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return "the print file '" + name + "' cannot be read: " + std::strerror(errno);
  std::string begins(dumpBannerCM.size(), '\0');
  file.read(begins.data(), static_cast<std::streamsize>(begins.size()));
  begins.resize(static_cast<std::size_t>(file.gcount()));
  if (begins != dumpBannerCM) return "the print file '" + name + "' does not begin with the dump's banner";
  return {};
}

}  // namespace Host
