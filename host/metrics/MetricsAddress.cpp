#include "host/metrics/MetricsAddress.h"

#include <charconv>

namespace Host {

namespace {

bool readPort(std::string_view digits, int& port) {
  const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  return !digits.empty() && failure == std::errc() && end == digits.data() + digits.size() && port >= 0 && port <= 65535;
}

}  // namespace

std::optional<MetricsAddress> MetricsAddress::parse(std::string_view text, std::string& error) {
  const std::string quoted = "'" + std::string(text) + "'";
  const std::string examples = "127.0.0.1:9464, [::1]:9464, localhost:9464 or 9464";
  MetricsAddress address;
  std::string_view port = text;
  if (text.starts_with('[')) {
    const std::size_t close = text.find(']');
    if (close == std::string_view::npos || close == 1 || close + 1 >= text.size() || text[close + 1] != ':') {
      error = "--metrics " + quoted + ": write an IPv6 address as [ADDRESS]:PORT, such as [::1]:9464";
      return std::nullopt;
    }
    address.host = std::string(text.substr(1, close - 1));
    port = text.substr(close + 2);
  } else if (const std::size_t colon = text.rfind(':'); colon != std::string_view::npos) {
    if (text.find(':') != colon) {
      error = "--metrics " + quoted + ": write an IPv6 address in brackets, such as [::1]:9464";
      return std::nullopt;
    }
    if (colon == 0) {
      // Every interface would be an address nobody named.
      error = "--metrics " + quoted + ": name the address to listen on (" + examples + ")";
      return std::nullopt;
    }
    address.host = std::string(text.substr(0, colon));
    port = text.substr(colon + 1);
  } else {
    address.host = "127.0.0.1";
  }
  if (!readPort(port, address.port)) {
    error = "--metrics " + quoted + ": the port must be a whole number from 0 to 65535 (" + examples + ")";
    return std::nullopt;
  }
  return address;
}

std::string MetricsAddress::text() const {
  const std::string digits = std::to_string(port);
  return host.find(':') != std::string::npos ? "[" + host + "]:" + digits : host + ":" + digits;
}

}  // namespace Host
