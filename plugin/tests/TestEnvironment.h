// NpTest::TestEnvironment is what a plug-in test runs in: a framework (current while it lives)
// with a memory log, the plug-in's registry subtree, a temporary folder that is the working
// directory meanwhile (so that messages name files as the test does), and the plug-in, stopped
// and destroyed before the framework. The tests read back what was logged.
#pragma once

#include "BAS/Framework.h"
#include "BAS/InstrumentationProbeAttribute.h"
#include "BAS/InstrumentationProbeGroup.h"
#include "BAS/LogRecord.h"
#include "BAS/MemoryLogSink.h"
#include "BAS/MutexLocker.h"
#include "BAS/ProtectedBool.h"
#include "BAS/RegistryEntry.h"
#include "plugin/NumberPortabilityPlugIn.h"
#include "testing/Report.h"
#include "testing/TempDirectory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>

namespace NpTest {

using DAT::NumberPortability::PlugIn;
using Keys = std::vector<std::pair<std::string, std::string>>;
using Strings = std::vector<std::string>;

inline bool isValid(BAS::RegisteredObject& object) {
  BAS::MutexLocker locker(BAS::RegisteredObject::isValidLockerCM);
  return object.isValid();
}

class TestEnvironment {
public:
  static constexpr const char* pluginName = "NumberPortability";

  TestEnvironment() {
    framework.log().addSink(sink);
    framework.setProbeDirectory(NP_PROBE_DIRECTORY);
    std::filesystem::current_path(dir.path());
  }
  ~TestEnvironment() {
    destroyPlugIn();
    std::filesystem::current_path(previousM);
  }

  // The data file np.txt with this content, and the three mandatory keys naming it; the
  // optional keys keep their defaults unless added to the subtree afterwards.
  BAS::RegistryEntry& configure(const std::string& content, const std::string& name = pluginName) {
    BAS::RegistryEntry& entry = framework.registry().child(name);
    entry.add("FileName", writeText("np.txt", content));
    entry.add("CountryCode", "49");
    entry.add("NationalAccessCode", "0");
    return entry;
  }
  PlugIn& make(const std::string& name = pluginName) { return *(plugIn = std::make_unique<PlugIn>(name, "10008")); }
  // Makes the plug-in and starts it; the test fails when init does not load the data.
  void start() { EXPECT_TRUE(make().init()) << "init did not load the data file"; }
  // As the framework ends a plug-in, started or not.
  void destroyPlugIn() {
    if (plugIn) plugIn->shutdown();
    plugIn.reset();
  }

  // The operator that holds for `number` at `date`, or "-".
  std::string lookup(const std::string& number, const char* date = "20300101000000") {
    DAT::NumberPortability::NumberPortabilityData record;
    const bool found = plugIn->search(BAS::String(number), BAS::DateTime(BAS::String(date)), record);
    return found ? std::string(record.networkOperatorM.view()) : "-";
  }
  // Writes a probe of the plug-in's group, as the framework does.
  void post(const std::string& probeName, const std::string& value) {
    BAS::InstrumentationProbeAttribute* attribute = plugIn->probeGroup()->find(BAS::String(probeName));
    ASSERT_NE(attribute, nullptr) << "no probe " << probeName;
    EXPECT_TRUE(attribute->value()->setValue(BAS::String(value)));
  }
  // A registry update with these keys, as the framework delivers it.
  bool update(const Keys& keys, BAS::ProtectedBool& taken) {
    BAS::RegistryEntry entry{BAS::String(pluginName)};
    for (const auto& [key, value] : keys) entry.add(BAS::String(key), BAS::String(value));
    return plugIn->registryUpdate(&entry, taken);
  }

  // Every status in order, or those with the identifier.
  std::vector<Report> statuses(const std::string& id = "") const {
    std::vector<Report> result;
    for (const BAS::LogRecord& record : sink->records()) {
      if (record.kind != BAS::LogRecord::Kind::STATUS || (!id.empty() && record.id != BAS::String(id))) continue;
      result.push_back({record.id.str(), record.severity, {}});
      for (const BAS::String& arg : record.args) result.back().args.push_back(arg.str());
    }
    return result;
  }
  // Every event sent, as "id -> receiver", or "id lost" when nobody received it.
  Strings events() const {
    Strings result;
    for (const BAS::LogRecord& record : sink->records())
      if (record.kind == BAS::LogRecord::Kind::EVENT)
        result.push_back(record.id.str() + (record.delivered ? " -> " + record.receiver.str() : " lost"));
    return result;
  }
  // Generous: the wait is for work that has been requested (the sanitizer builds are slow).
  bool waitFor(const std::string& id, std::size_t n = 1) const {
    return sink->waitFor(BAS::String(id), n, std::chrono::seconds(60));
  }

  TempDirectory dir;
  BAS::Framework framework;
  // Synchronises itself: the worker logs into it while the test reads it.
  std::shared_ptr<BAS::MemoryLogSink> sink = std::make_shared<BAS::MemoryLogSink>();
  // Made and destroyed by the test's thread while no worker runs; the worker only uses it.
  std::unique_ptr<PlugIn> plugIn;

private:
  const std::filesystem::path previousM = std::filesystem::current_path();
};

}  // namespace NpTest
