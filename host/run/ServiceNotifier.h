// Host::ServiceNotifier tells the service manager that started `nphost run` (systemd, through
// the datagram socket NOTIFY_SOCKET names) how the run stands: ready, reloading, stopping, and
// one line of status. Without NOTIFY_SOCKET every call does nothing. RunSession calls it from
// the one thread that drives the run; it is not for several threads at once.
#pragma once

#include <string>

namespace Host {

class ServiceNotifier {
public:
  // Looks once whether a service manager listens; the environment is left as it is.
  ServiceNotifier();

  bool active() const { return activeM; }
  // The start-up load has ended and lookups are served: READY=1 with the first status line.
  void ready(const std::string& status);
  // A status line, sent only when it differs from the last one sent.
  void status(const std::string& status);
  // Around work that the service manager's reload asked for: RELOADING=1 with the monotonic
  // time of its start (which newer managers require), then READY=1 once it has ended.
  void reloading();
  void reloaded();
  // The run is ending: the service manager waits for the exit instead of taking it for a crash.
  void stopping();

private:
  void send(const std::string& message);

  bool activeM = false;
  std::string statusM;  // the last status line sent
};

}  // namespace Host
