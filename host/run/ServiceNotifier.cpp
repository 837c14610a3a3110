#include "host/run/ServiceNotifier.h"

#include <systemd/sd-daemon.h>

#include <cstdlib>
#include <ctime>

namespace Host {

ServiceNotifier::ServiceNotifier() {
  const char* socket = std::getenv("NOTIFY_SOCKET");
  activeM = socket != nullptr && *socket != '\0';
}

void ServiceNotifier::ready(const std::string& status) {
  statusM = status;
  send("READY=1\nSTATUS=" + status);
}

void ServiceNotifier::status(const std::string& status) {
  if (status == statusM) return;
  statusM = status;
  send("STATUS=" + status);
}

void ServiceNotifier::reloading() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long long micros = static_cast<long long>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1'000;
  send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(micros));
}

void ServiceNotifier::reloaded() { send("READY=1"); }

void ServiceNotifier::stopping() { send("STOPPING=1"); }

void ServiceNotifier::send(const std::string& message) {
  // A service manager that cannot be told is no reason to stop serving: the result is dropped.
  if (activeM) sd_notify(0, message.c_str());
}

}  // namespace Host
