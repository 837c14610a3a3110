// What the library exports, and the construction chain: the event handler question, the probe
// file, and the probes a valid plug-in offers. The entry points themselves are driven as a
// host drives them in boundary/LibraryBoundaryTest.cpp.
#include "plugin/tests/TestEnvironment.h"

#include "BAS/InstrumentationProbeList.h"
#include "BAS/Message.h"

#include <cstdio>
#include <filesystem>
#include <set>
#include <sstream>

namespace {

using NpTest::Strings;
using NpTest::TestEnvironment;

TEST(PlugInLibrary, ExportsExactlyItsEntryPoints) {
  FILE* pipe = ::popen((std::string("nm -D --defined-only '") + NP_PLUGIN_LIBRARY + "' 2>&1").c_str(), "r");
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
  EXPECT_EQ(exported, (std::set<std::string>{"DAT_NumberPortabilityLookup", "DAT_NumberPortabilityModuleStart", "ModuleStartNL"}));
}

// The event handler's name comes from the framework, or from a root that answers the request
// with exactly one value; any other answer is no failure and is not reported.
TEST(PlugInConstruction, EventHandlerNameIsTakenOnlyFromASingleAnswer) {
  struct Row {
    std::optional<Strings> rootAnswer;  // set: the root answers with these values
    bool rootAnswers;
    std::string expected;
  };
  const Row rows[] = {{std::nullopt, true, "FromFramework"}, {Strings{"Custom"}, true, "Custom"},
                      {Strings{"One", "Two"}, true, ""},     {Strings{}, true, ""},
                      {Strings{"Ignored"}, false, ""}};
  for (const Row& row : rows) {
    TestEnvironment env;
    if (!row.rootAnswer) env.framework.setEventHandlerName(BAS::String("FromFramework"));
    std::vector<Strings> requests;  // sender, receiver, id, argument
    if (row.rootAnswer) {
      env.framework.setRootRequestHandler([&requests, &row](BAS::Message& request) {
        requests.push_back({request.sender().str(), request.receiver().str(), request.messageId().str(), request.argument().str()});
        for (const std::string& value : *row.rootAnswer) request.answer().push_back(BAS::String(value));
        return row.rootAnswers;
      });
    }
    env.configureData("");
    EXPECT_TRUE(NpTest::isValid(env.make()));
    EXPECT_EQ(env.plugIn->eventHandlerName(), BAS::String(row.expected)) << row.expected;
    const Strings asked = {"NumberPortability", "Framework", "REQ_EVENTHANDLER_NAME", ""};
    EXPECT_EQ(requests, row.rootAnswer ? std::vector<Strings>{asked} : std::vector<Strings>{});
    EXPECT_EQ(env.sink->records().size(), 1u) << "only the file check is reported";
  }
}

// Without its probe file the plug-in is invalid, and never usable; with it, the group offers
// its three probes whether or not the file describes them, and reading one gives no value.
TEST(PlugInConstruction, ProbeFileDecidesValidityAndTheGroupOffersThreeProbes) {
  for (const bool withFile : {false, true}) {
    SCOPED_TRACE(withFile ? "probe file without the group entry" : "no probe file");
    TestEnvironment env;
    const std::string probeDirectory = env.dir.path("probes");
    std::filesystem::create_directory(probeDirectory);
    if (withFile) NpTest::writeText(probeDirectory + "/DAT_NumberPortability.probe", "[reload]\ndescription = \"reloads\"\n");
    env.framework.setProbeDirectory(BAS::String(probeDirectory));
    env.configureData("");
    NpTest::PlugIn& plugIn = env.make();
    EXPECT_EQ(NpTest::isValid(plugIn), withFile);
    EXPECT_EQ(plugIn.isUsable(), withFile);
    BAS::InstrumentationProbeList groups{nullptr};  // getInstrumentationProbe appends
    plugIn.getInstrumentationProbe(groups);
    ASSERT_EQ(groups.size(), withFile ? 2u : 1u);
    if (!withFile) continue;
    EXPECT_EQ(groups[1]->info().name, BAS::String("numberPortabilityGroup"));
    Strings names;
    for (const BAS::InstrumentationProbeAttribute* attribute : groups[1]->attributes()) {
      names.push_back(attribute->info().name.str() + ":" + attribute->info().description.str());
      BAS::String value("untouched");
      EXPECT_FALSE(attribute->value()->getValue(value, false));
      EXPECT_EQ(value, BAS::String("untouched"));
    }
    EXPECT_EQ(names, (Strings{"reload:reloads", "deltaLoad:", "printData:"}));
  }
}

}  // namespace
