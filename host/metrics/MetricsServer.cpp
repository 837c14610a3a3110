#include "host/metrics/MetricsServer.h"

#include <httplib.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace Host {

namespace {

// The exposition format's media type, which tells a scraper the text's version.
constexpr const char* contentTypeCM = "text/plain; version=0.0.4; charset=utf-8";
// Bounds every read and write of a connection, so that a client that stops halfway holds up
// the end of the run by no more than this.
constexpr int connectionTimeoutSecondsCM = 1;
constexpr std::size_t workerThreadsCM = 2;

// Only SO_REUSEADDR: the library's default adds SO_REUSEPORT, with which a second process
// would share the port instead of being told that it is taken.
void socketOptions(int descriptor) {
  const int yes = 1;
  setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

// Why binding `address` fails, found by trying it with the same options: the library says only
// that it failed. Empty when this try succeeds.
std::string bindFailure(const MetricsAddress& address) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  const std::string port = std::to_string(address.port);
  if (const int code = getaddrinfo(address.host.c_str(), port.c_str(), &hints, &found); code != 0)
    return std::string("the host is not known: ") + gai_strerror(code);
  int cause = 0;
  for (const addrinfo* at = found; at != nullptr; at = at->ai_next) {
    const int descriptor = socket(at->ai_family, at->ai_socktype | SOCK_CLOEXEC, at->ai_protocol);
    if (descriptor < 0) {
      cause = errno;
      continue;
    }
    socketOptions(descriptor);
    const bool bound = bind(descriptor, at->ai_addr, at->ai_addrlen) == 0;
    cause = errno;
    close(descriptor);
    if (bound) {
      freeaddrinfo(found);
      return {};
    }
  }
  freeaddrinfo(found);
  return std::strerror(cause);
}

}  // namespace

MetricsServer::MetricsServer(Render render) : renderM(std::move(render)) {}

MetricsServer::~MetricsServer() { stop(); }

bool MetricsServer::open(const MetricsAddress& address) {
  addressM = address;
  serverM = std::make_unique<httplib::Server>();
  httplib::Server& server = *serverM;
  server.new_task_queue = [] { return new httplib::ThreadPool(workerThreadsCM); };
  server.set_socket_options(socketOptions);
  server.set_read_timeout(connectionTimeoutSecondsCM, 0);
  server.set_write_timeout(connectionTimeoutSecondsCM, 0);
  server.set_keep_alive_timeout(connectionTimeoutSecondsCM);
  server.set_payload_max_length(64 * 1024);
  server.Get("/metrics", [this](const httplib::Request&, httplib::Response& response) {
    response.set_content(renderM(), contentTypeCM);
  });
  const bool bound = address.port == 0 ? (addressM.port = server.bind_to_any_port(address.host)) > 0
                                       : server.bind_to_port(address.host, address.port);
  if (bound) return true;
  const std::string cause = bindFailure(address);
  errorM = "cannot serve metrics at '" + address.text() + "': " + (cause.empty() ? "the address cannot be bound" : cause);
  serverM.reset();
  return false;
}

bool MetricsServer::start() {
  if (serverM == nullptr) return false;
  try {
    listenerM = std::thread([this] {
      serverM->listen_after_bind();
      listenerEndedM.store(true);
    });
  } catch (const std::system_error& failure) {
    errorM = std::string("cannot start the metrics thread: ") + failure.what();
    return false;
  }
  // A stop before the listener runs would find nothing to stop and leave it running.
  while (!serverM->is_running() && !listenerEndedM.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return true;
}

void MetricsServer::stop() {
  if (!listenerM.joinable()) return;
  serverM->stop();
  listenerM.join();
}

}  // namespace Host
