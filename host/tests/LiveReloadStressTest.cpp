// Live reloads against the real nphost process and the real plug-in library: records flow from
// an input that never ends while reloads arrive through the control socket, round after round,
// with fewer and with more lookup threads than processors. Every reload must be answered, the
// records must keep flowing after it, and SIGTERM must end the process within seconds. A lock
// whose sleeping and waking paths live in two binaries, or that lets readers starve a writer,
// hangs here. NP_STRESS_SECONDS (3 by default) sets how long each thread count is run.
#include "NphostProcess.h"

#include <gtest/gtest.h>

#include <poll.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using NphostTest::Nphost;
using NphostTest::SocketClient;

constexpr int reloadsPerRoundCM = 10;
constexpr int recordsCM = 50'000;

std::chrono::seconds stressTime() {
  const char* text = std::getenv("NP_STRESS_SECONDS");
  const int seconds = text != nullptr ? std::atoi(text) : 0;
  return std::chrono::seconds(seconds > 0 ? seconds : 3);
}

// Writes event records to the program's standard input until told to stop; a write that could
// not go on for a while (the program no longer reads) is given up when the test stops.
class Feeder {
public:
  explicit Feeder(int descriptor) : threadM([this, descriptor] { feed(descriptor); }) {}
  ~Feeder() {
    stopM = true;
    threadM.join();
  }
  Feeder(const Feeder&) = delete;
  Feeder& operator=(const Feeder&) = delete;

private:
  void feed(int descriptor) {
    std::string chunk;
    for (int i = 0; i < 2000; ++i)
      chunk += "00493010" + std::to_string(100'000 + (i * 7919) % recordsCM) + ";20240101000000;CALL\n";
    std::size_t done = 0;
    while (!stopM) {
      pollfd wait{descriptor, POLLOUT, 0};
      if (poll(&wait, 1, 50) <= 0) continue;
      if (wait.revents & (POLLERR | POLLHUP)) return;
      const ssize_t n = ::write(descriptor, chunk.data() + done, chunk.size() - done);
      if (n < 0) return;
      done = (done + static_cast<std::size_t>(n)) % chunk.size();
    }
  }

  std::atomic<bool> stopM{false};
  std::thread threadM;
};

// Reads the program's standard output to its end and counts the lines.
class Drain {
public:
  explicit Drain(int descriptor) : threadM([this, descriptor] { drain(descriptor); }) {}
  ~Drain() { threadM.join(); }
  Drain(const Drain&) = delete;
  Drain& operator=(const Drain&) = delete;
  long lines() const { return linesM.load(); }
  // True once `more` lines beyond `seen` have come, false when they did not within `limit`.
  bool grows(long seen, long more, std::chrono::milliseconds limit) const {
    const auto deadline = Clock::now() + limit;
    while (lines() < seen + more) {
      if (Clock::now() > deadline) return false;
      std::this_thread::sleep_for(5ms);
    }
    return true;
  }

private:
  void drain(int descriptor) {
    char buffer[65536];
    for (;;) {
      const ssize_t n = ::read(descriptor, buffer, sizeof buffer);
      if (n <= 0) return;
      long ends = 0;
      for (ssize_t i = 0; i < n; ++i) ends += buffer[i] == '\n';
      linesM += ends;
    }
  }

  std::atomic<long> linesM{0};
  std::thread threadM;
};

class LiveReloadStress : public NphostTest::ProgramFolderTest, public testing::WithParamInterface<unsigned> {
protected:
  void SetUp() override {
    ProgramFolderTest::SetUp();
    std::string data;
    for (int i = 0; i < recordsCM; ++i)
      data += "00493010" + std::to_string(100'000 + i) + "  20200101000000  OP" + std::to_string(i % 300) + "\n";
    writeFile("np.txt", data);
  }

  // One round: starts nphost run, reloads it reloadsPerRoundCM times while records flow, then
  // ends it by SIGTERM. Fails the test (and returns false) at the first thing that goes wrong.
  bool round(unsigned threads, int number) {
    const std::string where = "round " + std::to_string(number) + " with " + std::to_string(threads) + " threads: ";
    Nphost nphost(folderM, {"run", "reg.toml", "--threads", std::to_string(threads), "--control", "np.sock", "--log", "log.txt"});
    bool good = true;
    {
      Drain drain(nphost.outputDescriptor());
      Feeder feeder(nphost.inputDescriptor());
      if (!NphostTest::controlReady(folderM / "np.sock")) {
        ADD_FAILURE() << where << "the control socket never answered; " << nphost.errors();
        good = false;
      }
      SocketClient control(folderM / "np.sock");
      for (int reload = 0; good && reload < reloadsPerRoundCM; ++reload) {
        const std::string answer = control.ask("update Reload ReuseOnFailure=TRUE");
        if (answer != "update result=true taken=true") {
          ADD_FAILURE() << where << "reload " << reload << " was answered '" << answer << "'";
          good = false;
        }
      }
      // The lookups must go on after the last reload: a reader left asleep stops them all.
      if (good && !drain.grows(drain.lines(), 5'000, 30s)) {
        ADD_FAILURE() << where << "records stopped flowing after the reloads";
        good = false;
      }
      nphost.signal(SIGTERM);
      const int status = nphost.waitForExit(20s);
      if (status != 0) {
        ADD_FAILURE() << where << (status < 0 ? "still running 20 s after SIGTERM" : "exit status " + std::to_string(status))
                      << "; " << nphost.errors();
        good = false;
      }
    }
    return good;
  }
};

TEST_P(LiveReloadStress, EveryReloadIsAnsweredAndTheRunEndsOnSigterm) {
  const unsigned threads = GetParam();
  const auto until = Clock::now() + stressTime();
  int rounds = 0;
  do {
    if (!round(threads, rounds + 1)) return;
    ++rounds;
  } while (Clock::now() < until);
  std::cout << rounds << " rounds of " << reloadsPerRoundCM << " live reloads with " << threads
            << " lookup threads passed\n";
}

// Two lookup threads on this project's two processors, and eight: more than there are.
INSTANTIATE_TEST_SUITE_P(LookupThreads, LiveReloadStress, testing::Values(2u, 8u));

}  // namespace
