// Start-up configuration from the plug-in's registry subtree and the data file check: the
// outcome of each key, the message that a bad configuration gives, and which later steps a
// failure skips.
#include "plugin/tests/TestEnvironment.h"

#include "BAS/MutexLocker.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace {

using DAT::NumberPortability::PlugIn;
using NpTest::StatusLine;
using NpTest::TestEnvironment;
using Args = std::vector<std::vector<std::string>>;

bool isValid(PlugIn& plugIn) {
  BAS::MutexLocker locker(BAS::RegisteredObject::isValidLockerCM);
  return plugIn.isValid();
}

std::size_t probeGroupsOffered(const PlugIn& plugIn) {
  BAS::InstrumentationProbeList groups;
  plugIn.getInstrumentationProbe(groups);
  return groups.size();
}

std::string normalized(PlugIn& plugIn, const std::string& number) {
  BAS::String text(number);
  plugIn.cacheManager()->normalize(text);
  return text.str();
}

TEST(ReadRegistry, MandatoryKeysAloneGiveTheDefaults) {
  TestEnvironment env;
  const std::string file = env.configureData("030123456 20200101000000 OPA\n");
  PlugIn& plugIn = env.make();
  EXPECT_TRUE(isValid(plugIn));
  EXPECT_TRUE(plugIn.isUsable());
  EXPECT_EQ(plugIn.searchMethod(), 0u);
  EXPECT_EQ(plugIn.fileName(), BAS::String(file));
  // International access code "00" and its sign "+" by default.
  EXPECT_EQ(normalized(plugIn, "+4930123456"), "004930123456");
  EXPECT_EQ(normalized(plugIn, "004930123456"), "004930123456");
  EXPECT_EQ(normalized(plugIn, "030123456"), "004930123456");
  // The only message of a good construction is the file check's.
  EXPECT_EQ(NpTest::statusLines(*env.sink, {"INF_FILE_OPENED"}),
            (std::vector<StatusLine>{{"INF_FILE_OPENED", 1, {file}}}));
  EXPECT_EQ(env.ids(), (std::vector<std::string>{"INF_FILE_OPENED"}));
}

TEST(ReadRegistry, OptionalCodesAreTakenAsConfiguredEvenWhenEmpty) {
  TestEnvironment env;
  const std::string file = env.writeFile("np.txt", "");
  BAS::RegistryEntry& entry = env.configure(file, "36", "06");
  entry.add("InternationalAccessCode", "");
  entry.add("InternationalAccessCodeSign", "#");
  PlugIn& plugIn = env.make();
  EXPECT_TRUE(isValid(plugIn));
  // An empty international access code begins every number, so nothing is put in front.
  EXPECT_EQ(normalized(plugIn, "0612345678"), "0612345678");
  EXPECT_EQ(normalized(plugIn, "#3612345678"), "3612345678");
  EXPECT_EQ(normalized(plugIn, ""), "36");
}

// Data whose three histories answer differently under the three search methods.
const char* const prefixData =
    "0049 20000101000000 OPA\n"
    "004930 20150601000000 OPB\n"
    "0049301234 20220201000000 OPC\n";

TEST(ReadRegistry, SearchMethodSelectsHowLookupsAnswer) {
  struct Row {
    const char* value;  // null: key absent
    unsigned method;
  };
  const Row rows[] = {{nullptr, 0}, {"0", 0}, {"1", 1}, {"2", 2}, {"7", 0}, {"3", 0}};
  // Number, date, then the expected answer under BEST_MATCH, EXACT_MATCH and ANY_PREFIX_MATCH.
  struct Lookup {
    const char* number;
    const char* date;
    std::optional<std::string> byMethod[3];
  };
  const Lookup lookups[] = {
      {"0049301234", "20230101000000", {"OPC", "OPC", "OPA"}},
      {"0049301234", "20200101000000", {"OPB", std::nullopt, "OPA"}},
      {"0049305555", "20200101000000", {"OPB", std::nullopt, "OPA"}},
      {"0049301234", "19990101000000", {std::nullopt, std::nullopt, std::nullopt}},
      {"0033123456", "20230101000000", {std::nullopt, std::nullopt, std::nullopt}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.value ? std::string("SearchMethod \"") + row.value + "\"" : std::string("no SearchMethod"));
    TestEnvironment env;
    env.configureData(prefixData);
    if (row.value != nullptr) env.subtree().add("SearchMethod", row.value);
    PlugIn& plugIn = env.start();
    EXPECT_TRUE(isValid(plugIn));
    EXPECT_EQ(plugIn.searchMethod(), row.method);
    EXPECT_EQ(env.count("ERR_REG_VALUE_INVALID"), 0u);
    for (const Lookup& lookup : lookups) {
      EXPECT_EQ(env.lookup(lookup.number, lookup.date), lookup.byMethod[row.method])
          << lookup.number << " at " << lookup.date;
    }
  }
}

