// The shared library's entry points, the construction chain, the event handler question,
// probes, init, shutdown and destruction. The wake-up signal is the framework's binary
// semaphore, tested there.
#include "plugin/tests/TestEnvironment.h"

#include "BAS/Message.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdio>
#include <filesystem>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using DAT::NumberPortability::PlugIn;
using NpTest::StatusLine;
using NpTest::TestEnvironment;
using namespace std::chrono_literals;
using Ids = std::vector<std::string>;

const char* const oneRecord = "030123456 20200101000000 OPA\n";

TEST(PlugInLibrary, ExportsExactlyItsEntryPoints) {
  const std::string command = std::string("nm -D --defined-only '") + NP_PLUGIN_LIBRARY + "' 2>&1";
  FILE* pipe = ::popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string output;
  char buffer[4096];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) output += buffer;
  ASSERT_EQ(::pclose(pipe), 0) << output;
  // Symbols that the linker itself defines in every shared object are not the plug-in's.
  const std::set<std::string> linkerSymbols = {"_init", "_fini", "__bss_start", "_edata", "_end"};
  std::set<std::string> exported;
  std::istringstream lines(output);
  for (std::string address, type, name; lines >> address >> type >> name;) {
    if (linkerSymbols.count(name) == 0) exported.insert(name);
  }
  EXPECT_EQ(exported, (std::set<std::string>{"DAT_NumberPortabilityLookup", "DAT_NumberPortabilityModuleStart", "ModuleStartNL"})) << output;
}

TEST(PlugInLibrary, EntryPointsMakeAValidAndAnInvalidPlugIn) {
  std::unique_ptr<void, int (*)(void*)> library(::dlopen(NP_PLUGIN_LIBRARY, RTLD_NOW | RTLD_LOCAL), ::dlclose);
  ASSERT_NE(library, nullptr) << ::dlerror();
  auto start = reinterpret_cast<PLG::DataPlugIn* (*)(const BAS::String&)>(
      ::dlsym(library.get(), "DAT_NumberPortabilityModuleStart"));
  auto startDefault = reinterpret_cast<PLG::DataPlugIn* (*)()>(::dlsym(library.get(), "ModuleStartNL"));
  ASSERT_TRUE(start != nullptr && startDefault != nullptr);
  {
    TestEnvironment env;
    env.configureData(oneRecord);
    std::unique_ptr<PLG::DataPlugIn> plugIn(start(BAS::String("NumberPortability")));
    ASSERT_NE(plugIn, nullptr);
    EXPECT_TRUE(NpTest::isValid(*plugIn));
    EXPECT_EQ(plugIn->version(), BAS::String("10008"));
    EXPECT_TRUE(plugIn->isUsable());
    // getInstrumentationProbe appends to what the list holds already.
    BAS::InstrumentationProbeList groups{nullptr};
    plugIn->getInstrumentationProbe(groups);
    ASSERT_EQ(groups.size(), 2u);
    ASSERT_NE(groups[1], nullptr);
    EXPECT_EQ(groups[1]->info().name, BAS::String("numberPortabilityGroup"));
    Ids names;
    for (const BAS::InstrumentationProbeAttribute* attribute : groups[1]->attributes()) {
      names.push_back(attribute->info().name.str());
      BAS::String value("untouched");
      EXPECT_FALSE(attribute->value()->getValue(value, false)) << "reading a probe gives no value";
      EXPECT_EQ(value, BAS::String("untouched"));
    }
    EXPECT_EQ(names, (Ids{"reload", "deltaLoad", "printData"}));
    EXPECT_TRUE(plugIn->init());
    EXPECT_EQ(env.argsOf("INF_NUM_NPORT_LOADED"), (std::vector<std::vector<std::string>>{{"1"}}));
    EXPECT_TRUE(plugIn->shutdown());
  }
  {
    TestEnvironment env;
    std::unique_ptr<PLG::DataPlugIn> plugIn(startDefault());
    ASSERT_NE(plugIn, nullptr);
    EXPECT_FALSE(NpTest::isValid(*plugIn));
    EXPECT_FALSE(plugIn->isUsable());
    EXPECT_EQ(NpTest::groupsOffered(*plugIn), 0u);
    EXPECT_FALSE(plugIn->init());
    EXPECT_EQ(env.statuses(),
              (std::vector<StatusLine>{{"ERR_OBJ_NOT_INITIALIZED", 5, {"DAT::NumberPortability::PlugIn"}}}));
  }
}

