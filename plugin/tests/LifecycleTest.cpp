// Construction chain, the event handler question, probes, default construction, init,
// shutdown, destruction and the wake-up signal.
#include "plugin/tests/TestEnvironment.h"

#include "BAS/Message.h"
#include "BAS/MutexLocker.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <vector>

namespace {

using DAT::NumberPortability::PlugIn;
using NpTest::StatusLine;
using NpTest::TestEnvironment;
using namespace std::chrono_literals;
using Args = std::vector<std::vector<std::string>>;

bool isValid(PlugIn& plugIn) {
  BAS::MutexLocker locker(BAS::RegisteredObject::isValidLockerCM);
  return plugIn.isValid();
}

BAS::InstrumentationProbeList offeredGroups(const PlugIn& plugIn) {
  BAS::InstrumentationProbeList groups;
  plugIn.getInstrumentationProbe(groups);
  return groups;
}

// Everything a worker or an update reports when it carries out a request.
const std::vector<std::string> workIds = {
    "INF_NUM_NPORT_RELOADED", "INF_NUM_NPORT_ADDED",     "INF_NUM_PORT_PRINT_DATA",  "ERR_NUM_PORT_RELOAD",
    "ERR_NUM_PORT_DELTALOAD", "ERR_NUM_PORT_PRINT_DATA", "INF_DELETE_OLD_DATA",      "EVT::RELOAD_SUCCESSFUL",
    "EVT::RELOAD_FAILED",     "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL", "EVT::ADD_NUM_PORT_DATA_FAILED"};

std::size_t workReported(const TestEnvironment& env) {
  std::size_t n = 0;
  for (const std::string& id : workIds) n += env.count(id);
  return n;
}

TEST(PlugInConstruction, CompleteConfigurationGivesAUsablePlugInWithProbes) {
  TestEnvironment env;
  env.framework.setEventHandlerName(BAS::String("EventHandler"));
  env.configureData("030123456 20200101000000 OPA\n");
  PlugIn& plugIn = env.make();
  EXPECT_TRUE(isValid(plugIn));
  EXPECT_TRUE(plugIn.isUsable());
  EXPECT_EQ(plugIn.version(), BAS::String("10008"));
  EXPECT_EQ(plugIn.eventHandlerName(), BAS::String("EventHandler"));

  const BAS::InstrumentationProbeList groups = offeredGroups(plugIn);
  ASSERT_EQ(groups.size(), 1u);
  ASSERT_NE(groups[0], nullptr);
  EXPECT_EQ(groups[0]->info().name, BAS::String("numberPortabilityGroup"));
  std::vector<std::string> names;
  for (const BAS::InstrumentationProbeAttribute* attribute : groups[0]->attributes()) {
    names.push_back(attribute->info().name.str());
    // Reading a probe gives no value.
    BAS::String value("untouched");
    EXPECT_FALSE(attribute->value()->getValue(value, false));
    EXPECT_EQ(value, BAS::String("untouched"));
  }
  EXPECT_EQ(names, (std::vector<std::string>{"reload", "deltaLoad", "printData"}));

  // getInstrumentationProbe appends to what the list holds already.
  BAS::InstrumentationProbeList list{nullptr};
  plugIn.getInstrumentationProbe(list);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0], nullptr);
  EXPECT_EQ(list[1], groups[0]);
}

