// Start-up configuration from the plug-in's registry subtree and the data file check: the
// outcome of each key, the message that a bad configuration gives, and which later steps a
// failure skips.
#include "plugin/tests/TestEnvironment.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace {

using DAT::NumberPortability::PlugIn;
using NpTest::StatusLine;
using NpTest::TestEnvironment;

std::string normalized(PlugIn& plugIn, const std::string& number) {
  BAS::String text(number);
  plugIn.cacheManager()->normalize(text);
  return text.str();
}

TEST(ReadRegistry, DiallingCodesDefaultOnlyWhenAbsent) {
  {
    SCOPED_TRACE("mandatory keys only, and a delta file name that is no key of ours");
    TestEnvironment env;
    const std::string file = env.configureData("030123456 20200101000000 OPA\n");
    env.subtree().add("DeltaFileName", env.path("no-such-delta.txt"));
    PlugIn& plugIn = env.make();
    EXPECT_TRUE(NpTest::isValid(plugIn));
    EXPECT_TRUE(plugIn.isUsable());
    EXPECT_EQ(env.statuses(), (std::vector<StatusLine>{{"INF_FILE_OPENED", 1, {file}}}));
    // International access code "00" and its sign "+".
    EXPECT_EQ(normalized(plugIn, "+4930123456"), "004930123456");
    EXPECT_EQ(normalized(plugIn, "004930123456"), "004930123456");
    EXPECT_EQ(normalized(plugIn, "030123456"), "004930123456");
  }
  {
    SCOPED_TRACE("empty international access code");
    TestEnvironment env;
    BAS::RegistryEntry& entry = env.configure(env.writeFile("np.txt", ""), "36", "06");
    entry.add("InternationalAccessCode", "");
    entry.add("InternationalAccessCodeSign", "#");
    PlugIn& plugIn = env.make();
    EXPECT_TRUE(NpTest::isValid(plugIn));
    // An empty international access code begins every number, so nothing is put in front.
    EXPECT_EQ(normalized(plugIn, "0612345678"), "0612345678");
    EXPECT_EQ(normalized(plugIn, "#3612345678"), "3612345678");
    EXPECT_EQ(normalized(plugIn, ""), "36");
  }
}

TEST(ReadRegistry, SearchMethodSelectsHowLookupsAnswer) {
  struct Row {
    const char* value;  // null: key absent
    unsigned method;
  };
  const Row rows[] = {{nullptr, 0}, {"0", 0}, {"1", 1}, {"2", 2}, {"7", 0}};
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
    env.configureData("0049 20000101000000 OPA\n004930 20150601000000 OPB\n0049301234 20220201000000 OPC\n");
    if (row.value != nullptr) env.subtree().add("SearchMethod", row.value);
    env.start();
    EXPECT_EQ(env.count("ERR_REG_VALUE_INVALID"), 0u);
    for (const Lookup& lookup : lookups) {
      EXPECT_EQ(env.lookup(lookup.number, lookup.date), lookup.byMethod[row.method])
          << lookup.number << " at " << lookup.date;
    }
  }
}

