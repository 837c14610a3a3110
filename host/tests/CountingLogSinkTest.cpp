#include "host/CountingLogSink.h"

#include <gtest/gtest.h>

#include <thread>

using namespace std::chrono_literals;

namespace {

void writeRecord(Host::CountingLogSink& sink, const char* id) {
  BAS::LogRecord record;
  record.id = id;
  sink.write(record, "line");
}

}  // namespace

TEST(CountingLogSink, CountsPerIdentifierAndWakesWaiters) {
  Host::CountingLogSink sink;
  EXPECT_TRUE(sink.waitFor("INF_NUM_NPORT_ADDED", 0, 0ms));
  EXPECT_FALSE(sink.waitFor("INF_NUM_NPORT_ADDED", 1, 10ms));

  std::thread writer([&] {
    writeRecord(sink, "INF_NUM_NPORT_ADDED");
    writeRecord(sink, "EVT::RELOAD_SUCCESSFUL");
    writeRecord(sink, "INF_NUM_NPORT_ADDED");
  });
  EXPECT_TRUE(sink.waitFor("INF_NUM_NPORT_ADDED", 2, 60s));
  writer.join();

  EXPECT_EQ(sink.count("INF_NUM_NPORT_ADDED"), 2u);
  EXPECT_EQ(sink.count("EVT::RELOAD_SUCCESSFUL"), 1u);
  EXPECT_EQ(sink.count("ERR_FILE_NOT_FOUND"), 0u);
  EXPECT_FALSE(sink.waitFor("EVT::RELOAD_SUCCESSFUL", 2, 10ms));
}