TEST(ReadRegistry, SearchMethodThatIsNoNumberMakesThePlugInInvalid) {
  struct Row {
    const char* value;
    std::vector<std::string> args;
  };
  const Row rows[] = {
      {"abc", {"NumberPortabilityB.SearchMethod", "abc"}},
      {"", {"NumberPortabilityB.SearchMethod"}},
      {"-1", {"NumberPortabilityB.SearchMethod", "-1"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string("SearchMethod \"") + row.value + "\"");
    TestEnvironment env;
    env.framework.setEventHandlerName(BAS::String("EventHandler"));
    const std::string file = env.writeFile("np.txt", "030123456 20200101000000 OPA\n");
    env.configure(file, "49", "0", "NumberPortabilityB").add("SearchMethod", row.value);
    PlugIn& plugIn = env.make("NumberPortabilityB");
    EXPECT_FALSE(isValid(plugIn));
    EXPECT_FALSE(plugIn.isUsable());
    // Reported alone: the data file is not opened afterwards.
    EXPECT_EQ(NpTest::statusLines(*env.sink, {"ERR_REG_VALUE_INVALID", "INF_FILE_OPENED"}),
              (std::vector<StatusLine>{{"ERR_REG_VALUE_INVALID", 5, row.args}}));
    EXPECT_EQ(env.records("ERR_REG_VALUE_INVALID").at(0).object, BAS::String("NumberPortabilityB"));
    // The construction stopped there: a cache manager, but no event handler name and no probes.
    EXPECT_NE(plugIn.cacheManager(), nullptr);
    EXPECT_EQ(plugIn.eventHandlerName(), BAS::String());
    EXPECT_EQ(probeGroupsOffered(plugIn), 0u);
  }
}

TEST(ReadRegistry, FirstMissingMandatoryKeyIsReportedAndEndsTheReading) {
  struct Row {
    const char* missing;
    std::vector<const char*> present;  // keys given (all with good values)
  };
  const Row rows[] = {
      // The keys after the missing one are absent too: they must not be looked for.
      {"FileName", {}},
      {"CountryCode", {"FileName"}},
      {"NationalAccessCode", {"FileName", "CountryCode"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string("missing ") + row.missing);
    TestEnvironment env;
    env.framework.setEventHandlerName(BAS::String("EventHandler"));
    const std::string file = env.writeFile("np.txt", "030123456 20200101000000 OPA\n");
    BAS::RegistryEntry& entry = env.subtree("NumberPortabilityB");
    for (const char* key : row.present) {
      entry.add(key, std::string(key) == "FileName" ? file : std::string(key) == "CountryCode" ? "49" : "0");
    }
    PlugIn& plugIn = env.make("NumberPortabilityB");
    EXPECT_FALSE(isValid(plugIn));
    EXPECT_FALSE(plugIn.isUsable());
    EXPECT_EQ(NpTest::statusLines(*env.sink, {"ERR_REG_NAME_NOT_FOUND"}),
              (std::vector<StatusLine>{
                  {"ERR_REG_NAME_NOT_FOUND", 5, {std::string("NumberPortabilityB.") + row.missing}}}));
    // Nothing else: no later key reported, no file opened, no request answered.
    EXPECT_EQ(env.ids(), (std::vector<std::string>{"ERR_REG_NAME_NOT_FOUND"}));
    EXPECT_NE(plugIn.cacheManager(), nullptr);
    EXPECT_EQ(plugIn.eventHandlerName(), BAS::String());
    EXPECT_EQ(probeGroupsOffered(plugIn), 0u);
    // A key read before the failure keeps its value.
    EXPECT_EQ(plugIn.fileName(), std::string(row.missing) == "FileName" ? BAS::String() : BAS::String(file));
  }
}

TEST(ReadRegistry, MissingSubtreeIsReportedWithThePlugInName) {
  TestEnvironment env;
  env.configure(env.writeFile("np.txt", ""), "49", "0", "SomeoneElse");
  PlugIn& plugIn = env.make();
  EXPECT_FALSE(isValid(plugIn));
  EXPECT_FALSE(plugIn.isUsable());
  EXPECT_EQ(NpTest::statusLines(*env.sink, {"ERR_REG_SUBTREE_NOT_FOUND"}),
            (std::vector<StatusLine>{{"ERR_REG_SUBTREE_NOT_FOUND", 5, {"NumberPortability"}}}));
  EXPECT_EQ(env.ids(), (std::vector<std::string>{"ERR_REG_SUBTREE_NOT_FOUND"}));
  EXPECT_NE(plugIn.cacheManager(), nullptr);
  EXPECT_EQ(probeGroupsOffered(plugIn), 0u);
}

TEST(ReadRegistry, DataFileThatCannotBeOpenedMakesThePlugInInvalidAndUnusable) {
  struct Row {
    const char* label;
    bool directory;
    const char* id;
  };
  const Row rows[] = {{"missing file", false, "ERR_FILE_NOT_FOUND"}, {"directory", true, "ERR_OPEN_FILE_FAILED"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    TestEnvironment env;
    const std::string file = env.path(row.directory ? "data-dir" : "absent.txt");
    if (row.directory) std::filesystem::create_directory(file);
    env.configure(file);
    PlugIn& plugIn = env.make();
    EXPECT_FALSE(isValid(plugIn));
    EXPECT_FALSE(plugIn.isUsable());
    EXPECT_EQ(NpTest::statusLines(*env.sink, {"ERR_FILE_NOT_FOUND", "ERR_OPEN_FILE_FAILED", "INF_FILE_OPENED"}),
              (std::vector<StatusLine>{{row.id, 4, {file}}}));
    EXPECT_EQ(probeGroupsOffered(plugIn), 0u);
  }
}

TEST(ReadRegistry, DeltaFileNameEntryChangesNothing) {
  TestEnvironment env;
  const std::string file = env.configureData("030123456 20200101000000 OPA\n");
  env.subtree().add("DeltaFileName", env.path("no-such-delta.txt"));
  PlugIn& plugIn = env.start();
  EXPECT_TRUE(isValid(plugIn));
  EXPECT_TRUE(plugIn.isUsable());
  EXPECT_EQ(env.ids(), (std::vector<std::string>{"INF_FILE_OPENED", "INF_LOAD_DATA", "INF_FILE_OPENED",
                                                 "INF_FILE_EOF", "INF_NUM_NPORT_LOADED"}));
  EXPECT_EQ(env.count("ERR_FILE_NOT_FOUND"), 0u);
  EXPECT_EQ(env.lookup("004930123456"), "OPA");
}

}  // namespace

namespace {

TEST(CheckFile, NamedFileStaysOpenUntilTheDestructorWithoutTouchingUsable) {
  TestEnvironment env;
  env.configureData("030123456 20200101000000 OPA\n");
  PlugIn& plugIn = env.make();
  const std::string delta = env.writeFile("delta.txt", "");
  const std::string missing = env.path("missing.txt");
  env.sink->clear();

  EXPECT_FALSE(plugIn.checkFile(BAS::String(missing)));
  EXPECT_TRUE(plugIn.isUsable());
  EXPECT_TRUE(plugIn.checkFile(BAS::String(delta)));
  EXPECT_TRUE(plugIn.isUsable());
  EXPECT_EQ(NpTest::statusLines(*env.sink, {"ERR_FILE_NOT_FOUND", "INF_FILE_OPENED"}),
            (std::vector<StatusLine>{{"ERR_FILE_NOT_FOUND", 4, {missing}}, {"INF_FILE_OPENED", 1, {delta}}}));

  env.sink->clear();
  env.destroyPlugIn();
  EXPECT_EQ(NpTest::statusLines(*env.sink, {"INF_FILE_CLOSED"}),
            (std::vector<StatusLine>{{"INF_FILE_CLOSED", 1, {delta}}}));
}

TEST(CheckFile, ConfiguredFileCheckClosesTheReaderAndSetsUsable) {
  TestEnvironment env;
  const std::string file = env.configureData("030123456 20200101000000 OPA\n");
  PlugIn& plugIn = env.make();
  const std::string delta = env.writeFile("delta.txt", "");
  ASSERT_TRUE(plugIn.checkFile(BAS::String(delta)));

  std::filesystem::remove(file);
  EXPECT_FALSE(plugIn.checkFile());
  EXPECT_FALSE(plugIn.isUsable());
  NpTest::writeText(file, "");
  EXPECT_TRUE(plugIn.checkFile());
  EXPECT_TRUE(plugIn.isUsable());

  env.sink->clear();
  env.destroyPlugIn();
  EXPECT_EQ(env.ids(), std::vector<std::string>{});
}

}  // namespace
