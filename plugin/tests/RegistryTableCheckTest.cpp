// The judgement of the plug-in's registry table must match what the plug-in does with each key:
// silent on every value it takes as written, a finding for a key it never reads or a value it
// takes otherwise than meant, a note for an empty national access code.
#include "BAS/RegistryEntry.h"
#include "plugin/RegistryTableCheck.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using DAT::NumberPortability::DataFileCheckListener;
using DAT::NumberPortability::RegistryTableCheck;

class RemarkList : public DataFileCheckListener {
public:
  void setting(const BAS::String& key, Weight weight, const BAS::String& text) override {
    remarks.push_back({key.str(), weight, text.str()});
  }
  void begin(const BAS::String&, std::uint64_t) override {}
  void finding(std::uint64_t, const BAS::String&) override {}
  void progress(std::uint64_t, std::uint64_t) override {}
  void summary(const Summary&) override {}
  void cannotCheck(const BAS::String&) override {}

  struct Remark {
    std::string key;
    Weight weight;
    std::string text;
  };
  std::vector<Remark> remarks;
};

TEST(RegistryTableCheck, RemarksOnExactlyTheKeysAndValuesThePlugInIgnoresOrTakesOtherwise) {
  using Weight = DataFileCheckListener::Weight;
  const std::string none;  // no remark expected
  const struct {
    std::string key, value;
    std::string remark;  // a part of the text; empty for no remark
    Weight weight = Weight::FINDING;
  } cases[] = {
      {"FileName", "np.txt", none}, {"InternationalAccessCodeSign", "", none}, {"InternationalAccessCodeSign", "#", none},
      {"Reload", "x", none}, {"ReuseOnFailure", "maybe", none}, {"AdditionalNumPortData", "", none}, {"PrintData", "", none},
      {"SearchMethod", "0", none}, {"SearchMethod", "1", none}, {"SearchMethod", "2", none}, {"SearchMethod", "02", none},
      {"SearchMethod", "3", "is '3', which names no search method"},
      {"SearchMethod", "4294967295", "takes any other whole number as 0"},
      {"SearchMethod", "4294967296", "refuses it and does not start"}, {"SearchMethod", "", "is empty, not a whole number"},
      {"SearchMethod", " 1", "refuses it"}, {"SearchMethod", "-1", "is '-1', not a whole number"},
      {"CountryCode", "49", none}, {"CountryCode", "", "is empty, but a country code"}, {"CountryCode", "4 9", "is '4 9'"},
      {"NationalAccessCode", "06", none}, {"NationalAccessCode", "", "as in a country without a trunk prefix", Weight::NOTE},
      {"NationalAccessCode", "O", "is 'O', but a national access code is digits only"},
      {"InternationalAccessCode", "00", none}, {"InternationalAccessCode", "", "national numbers get no country code"},
      {"InternationalAccessCode", "+", "is '+'"}, {"InternationalAccessCode", "0\x01", "is '0\\x01'"},
      {"DeltaFileName", "d.txt", "has no effect: the plug-in never reads it"},
      {"searchmethod", "1", "did you mean SearchMethod?"}, {"FileNam", "np.txt", "did you mean FileName?"},
      {"Colour", "red", "is not a key the plug-in reads"},
      // The host's key too: only the host knows it is its own.
      {"Library", "DAT_NumberPortability", "is not a key the plug-in reads"},
  };
  for (const auto& [key, value, remark, weight] : cases) {
    SCOPED_TRACE(key + " = '" + value + "'");
    BAS::RegistryEntry table("NP");
    table.add(key, value);
    RemarkList list;
    RegistryTableCheck::run(table, list);
    if (remark.empty()) {
      EXPECT_TRUE(list.remarks.empty()) << list.remarks.size() << " remarks";
      continue;
    }
    ASSERT_EQ(list.remarks.size(), 1u);
    EXPECT_EQ(list.remarks[0].key, key);
    EXPECT_EQ(list.remarks[0].weight, weight);
    const std::string& text = list.remarks[0].text;
    EXPECT_NE(text.find(remark), std::string::npos) << text;
    if (key == "Colour") {
      EXPECT_EQ(text.find("did you mean"), std::string::npos) << text;
    }
  }
  // A child table is no key, and the remarks follow the table's order.
  BAS::RegistryEntry table("NP");
  table.add("Zeta", "1");
  table.child("Sub").add("Library", "X");
  table.add("SearchMethod", "9");
  RemarkList list;
  RegistryTableCheck::run(table, list);
  ASSERT_EQ(list.remarks.size(), 2u);
  EXPECT_EQ(list.remarks[0].key + " " + list.remarks[1].key, "Zeta SearchMethod");
}

}  // namespace
