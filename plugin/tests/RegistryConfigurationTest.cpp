// Start-up configuration from the plug-in's registry subtree and the data file check: how each
// key changes the answers, the one message a bad configuration gives, and the file checks.
#include "plugin/tests/TestEnvironment.h"

#include <filesystem>
#include <tuple>

namespace {

using NpTest::Report;
using NpTest::TestEnvironment;

// SearchMethod picks how lookups answer, and each answer is the record of its date; dialling
// codes default only when absent, and the data file's numbers are stored by them.
TEST(ReadRegistry, SearchMethodAndDiallingCodesDecideTheAnswers) {
  // Label, keys, and the answers for each lookup below.
  const std::tuple<const char*, NpTest::Keys, std::vector<std::string>> rows[] = {
      {"no SearchMethod: best match", {}, {"OPC", "OPB", "OPB", "-", "-", "LONG", "-"}},
      {"SearchMethod 1: exact match", {{"SearchMethod", "1"}}, {"OPC", "-", "-", "-", "-", "LONG", "-"}},
      {"SearchMethod 2: shortest prefix", {{"SearchMethod", "2"}}, {"OPA", "OPA", "OPA", "-", "-", "OPA", "-"}},
      {"SearchMethod 7 falls back to best match", {{"SearchMethod", "7"}}, {"OPC", "OPB", "OPB", "-", "-", "LONG", "-"}},
      // An empty international access code begins every number, so numbers are stored as read.
      {"an empty code is no absent one", {{"InternationalAccessCode", ""}, {"InternationalAccessCodeSign", "#"}},
       {"OPC", "-", "-", "-", "-", "-", "LONG"}},
  };
  const std::pair<const char*, const char*> lookups[] = {{"0049301234", "20230101000000"}, {"0049301234", "20200101000000"},
      {"0049305555", "20200101000000"}, {"0049301234", "19990101000000"}, {"0033123456", "20230101000000"},
      {"004930777", "20230101000000"}, {"030777", "20230101000000"}};
  for (const auto& [label, keys, expected] : rows) {
    SCOPED_TRACE(label);
    TestEnvironment env;
    BAS::RegistryEntry& subtree =
        env.configure("+49 20000101000000 OPA\n030 20150601000000 OPB\n0049301234 20220201000000 OPC\n030777 20230101000000 LONG\n");
    for (const auto& [key, value] : keys) subtree.add(key, value);
    env.start();
    std::vector<std::string> answers;
    for (const auto& [number, date] : lookups) answers.push_back(env.lookup(number, date));
    EXPECT_EQ(answers, expected);
  }
}

// Each bad configuration is reported alone, makes the plug-in invalid and ends the
// construction chain: a cache manager is made, but no event handler is asked for and no probes.
TEST(ReadRegistry, BadConfigurationIsReportedAndEndsTheConstruction) {
  // Label, the subtree that holds the keys, the keys, the one status.
  const NpTest::Keys good = {{"FileName", "np.txt"}, {"CountryCode", "49"}, {"NationalAccessCode", "0"}};
  const auto with = [good](const char* value) { return NpTest::Keys{good[0], good[1], good[2], {"SearchMethod", value}}; };
  const std::tuple<const char*, const char*, NpTest::Keys, Report> rows[] = {
      {"SearchMethod abc", "NP", with("abc"), {"ERR_REG_VALUE_INVALID", 5, {"NP.SearchMethod", "abc"}}},
      {"SearchMethod empty", "NP", with(""), {"ERR_REG_VALUE_INVALID", 5, {"NP.SearchMethod"}}},
      {"SearchMethod -1", "NP", with("-1"), {"ERR_REG_VALUE_INVALID", 5, {"NP.SearchMethod", "-1"}}},
      {"missing FileName", "NP", {}, {"ERR_REG_NAME_NOT_FOUND", 5, {"NP.FileName"}}},
      {"missing CountryCode", "NP", {good[0]}, {"ERR_REG_NAME_NOT_FOUND", 5, {"NP.CountryCode"}}},
      {"missing NationalAccessCode", "NP", {good[0], good[1]}, {"ERR_REG_NAME_NOT_FOUND", 5, {"NP.NationalAccessCode"}}},
      {"no subtree of its own", "SomeoneElse", good, {"ERR_REG_SUBTREE_NOT_FOUND", 5, {"NP"}}},
      {"missing data file", "NP", {{"FileName", "absent.txt"}, good[1], good[2]}, {"ERR_FILE_NOT_FOUND", 4, {"absent.txt"}}},
      {"data file is a folder", "NP", {{"FileName", "."}, good[1], good[2]}, {"ERR_OPEN_FILE_FAILED", 4, {"."}}},
  };
  // The framework's reader says why a file that exists cannot be read, before the plug-in's own report.
  const auto readersReason = [](const std::string& label) -> std::vector<Report> {
    if (label == "data file is a folder") return {{"ERR_FILE_NOT_READ", 5, {".", "it is a directory"}}};
    return {};
  };
  for (const auto& [label, subtreeName, keys, expected] : rows) {
    SCOPED_TRACE(label);
    TestEnvironment env;
    env.framework.setEventHandlerName(BAS::String("EventHandler"));
    NpTest::writeText("np.txt", "030123456 20200101000000 OPA\n");
    BAS::RegistryEntry& subtree = env.framework.registry().child(subtreeName);
    for (const auto& [key, value] : keys) subtree.add(key, value);
    NpTest::PlugIn& plugIn = env.make("NP");
    EXPECT_FALSE(NpTest::isValid(plugIn) || plugIn.isUsable());
    std::vector<Report> reports = readersReason(label);
    reports.push_back(expected);
    EXPECT_EQ(env.statuses(), reports);
    EXPECT_EQ(env.sink->records().size(), reports.size());
    EXPECT_TRUE(plugIn.cacheManager() != nullptr && plugIn.eventHandlerName().empty() && plugIn.probeGroup() == nullptr);
  }
}

// The cache calls the checks through its owner interface while it holds the plug-in's
// operation lock; a single-threaded test calls them the same way.
TEST(CheckFile, ConfiguredFileCheckSetsUsableANamedFileStaysOpenUntilTheDestructor) {
  TestEnvironment env;
  env.configure("030123456 20200101000000 OPA\n");
  const std::string file = "np.txt", delta = NpTest::writeText("delta.txt", ""), missing = "missing.txt";
  DAT::NumberPortability::CacheOwner& owner = env.make();
  env.sink->clear();
  std::filesystem::remove(file);
  EXPECT_FALSE(owner.checkFile());
  EXPECT_FALSE(env.plugIn->isUsable());
  EXPECT_TRUE(owner.checkFile(BAS::String(delta)));
  EXPECT_FALSE(env.plugIn->isUsable()) << "a named file's check leaves the usable flag alone";
  NpTest::writeText(file, "");
  EXPECT_TRUE(owner.checkFile());
  EXPECT_TRUE(env.plugIn->isUsable());
  EXPECT_FALSE(owner.checkFile(BAS::String(missing)));
  EXPECT_TRUE(owner.checkFile(BAS::String(delta)));
  env.destroyPlugIn();
  EXPECT_EQ(env.statuses(), (std::vector<Report>{{"ERR_FILE_NOT_FOUND", 4, {file}}, {"INF_FILE_OPENED", 1, {delta}},
                                                 {"INF_FILE_OPENED", 1, {file}}, {"ERR_FILE_NOT_FOUND", 4, {missing}},
                                                 {"INF_FILE_OPENED", 1, {delta}}, {"INF_FILE_CLOSED", 1, {delta}}}));
}

}  // namespace
