// Live reloads against the real nphost process and the real plug-in library: records flow from
// an input that never ends while reloads arrive through the control socket, round after round,
// with fewer and with more lookup threads than processors. Every reload must be answered, the
// records must keep flowing after it, and a termination signal must end the run cleanly, with
// every record it read written. A lock whose sleeping and waking paths live in two binaries, or
// that lets readers starve a writer, hangs here. NP_STRESS_SECONDS (3 by default) sets how long
// each thread count is run.
#include "Nphost.h"
#include "ProgramFolderTest.h"
#include "SocketClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using namespace NphostTest;
using namespace std::string_literals;

class LiveReloadStress : public ProgramFolderTest, public testing::WithParamInterface<std::pair<std::string, int>> {};

TEST_P(LiveReloadStress, EveryReloadIsAnsweredAndASignalEndsTheRunWithEveryReadRecordWritten) {
  const auto [threads, signal] = GetParam();
  std::string data, chunk;
  for (int i = 0; i < 50'000; ++i)
    data += "00493010" + std::to_string(100'000 + i) + "  20200101000000  OP" + std::to_string(i % 300) + "\n";
  for (int i = 0; i < 2'000; ++i) chunk += "00493010" + std::to_string(100'000 + i * 7919 % 50'000) + ";20240101000000;C\n";
  writeFile("np.txt", data);
  const char* seconds = std::getenv("NP_STRESS_SECONDS");
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds ? std::atoi(seconds) : 3);
  for (int round = 1; !HasFailure() && (round == 1 || std::chrono::steady_clock::now() < until); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    Nphost nphost(folderM, {"run", "reg.toml", "--threads", threads, "--control", "np.sock", "--log", "log.txt"});
    std::atomic<bool> stop{false};
    std::atomic<long> lines{0};
    std::jthread feeder([&] { while (!stop) nphost.write(chunk); });  // a cut line at the end is no record
    std::jthread drain([&] {
      for (std::string line; (line = nphost.readLine()) != "<end>" && line != "<no answer>";) ++lines;
    });
    SocketClient control(folderM / "np.sock");
    EXPECT_TRUE(control.connected()) << nphost.errors();
    for (int reload = 0; reload < 10 && control.connected() && !HasFailure(); ++reload)
      EXPECT_EQ(control.ask("update Reload ReuseOnFailure=TRUE"), "update result=true taken=true") << "reload " << reload;
    // The lookups must go on after the last reload: a reader left asleep stops them all.
    const long seen = lines;
    for (int i = 0; i < 6'000 && lines < seen + 5'000; ++i) usleep(5'000);
    EXPECT_GE(lines, seen + 5'000) << "records stopped flowing after the reloads";
    nphost.signal(signal);
    EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
    stop = true;
    drain.join();
    EXPECT_THAT(nphost.errors(), testing::StartsWith(std::to_string(lines) + " records: "));
  }
}

// Two lookup threads on this project's two processors, and eight: more than there are.
INSTANTIATE_TEST_SUITE_P(LookupThreads, LiveReloadStress, testing::Values(std::pair("2"s, SIGTERM), std::pair("8"s, SIGINT)));

}  // namespace
