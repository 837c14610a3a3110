// An operation that an exception cuts short (memory ran out, the operator table is full): it
// passes through the registry update that ran it, or ends the worker, which the log says in
// words; the data in service stays, and later updates work on it. And the plug-in's record
// count for a host never waits for a dump.
#include "cache/LoadOperation.h"
#include "plugin/tests/TestEnvironment.h"
#include "store/OperatorTable.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <future>

namespace {

using DAT::NumberPortability::LoadOperation;
using DAT::NumberPortability::OperatorTable;
using NpTest::Report;
using NpTest::TestEnvironment;

TEST(FailedOperation, PassesThroughTheUpdateOrEndsTheWorkerSaidInWordsAndTheDataInServiceStays) {
  const struct {
    const char* label;
    bool worker;       // a probe's request, else a registry update
    bool reload;       // else a delta load of delta.txt
    long fills;        // tree fills before the failing one; -1: the operator table fills up instead
    const char* cause; // in the worker's report
    std::string answers;
  } rows[] = {
      {"update: reload, first pass", false, true, 0, "", "OLD -"},
      {"update: delta load, after the exchange", false, false, 1, "", "OLD D1"},
      {"worker: reload, the operator table fills up", true, true, -1, "more than 16,777,216 distinct operator identifiers", "OLD -"},
      {"worker: delta load, first pass", true, false, 0, "memory ran out (std::bad_alloc)", "OLD -"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    TestEnvironment env;
    env.configure("030111111 20200101000000 OLD\n");
    env.start();
    NpTest::writeText(row.reload ? "np.txt" : "delta.txt", "030222222 20200101000000 D1\n030333333 20200101000000 D2\n");
    if (row.fills >= 0) LoadOperation::failTreeFillAfterForTesting(row.fills);
    else OperatorTable::setLimitForTesting(1);
    if (row.worker) {
      env.post(row.reload ? "reload" : "deltaLoad", row.reload ? "TRUE" : "delta.txt");
      ASSERT_TRUE(env.waitFor("ERR_THREAD_FAILED"));
      EXPECT_EQ(env.statuses("ERR_THREAD_FAILED"),
                (std::vector<Report>{{"ERR_THREAD_FAILED", 5, {"NumberPortability worker", row.cause}}}));
      EXPECT_FALSE(env.plugIn->workerRunning());
    } else {
      BAS::ProtectedBool taken(false);
      const NpTest::Keys keys = row.reload ? NpTest::Keys{{"Reload", ""}} : NpTest::Keys{{"AdditionalNumPortData", "delta.txt"}};
      EXPECT_THROW(env.update(keys, taken), std::bad_alloc);
      EXPECT_TRUE(env.plugIn->workerRunning());
    }
    LoadOperation::failTreeFillAfterForTesting(-1);
    OperatorTable::setLimitForTesting(0);
    EXPECT_EQ(env.lookup("004930111111") + " " + env.lookup("004930222222"), row.answers);
    const std::uint64_t served = row.answers == "OLD D1" ? 3 : 1;
    EXPECT_EQ(env.plugIn->activeRecords(), served);

    // The next delta load adds to the data in service, and says how much; a reload then works.
    env.sink->clear();
    NpTest::writeText("delta.txt", "030444444 20200101000000 D4\n");
    BAS::ProtectedBool taken(false);
    EXPECT_TRUE(env.update({{"AdditionalNumPortData", "delta.txt"}}, taken));
    EXPECT_EQ(env.statuses("INF_NUM_NPORT_ADDED"), (std::vector<Report>{{"INF_NUM_NPORT_ADDED", 1, {"1"}}}));
    EXPECT_EQ(env.plugIn->activeRecords(), served + 1);
    EXPECT_EQ(env.lookup("004930444444"), "D4");
    EXPECT_TRUE(env.update({{"Reload", ""}}, taken));
    EXPECT_EQ(env.statuses("INF_NUM_NPORT_RELOADED"),
              (std::vector<Report>{{"INF_NUM_NPORT_RELOADED", 1, {std::to_string(served + 1)}}}));
  }
}

// The worker is held inside a print into a FIFO whose buffer nobody reads: the count that a
// host shows, and lookups, must still answer at once.
TEST(FailedOperation, TheRecordCountForAHostAnswersWhileADumpIsStalled) {
  TestEnvironment env;
  std::string records;
  for (int i = 0; i < 3000; ++i) records += "0301" + std::to_string(100000 + i) + " 20200101000000 OPX\n";
  env.configure(records);
  env.start();
  ASSERT_EQ(::mkfifo("dump.fifo", 0600), 0);
  const int readEnd = ::open("dump.fifo", O_RDONLY | O_NONBLOCK);
  env.post("printData", "dump.fifo");
  pollfd readable{readEnd, POLLIN, 0};
  ASSERT_EQ(::poll(&readable, 1, 60'000), 1) << "the print did not start";
  auto count = std::async(std::launch::async, [&] { return env.plugIn->activeRecords(); });
  if (count.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    ADD_FAILURE() << "the count waited for the dump";
    std::_Exit(EXIT_FAILURE);  // the waiting call cannot be taken back
  }
  EXPECT_EQ(count.get(), 3000U);
  EXPECT_EQ(env.lookup("0049301102999"), "OPX");
  EXPECT_EQ(NpTest::readText("dump.fifo").size(), NpTest::dumpBanner.size() + 3000 * 35);
  ::close(readEnd);
  ASSERT_TRUE(env.waitFor("INF_NUM_PORT_PRINT_DATA"));
}

}  // namespace
