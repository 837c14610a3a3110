// nphost: loads a data plug-in from a registry file and drives it, in script mode from the
// commands on standard input, in run mode over a stream of event records; or, as ctl, sends one
// command to a running one. See Host::CommandLine for the arguments and Host::ExitStatus for
// the exit statuses.
#include "host/check/CheckSession.h"
#include "host/common/ExitStatus.h"
#include "host/control/ControlClient.h"
#include "host/run/RunSession.h"
#include "host/script/ScriptSession.h"
#include "host/startup/CommandLine.h"
#include "host/startup/HostSession.h"

#include <unistd.h>

#include <exception>
#include <filesystem>
#include <iostream>

namespace {

std::string executableDirectory(const char* argv0) {
  char buffer[4096];
  const ssize_t length = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  const std::string path = length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string(argv0);
  return std::filesystem::path(path).parent_path().string();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Host::CommandLine commandLine;
    if (!commandLine.parse(argc, argv)) {
      std::cout << commandLine.output();
      std::cerr << commandLine.error() << (commandLine.error().empty() ? "" : "\n");
      return commandLine.exitStatus();
    }
    const auto& options = commandLine.options();
    if (options.mode == Host::CommandLine::Options::Mode::CTL) return Host::ControlClient::run(options, std::cout, std::cerr);
    Host::HostSession session(options, executableDirectory(argv[0]));
    if (options.mode == Host::CommandLine::Options::Mode::CHECK)
      return Host::CheckSession(session).run(std::cout, std::cerr, STDERR_FILENO);
    if (options.mode == Host::CommandLine::Options::Mode::RUN) return Host::RunSession(session).run(std::cerr);
    return Host::ScriptSession(session).run(std::cin, std::cout, std::cerr);
  } catch (const std::exception& e) {
    std::cerr << "nphost: stopped by an unexpected failure: " << e.what() << "." << std::endl;
    return Host::ExitStatus::badInputCM;
  }
}
