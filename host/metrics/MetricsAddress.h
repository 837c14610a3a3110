// Host::MetricsAddress is the value of `nphost run --metrics`: where the metrics are served.
// `PORT` alone means the loopback address 127.0.0.1; `HOST:PORT` and `[IPV6]:PORT` name the
// address, any other than a loopback one only when the operator writes it. Port 0 takes a free
// port, which the log's line then names. The command line parses it; a value type.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Host {

struct MetricsAddress {
  std::string host;  // as getaddrinfo takes it: no brackets around an IPv6 address
  int port = 0;

  // The address that `text` names; nullopt with one sentence in `error` when it names none.
  static std::optional<MetricsAddress> parse(std::string_view text, std::string& error);
  // HOST:PORT, with brackets around an IPv6 address.
  std::string text() const;
};

}  // namespace Host