TEST(PlugInConstruction, EventHandlerNameIsTakenOnlyFromASingleAnswer) {
  struct Row {
    const char* label;
    std::optional<std::string> frameworkHandler;         // setEventHandlerName
    std::optional<std::vector<std::string>> rootAnswer;  // set: the root answers with these values
    bool rootAnswers = true;
    std::string expected;
  };
  const Row rows[] = {
      {"no event handler configured", std::nullopt, std::nullopt, true, ""},
      {"framework event handler", std::string("EventHandler"), std::nullopt, true, "EventHandler"},
      {"one value", std::nullopt, std::vector<std::string>{"Custom"}, true, "Custom"},
      {"two values", std::nullopt, std::vector<std::string>{"One", "Two"}, true, ""},
      {"no value", std::nullopt, std::vector<std::string>{}, true, ""},
      {"unanswered request with a value", std::nullopt, std::vector<std::string>{"Ignored"}, false, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    TestEnvironment env;
    if (row.frameworkHandler) env.framework.setEventHandlerName(BAS::String(*row.frameworkHandler));
    std::vector<std::vector<std::string>> requests;  // sender, receiver, id, argument
    if (row.rootAnswer) {
      env.framework.setRootRequestHandler([&requests, &row](BAS::Message& request) {
        requests.push_back({request.sender().str(), request.receiver().str(), request.messageId().str(),
                            request.argument().str()});
        for (const std::string& value : *row.rootAnswer) request.answer().push_back(BAS::String(value));
        return row.rootAnswers;
      });
    }
    env.configureData("030123456 20200101000000 OPA\n");
    PlugIn& plugIn = env.make();
    EXPECT_TRUE(isValid(plugIn));
    EXPECT_TRUE(plugIn.isUsable());
    EXPECT_EQ(plugIn.eventHandlerName(), BAS::String(row.expected));
    if (row.rootAnswer) {
      EXPECT_EQ(requests, (std::vector<std::vector<std::string>>{
                              {"NumberPortability", "Framework", "REQ_EVENTHANDLER_NAME", ""}}));
    }
    // A missing or odd answer is no failure and is not reported.
    EXPECT_EQ(env.ids(), (std::vector<std::string>{"INF_FILE_OPENED"}));
  }
}

TEST(PlugInConstruction, UnreadableProbeFileMakesThePlugInInvalidWithoutProbes) {
  TestEnvironment env;
  env.framework.setEventHandlerName(BAS::String("EventHandler"));
  const std::string emptyProbeDirectory = env.path("no-probes");
  std::filesystem::create_directory(emptyProbeDirectory);
  env.framework.setProbeDirectory(BAS::String(emptyProbeDirectory));
  env.configureData("030123456 20200101000000 OPA\n");
  PlugIn& plugIn = env.make();
  EXPECT_FALSE(isValid(plugIn));
  // The file check succeeded, yet an invalid object is never usable.
  EXPECT_EQ(env.count("INF_FILE_OPENED"), 1u);
  EXPECT_FALSE(plugIn.isUsable());
  EXPECT_EQ(plugIn.eventHandlerName(), BAS::String("EventHandler"));
  EXPECT_EQ(offeredGroups(plugIn).size(), 0u);
  EXPECT_EQ(plugIn.probeGroup(), nullptr);
}

TEST(PlugInConstruction, ProbeFileWithoutTheGroupEntryStillGivesTheProbes) {
  TestEnvironment env;
  const std::string probeDirectory = env.path("probes");
  std::filesystem::create_directory(probeDirectory);
  NpTest::writeText(probeDirectory + "/DAT_NumberPortability.probe",
                    "[reload]\ndescription = \"reloads\"\n\n[printData]\ndescription = \"prints\"\n");
  env.framework.setProbeDirectory(BAS::String(probeDirectory));
  env.configureData("030123456 20200101000000 OPA\n");
  PlugIn& plugIn = env.make();
  EXPECT_TRUE(isValid(plugIn));
  EXPECT_TRUE(plugIn.isUsable());
  const BAS::InstrumentationProbeList groups = offeredGroups(plugIn);
  ASSERT_EQ(groups.size(), 1u);
  ASSERT_EQ(groups[0]->attributes().size(), 3u);
  EXPECT_EQ(groups[0]->attributes()[0]->info().description, BAS::String("reloads"));
  EXPECT_EQ(groups[0]->attributes()[2]->info().description, BAS::String("prints"));

  // The probes work: a print request is carried out.
  ASSERT_TRUE(env.init());
  const std::string out = env.path("dump.txt");
  groups[0]->attributes()[2]->value()->setValue(BAS::String(out));
  ASSERT_TRUE(env.waitFor("INF_NUM_PORT_PRINT_DATA"));
  EXPECT_EQ(NpTest::readText(out), NpTest::dumpBanner + "004930123456  20200101000000  OPA\n");
}

TEST(PlugInConstruction, DefaultConstructionReportsAndStaysInvalid) {
  TestEnvironment env;
  PlugIn plugIn;
  EXPECT_EQ(NpTest::statusLines(*env.sink, {"ERR_OBJ_NOT_INITIALIZED"}),
            (std::vector<StatusLine>{{"ERR_OBJ_NOT_INITIALIZED", 5, {"DAT::NumberPortability::PlugIn"}}}));
  EXPECT_EQ(env.ids(), (std::vector<std::string>{"ERR_OBJ_NOT_INITIALIZED"}));
  EXPECT_FALSE(isValid(plugIn));
  EXPECT_FALSE(plugIn.isUsable());
  EXPECT_EQ(plugIn.cacheManager(), nullptr);
  EXPECT_EQ(offeredGroups(plugIn).size(), 0u);
  EXPECT_FALSE(plugIn.init());
  DAT::NumberPortability::NumberPortabilityData record;
  EXPECT_FALSE(plugIn.search(BAS::String("004930123456"), NpTest::at("20230101000000"), record));
}

TEST(PlugInInit, LoadsTheDataFileAndReportsInOrder) {
  TestEnvironment env;
  std::string content;
  for (int i = 0; i < 1234; ++i) {
    char line[64];
    std::snprintf(line, sizeof line, "0301%06d 20200101000000 OP%d\n", i, i % 7);
    content += line;
  }
  const std::string file = env.configureData(content);
  env.make();
  env.sink->clear();
  ASSERT_TRUE(env.init());
  EXPECT_EQ(env.ids(), (std::vector<std::string>{"INF_LOAD_DATA", "INF_FILE_OPENED", "INF_FILE_EOF",
                                                 "INF_NUM_NPORT_LOADED"}));
  EXPECT_EQ(NpTest::statusLines(*env.sink, {"INF_LOAD_DATA", "INF_FILE_OPENED", "INF_FILE_EOF", "INF_NUM_NPORT_LOADED"}),
            (std::vector<StatusLine>{{"INF_LOAD_DATA", 1, {"NumberPortability"}},
                                     {"INF_FILE_OPENED", 1, {file}},
                                     {"INF_FILE_EOF", 1, {file}},
                                     {"INF_NUM_NPORT_LOADED", 1, {"1234"}}}));
  EXPECT_EQ(env.lookup("0049301000000"), "OP0");
  EXPECT_EQ(env.lookup("0049301001233"), "OP" + std::to_string(1233 % 7));
  EXPECT_EQ(env.lookup("0049301001234"), std::nullopt);
}

TEST(PlugInInit, FailedLoadReturnsFalseAndShutdownStillEndsTheWorker) {
  TestEnvironment env;
  const std::string file = env.configureData("030123456 20200101000000 OPA\n");
  env.make();
  std::filesystem::remove(file);
  env.sink->clear();
  EXPECT_FALSE(env.init());
  EXPECT_EQ(NpTest::statusLines(*env.sink, {"INF_LOAD_DATA", "ERR_FILE_NOT_FOUND", "INF_NUM_NPORT_LOADED"}),
            (std::vector<StatusLine>{{"INF_LOAD_DATA", 1, {"NumberPortability"}}, {"ERR_FILE_NOT_FOUND", 4, {file}}}));
  EXPECT_FALSE(env.plugIn->isUsable());
  bool result = false;
  EXPECT_TRUE(NpTest::finishesWithin([&] {
    result = env.plugIn->shutdown();
    env.plugIn.reset();
  }));
  EXPECT_TRUE(result);
}

TEST(PlugInShutdown, EndsTheWorkerWithoutWorkAndIgnoresLaterProbeWrites) {
  TestEnvironment env;
  env.framework.setEventHandlerName(BAS::String("EventHandler"));
  env.configureData("030123456 20200101000000 OPA\n");
  env.start();
  BAS::InstrumentationProbeValueIf* reload = env.probe("reload");
  BAS::InstrumentationProbeValueIf* delta = env.probe("deltaLoad");
  BAS::InstrumentationProbeValueIf* print = env.probe("printData");
  ASSERT_TRUE(reload && delta && print);
  bool result = false;
  EXPECT_TRUE(NpTest::finishesWithin([&] { result = env.plugIn->shutdown(); }));
  EXPECT_TRUE(result);

  const std::string out = env.path("after-shutdown.txt");
  EXPECT_TRUE(print->setValue(BAS::String(out)));
  EXPECT_TRUE(reload->setValue(BAS::String("TRUE")));
  EXPECT_TRUE(delta->setValue(BAS::String(env.writeFile("delta.txt", "0301 20200101000000 X\n"))));
  // The worker has ended; give a wrongly running one a moment to show itself.
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(workReported(env), 0u);
  EXPECT_FALSE(NpTest::fileExists(out));
  EXPECT_EQ(env.lookup("0049301"), std::nullopt);

  EXPECT_TRUE(NpTest::finishesWithin([&] { env.plugIn.reset(); }));
}

TEST(PlugInDestruction, ClosesADeltaFileLeftOpenByTheWorker) {
  TestEnvironment env;
  env.configureData("030123456 20200101000000 OPA\n");
  env.start();
  const std::string delta = env.writeFile("delta.txt", "030999 20200101000000 OPD\n");
  env.post("deltaLoad", delta);
  ASSERT_TRUE(env.waitFor("EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"));
  env.plugIn->shutdown();
  env.sink->clear();
  env.plugIn.reset();
  EXPECT_EQ(NpTest::statusLines(*env.sink, {"INF_FILE_CLOSED"}),
            (std::vector<StatusLine>{{"INF_FILE_CLOSED", 1, {delta}}}));
}

TEST(PlugInDestruction, ReportsNothingWhenNoFileIsOpen) {
  TestEnvironment env;
  env.configureData("030123456 20200101000000 OPA\n");
  env.start();
  env.plugIn->shutdown();
  env.sink->clear();
  env.plugIn.reset();
  EXPECT_EQ(env.ids(), std::vector<std::string>{});
}

// The wake-up signal of a plug-in that has no worker yet, so that the test is the only taker.
class WakeUpSignal : public testing::Test {
protected:
  void SetUp() override {
    env.configureData("");
    env.make();
  }
  // Starts a lock() on another thread.
  std::future<void> lockAsync() {
    return std::async(std::launch::async, [this] { env.plugIn->lock(); });
  }
  static bool returned(std::future<void>& f, std::chrono::milliseconds within) {
    return f.wait_for(within) == std::future_status::ready;
  }

  TestEnvironment env;
};

TEST_F(WakeUpSignal, FreshSignalIsTakenAtOnceAndASecondTakeWaitsForAGive) {
  auto first = lockAsync();
  ASSERT_TRUE(returned(first, 10s));
  auto second = lockAsync();
  EXPECT_FALSE(returned(second, 200ms));
  env.plugIn->unLock();
  EXPECT_TRUE(returned(second, 10s));
}

TEST_F(WakeUpSignal, SeveralGivesCountAsOne) {
  auto first = lockAsync();
  ASSERT_TRUE(returned(first, 10s));
  env.plugIn->unLock();
  env.plugIn->unLock();
  auto second = lockAsync();
  EXPECT_TRUE(returned(second, 10s));
  auto third = lockAsync();
  EXPECT_FALSE(returned(third, 200ms));
  env.plugIn->unLock();
  EXPECT_TRUE(returned(third, 10s));
}

TEST_F(WakeUpSignal, GivingAFreeSignalChangesNothing) {
  env.plugIn->unLock();
  auto first = lockAsync();
  ASSERT_TRUE(returned(first, 10s));
  auto second = lockAsync();
  EXPECT_FALSE(returned(second, 200ms));
  env.plugIn->unLock();
  EXPECT_TRUE(returned(second, 10s));
}

}  // namespace
