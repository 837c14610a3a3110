// nphost: loads a data plug-in from a registry file and drives it, in script mode from the
// commands on standard input. See Host::CommandLine for the arguments and Host::HostSession
// for the exit statuses.
#include "host/CommandLine.h"
#include "host/HostSession.h"

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
    Host::HostSession session(commandLine.options(), executableDirectory(argv[0]));
    return session.runScript(std::cin, std::cout, std::cerr);
  } catch (const std::exception& e) {
    std::cerr << "nphost: stopped by an unexpected failure: " << e.what() << "." << std::endl;
    return Host::HostSession::exitBadInputCM;
  }
}
