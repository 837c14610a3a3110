#include "BAS/Framework.h"
#include "BAS/InstrumentationProbeAttribute.h"
#include "BAS/InstrumentationProbeGroup.h"
#include "BAS/MemoryLogSink.h"
#include "BAS/RegisteredObject.h"
#include "OMF/InstrumentationProbeBrokerIf.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <utility>
#include <memory>
#include <string>
#include <unistd.h>

namespace {

using BAS::Framework;
using BAS::LogRecord;
using BAS::String;
using Infos = std::map<String, BAS::InstrumentationProbe::ProbeInfo>;

// Counts its destruction, so that the tests see who releases what.
class CountedValue : public BAS::InstrumentationProbeValueIf {
public:
  explicit CountedValue(int& released) : releasedM(released) {}
  ~CountedValue() override { ++releasedM; }

private:
  int& releasedM;
};

class ProbeFileTest : public ::testing::Test {
protected:
  ProbeFileTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "np-probe-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) directoryM = pattern;
    framework.log().addSink(sink);
    framework.setProbeDirectory(String(directoryM.string()));
  }
  ~ProbeFileTest() override {
    std::error_code ignored;
    std::filesystem::remove_all(directoryM, ignored);
  }

  void write(const std::string& name, const std::string& content) {
    std::ofstream(directoryM / name, std::ios::binary) << content;
  }
  String path(const std::string& name) const { return String((directoryM / name).string()); }

  std::filesystem::path directoryM;
  Framework framework;
  std::shared_ptr<BAS::MemoryLogSink> sink = std::make_shared<BAS::MemoryLogSink>();
  BAS::RegisteredObject reader{"NumberPortability"};
};

TEST_F(ProbeFileTest, ReadsEveryTableWithItsDescription) {
  ASSERT_FALSE(directoryM.empty());
  write("np.probe",
        "version = 3  # top-level values are no entries\n"
        "[numberPortabilityGroup]\n"
        "description = \"Run-time control\"\n"
        "[reload]\n"
        "description = \"Reloads the data\"\n"
        "[printData]\n"
        "other = 1\n"
        "[deltaLoad]\n"
        "description = 42\n");
  Infos infos;
  infos["kept"] = {"kept", "from before"};
  ASSERT_TRUE(OMF::InstrumentationProbeBrokerIf::ReadProbeInfoFile(&reader, "np.probe", infos));
  EXPECT_EQ(infos.size(), 5u);
  EXPECT_EQ(infos.at("numberPortabilityGroup").name, "numberPortabilityGroup");
  EXPECT_EQ(infos.at("numberPortabilityGroup").description, "Run-time control");
  EXPECT_EQ(infos.at("reload").description, "Reloads the data");
  EXPECT_EQ(infos.at("printData").name, "printData") << "a table without description is still an entry";
  EXPECT_EQ(infos.at("printData").description, "");
  EXPECT_EQ(infos.at("deltaLoad").description, "");
  EXPECT_EQ(infos.at("kept").description, "from before");
  EXPECT_TRUE(sink->records().empty());

  // With no probe directory the name is used as it is.
  framework.setProbeDirectory(String());
  Infos direct;
  EXPECT_TRUE(OMF::InstrumentationProbeBrokerIf::ReadProbeInfoFile(&reader, path("np.probe"), direct));
  EXPECT_EQ(direct.size(), 4u);
}

TEST_F(ProbeFileTest, UnreadableFileIsReportedOnBehalfOfTheObjectAndNothingIsTaken) {
  write("broken.probe", "[group]\ndescription = \"fine\"\n[reload\ndescription = \"never read\"\n");
  std::filesystem::create_directory(directoryM / "folder.probe");
  const std::pair<const char*, const char*> rows[] = {
      {"absent.probe", "No such file"}, {"broken.probe", "line 3"}, {"folder.probe", nullptr}};
  for (const auto& [name, reason] : rows) {
    SCOPED_TRACE(name);
    sink->clear();
    Infos infos;
    EXPECT_FALSE(OMF::InstrumentationProbeBrokerIf::ReadProbeInfoFile(&reader, name, infos));
    EXPECT_TRUE(infos.empty());
    ASSERT_EQ(sink->records().size(), 1u);
    const LogRecord record = sink->records()[0];
    EXPECT_EQ(record.id, "ERR_PROBE_INFO_FILE");
    EXPECT_EQ(record.object, "NumberPortability");
    EXPECT_EQ(record.severity, 5);
    ASSERT_EQ(record.args.size(), 2u);
    EXPECT_EQ(record.args[0], path(name));
    EXPECT_FALSE(record.args[1].empty());
    if (reason != nullptr) {
      EXPECT_NE(record.args[1].str().find(reason), std::string::npos) << record.args[1];
    }
  }
}

TEST(ProbeGroup, FrameworkReleasesGroupsWithTheirAttributesAndValues) {
  int released = 0;
  {
    Framework framework;
    auto* group = new BAS::InstrumentationProbeGroup({"numberPortabilityGroup", "control"}, 1);
    auto* value = new CountedValue(released);
    group->attributes().push_back(new BAS::InstrumentationProbeAttribute({"reload", "Reloads"}, value, 1));
    group->attributes().push_back(new BAS::InstrumentationProbeAttribute({"printData", ""}, new CountedValue(released), 1));
    ASSERT_EQ(framework.probeGroups(), std::vector<BAS::InstrumentationProbeGroup*>{group});
    ASSERT_NE(group->find("reload"), nullptr);
    EXPECT_EQ(group->find("reload")->value(), value);
    EXPECT_EQ(group->find("reload")->info().description, "Reloads");
    EXPECT_EQ(group->find("absent"), nullptr);
    EXPECT_EQ(released, 0);
  }
  EXPECT_EQ(released, 2);

  {
    BAS::InstrumentationProbeGroup unowned({"g", ""}, 1);  // no framework: its maker owns it
    unowned.attributes().push_back(new BAS::InstrumentationProbeAttribute({"p", ""}, new CountedValue(released), 1));
  }
  EXPECT_EQ(released, 3);
}

}  // namespace
