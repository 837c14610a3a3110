// A raw client of nphost's control socket for the program tests: it sends bytes as they are, so
// the tests can send what a well-behaved client never would.
#pragma once

#include "ProcessText.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace NphostTest {

// A raw client of a control socket; it retries for half a minute while the program starts.
class SocketClient {
public:
  explicit SocketClient(const fs::path& path) {
    sockaddr_un where{AF_UNIX, {}};
    std::strncpy(where.sun_path, path.c_str(), sizeof(where.sun_path) - 1);
    for (int i = 0; i < 1500 && descriptorM < 0; ++i) {
      descriptorM = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (connect(descriptorM, reinterpret_cast<const sockaddr*>(&where), sizeof(where)) == 0) break;
      close(std::exchange(descriptorM, -1));
      usleep(20'000);
    }
  }
  ~SocketClient() { close(descriptorM); }
  bool connected() const { return descriptorM >= 0; }
  void send(const std::string& bytes) const { writeAll(descriptorM, bytes); }
  std::string readLine() { return nextLine(descriptorM, bufferM); }
  std::string ask(const std::string& line) {
    send(line + "\n");
    return readLine();
  }

private:
  int descriptorM = -1;
  std::string bufferM;
};

}  // namespace NphostTest
