// Host::MetricsServer is the HTTP side of `nphost run --metrics`: it answers GET /metrics with
// the text its render function gives (the Prometheus text format) and 404 elsewhere, on a
// listener thread and a pool of two worker threads of the HTTP library. The render function
// must never wait for the plug-in's data operations: a scrape runs beside reloads.
// The run session opens it before the data loads, starts it, and stops it before the plug-in
// goes; those calls and the destructor belong to that one thread.
#pragma once

#include "host/metrics/MetricsAddress.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace Host {

class MetricsServer {
public:
  using Render = std::function<std::string()>;

  // `render` is called on the worker threads, once per scrape.
  explicit MetricsServer(Render render);
  // Stops the threads.
  ~MetricsServer();
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;

  // Binds and listens on `address`; connections wait in the backlog until start(). False with
  // error() as one sentence: a host that is not known, a port in use, an address not of this
  // machine.
  bool open(const MetricsAddress& address);
  // After open(): the address bound, with the port that port 0 took.
  const MetricsAddress& address() const { return addressM; }
  // Serves until stop(); returns once the listener runs. False with error().
  bool start();
  // Closes the listener and joins the threads; a scrape in flight ends within the second that
  // the reads and writes of a connection may wait. Idempotent.
  void stop();
  const std::string& error() const { return errorM; }

private:
  Render renderM;
  std::unique_ptr<httplib::Server> serverM;
  MetricsAddress addressM;
  std::string errorM;
  std::atomic<bool> listenerEndedM{false};  // atomic: set by the listener thread as it ends, read by start()
  std::thread listenerM;
};

}  // namespace Host