TEST(PlugInConstruction, EventHandlerNameIsTakenOnlyFromASingleAnswer) {
  struct Row {
    const char* label;
    std::optional<std::string> frameworkHandler;         // setEventHandlerName
    std::optional<std::vector<std::string>> rootAnswer;  // set: the root answers with these values
    bool rootAnswers;
    std::string expected;
  };
  const Row rows[] = {
      {"no event handler configured", std::nullopt, std::nullopt, true, ""},
      {"framework event handler", std::string("EventHandler"), std::nullopt, true, "EventHandler"},
      {"one value", std::nullopt, Ids{"Custom"}, true, "Custom"},
      {"two values", std::nullopt, Ids{"One", "Two"}, true, ""},
      {"no value", std::nullopt, Ids{}, true, ""},
      {"unanswered request with a value", std::nullopt, Ids{"Ignored"}, false, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    TestEnvironment env;
    if (row.frameworkHandler) env.framework.setEventHandlerName(BAS::String(*row.frameworkHandler));
    std::vector<Ids> requests;  // sender, receiver, id, argument
    if (row.rootAnswer) {
      env.framework.setRootRequestHandler([&requests, &row](BAS::Message& request) {
        requests.push_back({request.sender().str(), request.receiver().str(), request.messageId().str(),
                            request.argument().str()});
        for (const std::string& value : *row.rootAnswer) request.answer().push_back(BAS::String(value));
        return row.rootAnswers;
      });
    }
    env.configureData(oneRecord);
    PlugIn& plugIn = env.make();
    EXPECT_TRUE(NpTest::isValid(plugIn));
    EXPECT_EQ(plugIn.eventHandlerName(), BAS::String(row.expected));
    if (row.rootAnswer) {
      EXPECT_EQ(requests, (std::vector<Ids>{{"NumberPortability", "Framework", "REQ_EVENTHANDLER_NAME", ""}}));
    }
    // A missing or odd answer is no failure and is not reported.
    EXPECT_EQ(env.ids(), (Ids{"INF_FILE_OPENED"}));
  }
}

TEST(PlugInConstruction, ProbeFileDecidesValidityNotTheGroupEntry) {
  for (const bool withFile : {false, true}) {
    SCOPED_TRACE(withFile ? "probe file without the group entry" : "no probe file");
    TestEnvironment env;
    env.framework.setEventHandlerName(BAS::String("EventHandler"));
    const std::string probeDirectory = env.path("probes");
    std::filesystem::create_directory(probeDirectory);
    if (withFile) {
      NpTest::writeText(probeDirectory + "/DAT_NumberPortability.probe",
                        "[reload]\ndescription = \"reloads\"\n\n[printData]\ndescription = \"prints\"\n");
    }
    env.framework.setProbeDirectory(BAS::String(probeDirectory));
    env.configureData(oneRecord);
    PlugIn& plugIn = env.make();
    EXPECT_EQ(NpTest::isValid(plugIn), withFile);
    // The file check succeeded either way, yet an invalid object is never usable.
    EXPECT_EQ(env.count("INF_FILE_OPENED"), 1u);
    EXPECT_EQ(plugIn.isUsable(), withFile);
    EXPECT_EQ(plugIn.eventHandlerName(), BAS::String("EventHandler"));
    ASSERT_EQ(NpTest::groupsOffered(plugIn), withFile ? 1u : 0u);
    if (withFile) {
      EXPECT_EQ(plugIn.probeGroup()->find(BAS::String("reload"))->info().description, BAS::String("reloads"));
      EXPECT_EQ(plugIn.probeGroup()->find(BAS::String("printData"))->info().description, BAS::String("prints"));
      EXPECT_NE(plugIn.probeGroup()->find(BAS::String("deltaLoad")), nullptr);
    }
  }
}

TEST(PlugInInit, LoadsTheDataFileAndReportsInOrder) {
  TestEnvironment env;
  std::string content;
  for (int i = 0; i < 1234; ++i) content += "0301" + std::to_string(1000000 + i).substr(1) + " 20200101000000 OP" + std::to_string(i % 7) + "\n";
  const std::string file = env.configureData(content);
  env.make();
  env.sink->clear();
  ASSERT_TRUE(env.init());
  EXPECT_EQ(env.statuses(), (std::vector<StatusLine>{{"INF_LOAD_DATA", 1, {"NumberPortability"}},
                                                     {"INF_FILE_OPENED", 1, {file}},
                                                     {"INF_FILE_EOF", 1, {file}},
                                                     {"INF_NUM_NPORT_LOADED", 1, {"1234"}}}));
  EXPECT_EQ(env.lookup("0049301000000"), "OP0");
  EXPECT_EQ(env.lookup("0049301001233"), "OP" + std::to_string(1233 % 7));
  EXPECT_EQ(env.lookup("0049301001234"), std::nullopt);
}

// A worker that never carried out a request ends on shutdown, takes no later request, and the
// destructor then has no file to close.
TEST(PlugInShutdown, AfterAFailedLoadEndsTheWorkerWhichIgnoresLaterProbeWrites) {
  TestEnvironment env;
  env.framework.setEventHandlerName(BAS::String("EventHandler"));
  const std::string file = env.configureData(oneRecord);
  env.make();
  std::filesystem::remove(file);
  env.sink->clear();
  EXPECT_FALSE(env.init());
  EXPECT_EQ(env.statuses(), (std::vector<StatusLine>{{"INF_LOAD_DATA", 1, {"NumberPortability"}},
                                                     {"ERR_FILE_NOT_FOUND", 4, {file}}}));
  EXPECT_FALSE(env.plugIn->isUsable());
  NpTest::writeText(file, oneRecord);  // a reload would succeed now
  env.sink->clear();
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
  EXPECT_FALSE(NpTest::fileExists(out));
  EXPECT_EQ(env.lookup("004930123456"), std::nullopt);
  EXPECT_TRUE(NpTest::finishesWithin([&] { env.plugIn.reset(); }));
  EXPECT_EQ(env.ids(), Ids{});
}

TEST(PlugInDestruction, ClosesADeltaFileLeftOpenByTheWorker) {
  TestEnvironment env;
  env.configureData(oneRecord);
  env.start();
  const std::string delta = env.writeFile("delta.txt", "030999 20200101000000 OPD\n");
  env.post("deltaLoad", delta);
  ASSERT_TRUE(env.waitFor("EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"));
  env.plugIn->shutdown();
  env.sink->clear();
  env.plugIn.reset();
  EXPECT_EQ(env.statuses(), (std::vector<StatusLine>{{"INF_FILE_CLOSED", 1, {delta}}}));
}

}  // namespace
