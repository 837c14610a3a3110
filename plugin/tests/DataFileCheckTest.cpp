// The check of a data file must judge every line as the plug-in's load does: on random files of
// good, malformed, duplicate and oddly written lines, the lines it calls rejected are exactly
// those the load reports (plus an unended last line, which the load drops silently), and its
// record count is the load's.
#include "plugin/DataFileCheck.h"
#include "plugin/tests/TestEnvironment.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>

namespace {

using DAT::NumberPortability::DataFileCheck;
using DAT::NumberPortability::DataFileCheckListener;
using NpTest::TestEnvironment;

class RecordingListener : public DataFileCheckListener {
public:
  void setting(const BAS::String& key, Weight, const BAS::String&) override { ADD_FAILURE() << key.view(); }
  void begin(const BAS::String&, std::uint64_t) override {}
  void finding(std::uint64_t lineNumber, const BAS::String& text) override {
    // A suspicious number is loaded all the same; every other finding is a line the load skips.
    (text.view().find("it would be stored as") != std::string_view::npos ? suspicious : rejected).insert(lineNumber);
  }
  void progress(std::uint64_t, std::uint64_t) override {}
  void summary(const Summary& given) override { summaryM = given; }
  void cannotCheck(const BAS::String& reason) override { ADD_FAILURE() << reason.view(); }

  std::set<std::uint64_t> rejected, suspicious;
  Summary summaryM;
};

// Lines drawn from few numbers and dates, so that duplicates across notations are common.
std::string randomFile(unsigned seed) {
  std::mt19937 random(seed);
  const auto pick = [&](std::initializer_list<std::string> options) { return *(options.begin() + random() % options.size()); };
  std::string text;
  for (int i = 0; i < 400; ++i) {
    const std::string number = pick({"+49", "0049", "0", ""}) + pick({"30123", "3012", "151"}) +
                               pick({"", "-4", "4", "x", "+1", "(0)"});
    const std::string date = pick({"20200101000000", "20210101000000", "20231301000000", "2020", "20200230000000"});
    switch (random() % 8) {
      case 0: text += pick({"", " \t", "1 2", number + " " + date + " A B"}); break;
      default: text += pick({"", "  ", "\t"}) + number + pick({" ", "\t  "}) + date + " " + pick({"A", "B", "C"}); break;
    }
    text += "\n";
  }
  // A good record that only its missing line end keeps out of the data.
  if (seed % 2 == 1) text += "0049401 20200101000000 Z";
  return text;
}

std::uint64_t lineOf(const std::string& location) {
  return std::stoull(location.substr(location.find("Line# ") + 6));
}

TEST(DataFileCheck, RejectsExactlyTheLinesTheLoadSkipsAndCountsItsRecords) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    TestEnvironment env;
    const std::string text = randomFile(seed);
    env.configure(text);
    env.start();
    std::set<std::uint64_t> skipped;
    for (const auto& report : env.statuses()) {
      if (report.id == "ERR_NUMBER_OF_FIELDS_IN_RECORD") skipped.insert(lineOf(report.args[3]));
      if (report.id == "ERR_INVALID_DATETIME" || report.id == "ERR_DUPLICATE_NUMPORTDATA") skipped.insert(lineOf(report.args[0]));
    }
    const std::uint64_t lines = seed % 2 == 1 ? 401 : 400;
    if (lines == 401) skipped.insert(401);
    const auto loaded = env.statuses("INF_NUM_NPORT_LOADED");
    ASSERT_EQ(loaded.size(), 1u);

    const std::size_t logged = env.statuses().size();
    RecordingListener listener;
    ASSERT_TRUE(DataFileCheck(listener).run(env.framework.registry().find(BAS::String("NumberPortability")),
                                            BAS::String("NumberPortability"),
                                            DataFileCheckListener::Scope::SETTINGS_AND_DATA));
    EXPECT_EQ(listener.rejected, skipped) << "seed " << seed;
    EXPECT_EQ(std::to_string(listener.summaryM.records), loaded[0].args[0]) << "seed " << seed;
    EXPECT_EQ(listener.summaryM.rejected, skipped.size()) << "seed " << seed;
    EXPECT_EQ(listener.summaryM.lines, lines);
    EXPECT_FALSE(listener.suspicious.empty()) << "seed " << seed << ": the file has odd numbers";
    EXPECT_EQ(env.statuses().size(), logged) << "the check writes nothing to the log";
  }
}

}  // namespace