// Each bad configuration is reported alone, makes the plug-in invalid and ends the
// construction chain: a cache manager is made, but no event handler is asked for and no probes.
TEST(ReadRegistry, BadConfigurationIsReportedAndEndsTheConstruction) {
  struct Row {
    const char* label;
    const char* subtree;
    NpTest::Keys keys;    // "<file>" stands for a good data file, "<dir>" for a folder
    StatusLine expected;  // the one status; "<file>" and "<dir>" as above
    const char* fileName; // as the plug-in holds it: a name read before the failure stays
  };
  const NpTest::Keys good = {{"FileName", "<file>"}, {"CountryCode", "49"}, {"NationalAccessCode", "0"}};
  const auto with = [&good](const char* key, const char* value) {
    NpTest::Keys keys = good;
    keys.emplace_back(key, value);
    return keys;
  };
  const Row rows[] = {
      {"SearchMethod abc", "NP", with("SearchMethod", "abc"), {"ERR_REG_VALUE_INVALID", 5, {"NP.SearchMethod", "abc"}}, "<file>"},
      {"SearchMethod empty", "NP", with("SearchMethod", ""), {"ERR_REG_VALUE_INVALID", 5, {"NP.SearchMethod"}}, "<file>"},
      {"SearchMethod -1", "NP", with("SearchMethod", "-1"), {"ERR_REG_VALUE_INVALID", 5, {"NP.SearchMethod", "-1"}}, "<file>"},
      // The keys after a missing one are absent too: they must not be looked for.
      {"missing FileName", "NP", {}, {"ERR_REG_NAME_NOT_FOUND", 5, {"NP.FileName"}}, ""},
      {"missing CountryCode", "NP", {good[0]}, {"ERR_REG_NAME_NOT_FOUND", 5, {"NP.CountryCode"}}, "<file>"},
      {"missing NationalAccessCode", "NP", {good[0], good[1]}, {"ERR_REG_NAME_NOT_FOUND", 5, {"NP.NationalAccessCode"}}, "<file>"},
      {"no subtree of its own", "SomeoneElse", good, {"ERR_REG_SUBTREE_NOT_FOUND", 5, {"NP"}}, ""},
      {"missing data file", "NP", {{"FileName", "<file>.absent"}, good[1], good[2]},
       {"ERR_FILE_NOT_FOUND", 4, {"<file>.absent"}}, "<file>.absent"},
      {"data file is a folder", "NP", {{"FileName", "<dir>"}, good[1], good[2]}, {"ERR_OPEN_FILE_FAILED", 4, {"<dir>"}}, "<dir>"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    TestEnvironment env;
    env.framework.setEventHandlerName(BAS::String("EventHandler"));
    const std::string file = env.writeFile("np.txt", "030123456 20200101000000 OPA\n");
    auto expand = [&](std::string text) {
      if (text.starts_with("<file>")) text.replace(0, 6, file);
      if (text == "<dir>") text = env.dir.path().string();
      return text;
    };
    BAS::RegistryEntry& subtree = env.subtree(row.subtree);
    for (const auto& [key, value] : row.keys) subtree.add(key, expand(value));
    StatusLine expected = row.expected;
    for (std::string& arg : expected.args) arg = expand(arg);
    PlugIn& plugIn = env.make("NP");
    EXPECT_FALSE(NpTest::isValid(plugIn));
    EXPECT_FALSE(plugIn.isUsable());
    EXPECT_EQ(env.statuses(), std::vector<StatusLine>{expected});
    EXPECT_EQ(env.ids().size(), 1u);
    ASSERT_EQ(env.records(expected.id).size(), 1u);
    EXPECT_EQ(env.records(expected.id)[0].object, BAS::String("NP"));
    EXPECT_NE(plugIn.cacheManager(), nullptr);
    EXPECT_EQ(plugIn.eventHandlerName(), BAS::String());
    EXPECT_EQ(NpTest::groupsOffered(plugIn), 0u);
    EXPECT_EQ(plugIn.fileName(), BAS::String(expand(row.fileName)));
  }
}

TEST(CheckFile, NamedFileStaysOpenUntilTheDestructorConfiguredFileCheckSetsUsable) {
  TestEnvironment env;
  const std::string file = env.configureData("030123456 20200101000000 OPA\n");
  PlugIn& plugIn = env.make();
  const std::string delta = env.writeFile("delta.txt", "");
  const std::string missing = env.path("missing.txt");
  env.sink->clear();
  // The cache calls the checks through its owner interface while it holds the plug-in's
  // operation lock; a single-threaded test calls them the same way.
  DAT::NumberPortability::CacheOwner& owner = plugIn;
  // A named file is checked without touching the usable flag.
  EXPECT_FALSE(owner.checkFile(BAS::String(missing)));
  EXPECT_TRUE(plugIn.isUsable());
  EXPECT_TRUE(owner.checkFile(BAS::String(delta)));
  EXPECT_TRUE(plugIn.isUsable());
  EXPECT_EQ(env.statuses(),
            (std::vector<StatusLine>{{"ERR_FILE_NOT_FOUND", 4, {missing}}, {"INF_FILE_OPENED", 1, {delta}}}));
  env.sink->clear();
  env.destroyPlugIn();
  EXPECT_EQ(env.statuses(), (std::vector<StatusLine>{{"INF_FILE_CLOSED", 1, {delta}}}));

  // The configured file's check closes the reader again and sets the usable flag.
  PlugIn& second = env.make();
  DAT::NumberPortability::CacheOwner& secondOwner = second;
  ASSERT_TRUE(secondOwner.checkFile(BAS::String(delta)));
  std::filesystem::remove(file);
  EXPECT_FALSE(secondOwner.checkFile());
  EXPECT_FALSE(second.isUsable());
  NpTest::writeText(file, "");
  EXPECT_TRUE(secondOwner.checkFile());
  EXPECT_TRUE(second.isUsable());
  env.sink->clear();
  env.destroyPlugIn();
  EXPECT_EQ(env.ids(), std::vector<std::string>{});
}

}  // namespace
