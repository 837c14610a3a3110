#include "host/startup/RegistryFile.h"

#include <gtest/gtest.h>

using Host::RegistryFile;

namespace {

std::string valueAt(const BAS::RegistryEntry& root, const char* path) {
  const BAS::RegistryEntry* entry = root.findPath(path);
  return entry ? entry->value().str() : "<missing>";
}

// Loads a text that must be refused; the registry must stay empty and the message is returned.
std::string refusal(std::string_view text) {
  RegistryFile file;
  BAS::RegistryEntry root("root");
  EXPECT_FALSE(file.load(text, "reg.toml", root)) << text;
  EXPECT_TRUE(root.children().empty()) << "a refused file added entries";
  return file.error();
}

}  // namespace

TEST(RegistryFile, ScalarsBecomeTheirTextTablesNestedEntriesAndTablesWithLibraryInstances) {
  const std::string text = "[Framework]\n"
                           "EventHandler = \"EventHandler\"\n"
                           "Library = \"ignored\"\n"
                           "[pipeline.np]\n"
                           "Library = \"DAT_NumberPortability\"\n"
                           "SearchMethod = 1\n"
                           "ReuseOnFailure = false\n"
                           "Mask = 0x1F\n"
                           "Ratio = 1e3\n"
                           "Since = 2023-03-01 00:00:00Z\n"
                           "\"größe\" = -7\n"
                           "Path = 'C:\\data'\n"
                           "Codes.Country = \"49\"\n"
                           "[NumberPortability]\n"
                           "Library = \"/opt/lib/libDAT_NumberPortability.so\"\n";
  RegistryFile file;
  BAS::RegistryEntry root("root");
  ASSERT_TRUE(file.load(text, "reg.toml", root)) << file.error();

  EXPECT_EQ(valueAt(root, "Framework.EventHandler"), "EventHandler");
  EXPECT_EQ(valueAt(root, "pipeline.np.SearchMethod"), "1");
  EXPECT_EQ(valueAt(root, "pipeline.np.ReuseOnFailure"), "false");
  EXPECT_EQ(valueAt(root, "pipeline.np.Mask"), "0x1F");
  EXPECT_EQ(valueAt(root, "pipeline.np.Ratio"), "1e3");
  EXPECT_EQ(valueAt(root, "pipeline.np.Since"), "2023-03-01 00:00:00Z");
  EXPECT_EQ(valueAt(root, "pipeline.np.größe"), "-7");
  EXPECT_EQ(valueAt(root, "pipeline.np.Path"), "C:\\data");
  EXPECT_EQ(valueAt(root, "pipeline.np.Codes.Country"), "49");

  // Children keep the file's order, not the alphabetical one.
  const auto& np = root.findPath("pipeline.np")->children();
  ASSERT_GE(np.size(), 3u);
  EXPECT_EQ(np[0]->name(), "Library");
  EXPECT_EQ(np[1]->name(), "SearchMethod");
  EXPECT_EQ(np[2]->name(), "ReuseOnFailure");

  EXPECT_EQ(file.lineOf("pipeline.np.Mask"), 8u);
  EXPECT_EQ(file.lineOf("pipeline.np"), 4u);
  EXPECT_EQ(file.lineOf("pipeline.nothing"), 0u);

  // Framework's Library is a setting; pipeline and pipeline.np.Codes have none.
  ASSERT_EQ(file.instances().size(), 2u);
  EXPECT_EQ(file.instances()[0].name, "pipeline.np");
  EXPECT_EQ(file.instances()[0].library, "DAT_NumberPortability");
  EXPECT_EQ(file.instances()[0].line, 4u);
  EXPECT_EQ(file.instances()[1].name, "NumberPortability");
  EXPECT_EQ(file.instances()[1].library, "/opt/lib/libDAT_NumberPortability.so");
}

TEST(RegistryFile, RefusesWhatTheRegistryCannotHoldNamingFileAndLine) {
  EXPECT_EQ(refusal("[NP]\nFileName = \"x\"\nCodes = [1, 2]\n"),
            "registry file 'reg.toml', line 3: 'NP.Codes' is an array; a registry value must be a single value");
  EXPECT_EQ(refusal("[NP]\n\n[[NP.Stage]]\nName = \"a\"\n"),
            "registry file 'reg.toml', line 3: 'NP.Stage' is an array of tables; the registry takes plain tables only");
  EXPECT_EQ(refusal("[NP]\nCodes = { Country = \"49\" }\n"),
            "registry file 'reg.toml', line 2: 'NP.Codes' is an inline table; write it as a [NP.Codes] table instead");
  EXPECT_EQ(refusal("[NP]\n\"a.b\" = 1\n"),
            "registry file 'reg.toml', line 2: the key 'a.b' contains '.', which separates registry levels");
  EXPECT_EQ(refusal("[NP]\n\"\" = 1\n"), "registry file 'reg.toml', line 2: an empty key cannot name a registry entry");
  EXPECT_EQ(refusal("[NP]\nLibrary = 5\n"),
            "registry file 'reg.toml', line 2: 'NP.Library' must be a quoted text naming the plug-in library");
  EXPECT_EQ(refusal("[NP.Library]\nName = \"x\"\n"),
            "registry file 'reg.toml', line 1: 'NP.Library' must be a quoted text naming the plug-in library");

  const std::string syntax = refusal("[NP]\nFileName = \"x\"\nCountryCode = \n");
  EXPECT_EQ(syntax.rfind("registry file 'reg.toml', line 3: ", 0), 0u) << syntax;
  EXPECT_EQ(refusal("[NP]\nA = 1\nA = 2\n").rfind("registry file 'reg.toml', line 3: ", 0), 0u);
}
