// What the library exports, and the construction chain: the event handler question and the
// probe file. The entry points themselves are driven as a host drives them, and the probes by
// name, in the other tests.
#include "plugin/tests/TestEnvironment.h"

#include "BAS/Message.h"

#include <cstdio>
#include <cstring>
#include <tuple>
#include <set>

namespace {

using NpTest::Strings;
using NpTest::TestEnvironment;

TEST(PlugInLibrary, ExportsExactlyItsEntryPoints) {
  FILE* pipe = ::popen((std::string("nm -D --defined-only --format=just-symbols '") + NP_PLUGIN_LIBRARY + "'").c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  // Symbols that the linker itself defines in every shared object are not the plug-in's.
  std::set<std::string> exported;
  for (char line[4096]; std::fgets(line, sizeof line, pipe) != nullptr;) exported.insert(std::string(line, std::strcspn(line, "\n")));
  ASSERT_EQ(::pclose(pipe), 0);
  for (const char* linkerSymbol : {"_init", "_fini", "__bss_start", "_edata", "_end"}) exported.erase(linkerSymbol);
  const std::set<std::string> entryPoints = {"DAT_NumberPortabilityCheck", "DAT_NumberPortabilityLookup",
                                             "DAT_NumberPortabilityModuleStart", "ModuleStartNL"};
  EXPECT_EQ(exported, entryPoints);
}

// The event handler's name comes from the framework, or from a root that answers the request
// with exactly one value; any other answer is no failure and is not reported.
TEST(PlugInConstruction, EventHandlerNameIsTakenOnlyFromASingleAnswer) {
  const std::tuple<Strings, bool, std::string> rows[] = {
      {{"Custom"}, true, "Custom"}, {{"One", "Two"}, true, ""}, {{}, true, ""}, {{"Ignored"}, false, ""}};
  for (const auto& [answer, answered, expected] : rows) {
    TestEnvironment env;
    Strings asked;
    env.framework.setRootRequestHandler([&, &answer = answer, answered = answered](BAS::Message& request) {
      asked = {request.sender().str(), request.receiver().str(), request.messageId().str(), request.argument().str()};
      for (const std::string& value : answer) request.answer().push_back(BAS::String(value));
      return answered;
    });
    env.configure("");
    EXPECT_TRUE(NpTest::isValid(env.make()));
    EXPECT_EQ(env.plugIn->eventHandlerName(), BAS::String(expected)) << expected;
    EXPECT_EQ(asked, (Strings{"NumberPortability", "Framework", "REQ_EVENTHANDLER_NAME", ""}));
    EXPECT_EQ(env.sink->records().size(), 1u) << "only the file check is reported";
  }
}

// Without its probe file the plug-in is invalid, never usable, and offers no probes.
TEST(PlugInConstruction, WithoutItsProbeFileThePlugInIsInvalid) {
  TestEnvironment env;
  env.framework.setProbeDirectory(BAS::String(env.dir.path().string()));
  env.configure("");
  NpTest::PlugIn& plugIn = env.make();
  EXPECT_FALSE(NpTest::isValid(plugIn) || plugIn.isUsable());
  EXPECT_EQ(plugIn.probeGroup(), nullptr);
  const NpTest::Report noProbeFile{"ERR_PROBE_INFO_FILE", 5, {env.dir.path("DAT_NumberPortability.probe"),
                                                               "it cannot be opened (No such file or directory)"}};
  EXPECT_EQ(env.statuses(), (std::vector<NpTest::Report>{{"INF_FILE_OPENED", 1, {"np.txt"}}, noProbeFile}));
}

}  // namespace
