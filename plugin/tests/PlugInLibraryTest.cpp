// The shared library as the framework uses it: loaded with dlopen, objects made through its
// two C entry points, nothing else visible.
#include "plugin/tests/TestEnvironment.h"

#include "BAS/MutexLocker.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <typeinfo>

namespace {

using NpTest::StatusLine;
using NpTest::TestEnvironment;

using ModuleStart = PLG::DataPlugIn* (*)(const BAS::String&);
using ModuleStartDefault = PLG::DataPlugIn* (*)();

struct LibraryCloser {
  void operator()(void* handle) const {
    if (handle != nullptr) ::dlclose(handle);
  }
};
using Library = std::unique_ptr<void, LibraryCloser>;

Library openPlugInLibrary() { return Library(::dlopen(NP_PLUGIN_LIBRARY, RTLD_NOW | RTLD_LOCAL)); }

bool isValid(BAS::RegisteredObject& object) {
  BAS::MutexLocker locker(BAS::RegisteredObject::isValidLockerCM);
  return object.isValid();
}

TEST(PlugInLibrary, ExportsExactlyTheTwoEntryPoints) {
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
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string address, type, name;
    if (!(fields >> address >> type >> name)) continue;
    if (linkerSymbols.count(name) == 0) exported.insert(name);
  }
  EXPECT_EQ(exported, (std::set<std::string>{"DAT_NumberPortabilityModuleStart", "ModuleStartNL"})) << output;
}

TEST(PlugInLibrary, EntryPointsAreFoundAndMembersAreNot) {
  Library library = openPlugInLibrary();
  ASSERT_NE(library, nullptr) << ::dlerror();
  EXPECT_NE(::dlsym(library.get(), "DAT_NumberPortabilityModuleStart"), nullptr);
  EXPECT_NE(::dlsym(library.get(), "ModuleStartNL"), nullptr);
  // Mangled names built from the class's own type name ("N3DAT...6PlugInE").
  const std::string type = typeid(DAT::NumberPortability::PlugIn).name();
  ASSERT_EQ(type.back(), 'E') << type;
  const std::string scope = type.substr(0, type.size() - 1);
  for (const std::string& member : {"_Z" + scope + "4initEv", "_Z" + scope + "C1Ev", "_Z" + scope + "D0Ev",
                                    "_ZTV" + type, "_ZTI" + type}) {
    EXPECT_EQ(::dlsym(library.get(), member.c_str()), nullptr) << member;
  }
}

TEST(PlugInLibrary, ModuleStartMakesAValidUsablePlugIn) {
  Library library = openPlugInLibrary();
  ASSERT_NE(library, nullptr) << ::dlerror();
  auto start = reinterpret_cast<ModuleStart>(::dlsym(library.get(), "DAT_NumberPortabilityModuleStart"));
  ASSERT_NE(start, nullptr);
  {
    TestEnvironment env;
    env.framework.setEventHandlerName(BAS::String("EventHandler"));
    env.configureData("030123456 20200101000000 OPA\n");
    std::unique_ptr<PLG::DataPlugIn> plugIn(start(BAS::String("NumberPortability")));
    ASSERT_NE(plugIn, nullptr);
    EXPECT_TRUE(isValid(*plugIn));
    EXPECT_EQ(plugIn->version(), BAS::String("10008"));
    EXPECT_TRUE(plugIn->isUsable());
    BAS::InstrumentationProbeList groups;
    plugIn->getInstrumentationProbe(groups);
    EXPECT_EQ(groups.size(), 1u);
    EXPECT_TRUE(plugIn->init());
    EXPECT_EQ(env.argsOf("INF_NUM_NPORT_LOADED"), (std::vector<std::vector<std::string>>{{"1"}}));
    EXPECT_TRUE(plugIn->shutdown());
  }
}

TEST(PlugInLibrary, ModuleStartNLMakesAnInvalidPlugIn) {
  Library library = openPlugInLibrary();
  ASSERT_NE(library, nullptr) << ::dlerror();
  auto start = reinterpret_cast<ModuleStartDefault>(::dlsym(library.get(), "ModuleStartNL"));
  ASSERT_NE(start, nullptr);
  {
    TestEnvironment env;
    std::unique_ptr<PLG::DataPlugIn> plugIn(start());
    ASSERT_NE(plugIn, nullptr);
    EXPECT_FALSE(isValid(*plugIn));
    EXPECT_FALSE(plugIn->isUsable());
    EXPECT_EQ(NpTest::statusLines(*env.sink, {"ERR_OBJ_NOT_INITIALIZED"}),
              (std::vector<StatusLine>{{"ERR_OBJ_NOT_INITIALIZED", 5, {"DAT::NumberPortability::PlugIn"}}}));
  }
}

}  // namespace
