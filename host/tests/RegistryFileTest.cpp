#include "host/startup/RegistryFile.h"

#include <gtest/gtest.h>

using Host::RegistryFile;

// The text starts with a byte order mark and ends its lines in CR LF, so that the values'
// spelling is cut from the right place of the file.
TEST(RegistryFile, ScalarsBecomeTheirTextTablesNestedEntriesAndTablesWithLibraryInstances) {
  std::string deep = "k";
  for (int i = 0; i < 300; ++i) deep = "a." + deep;
  const std::string text = "\xEF\xBB\xBF[Framework]\r\nEventHandler = \"EventHandler\"\r\nLibrary = \"ignored\"\r\n"
                           "[pipeline.np]\r\nLibrary = \"DAT_NumberPortability\"\r\nSearchMethod = 1\r\n"
                           "ReuseOnFailure = false\r\nMask = 0x1F\r\nRatio = 1e3\r\nSince = 2023-03-01 00:00:00Z\r\n"
                           "\"größe\" = 0o17 # comment\r\nPath = 'C:\\data'\r\nCodes.Country = \"49\"\r\n"
                           "Multi = \"\"\"\ntwo\nlines\"\"\"\r\n[NumberPortability]\r\n"
                           "Library = \"/opt/lib/libDAT_NumberPortability.so\"\r\n[" +
                           deep.substr(0, deep.size() - 2) + "]\nk = 1979-05-27T00:32:00.999999-07:00\n";
  RegistryFile file;
  BAS::RegistryEntry root("root");
  ASSERT_TRUE(file.load(text, "reg.toml", root)) << file.error();
  const std::pair<std::string, std::string> values[] = {
      {"Framework.EventHandler", "EventHandler"}, {"pipeline.np.SearchMethod", "1"},
      {"pipeline.np.ReuseOnFailure", "false"},    {"pipeline.np.Mask", "0x1F"},
      {"pipeline.np.Ratio", "1e3"},               {"pipeline.np.Since", "2023-03-01 00:00:00Z"},
      {"pipeline.np.größe", "0o17"},              {"pipeline.np.Path", "C:\\data"},
      {"pipeline.np.Codes.Country", "49"},        {"pipeline.np.Multi", "two\nlines"},
      {deep, "1979-05-27T00:32:00.999999-07:00"},
  };
  for (const auto& [path, value] : values) {
    const BAS::RegistryEntry* entry = root.findPath(BAS::String(path));
    EXPECT_EQ(entry ? entry->value().str() : "<missing>", value) << path;
  }
  // Children keep the file's order, not the alphabetical one.
  const auto& np = root.findPath("pipeline.np")->children();
  ASSERT_GE(np.size(), 3u);
  EXPECT_EQ(np[0]->name() + "," + np[1]->name() + "," + np[2]->name(), "Library,SearchMethod,ReuseOnFailure");
  EXPECT_EQ(file.lineOf("pipeline.np.Mask"), 8u);
  // Framework's Library is a setting; pipeline and pipeline.np.Codes have none.
  std::string instances;
  for (const auto& instance : file.instances()) instances += instance.name + "=" + instance.library + " ";
  EXPECT_EQ(instances, "pipeline.np=DAT_NumberPortability NumberPortability=/opt/lib/libDAT_NumberPortability.so ");
}

// Each text is refused with its message, or one that starts so when it ends in ": ", and leaves
// the registry empty; the hostile texts among them must not crash the loader.
TEST(RegistryFile, RefusesWhatTheRegistryCannotHoldNamingFileAndLine) {
  const std::string at = "registry file 'reg.toml', line ";
  const std::pair<std::string, std::string> cases[] = {
      {"[NP]\nF = 1\nCodes = [1, 2]\n", at + "3: 'NP.Codes' is an array; a registry value must be a single value"},
      {"[NP]\n\n[[NP.S]]\nN = 1\n", at + "3: 'NP.S' is an array of tables; the registry takes plain tables only"},
      {"[NP]\nCodes = { C = 1 }\n", at + "2: 'NP.Codes' is an inline table; write it as a [NP.Codes] table instead"},
      {"[NP]\n\"a.b\" = 1\n", at + "2: the key 'a.b' contains '.', which separates registry levels"},
      {"[NP]\n\"\" = 1\n", at + "2: an empty key cannot name a registry entry"},
      {"[NP]\nLibrary = 5\n", at + "2: 'NP.Library' must be a quoted text naming the plug-in library"},
      {"[NP.Library]\nName = \"x\"\n", at + "1: 'NP.Library' must be a quoted text naming the plug-in library"},
      {"[NP]\nA = 1\nA = 2\n", at + "3: "},
      {"[NP\nLibrary = \"x\"\n", at + "1: "},
      {"[NP]\nFileName = \"np_data.txt", at + "2: "},
      {"[NP]\nName = \"\xff\xfe\"\n", at + "2: "},
      {"\"ü\" = 0x_1\n", at + "1: "},
      {std::string("a = 1\n\0b = 2\n", 12), at + "2: "},
      {"[NP]\r\nA = 1\r\n\r\nB = \r\n", at + "4: "},
      {std::string(100'000, 'a'), at + "1: "},
      {"x = " + std::string(10'000, '['), at + "1: "},
  };
  for (const auto& [text, message] : cases) {
    RegistryFile file;
    BAS::RegistryEntry root("root");
    EXPECT_FALSE(file.load(text, "reg.toml", root)) << text;
    EXPECT_TRUE(root.children().empty()) << "a refused file added entries";
    EXPECT_EQ(message.ends_with(": ") ? file.error().substr(0, message.size()) : file.error(), message);
  }
}
