// A framework with a memory log, a registry and a temporary folder for data files, for the
// plug-in's tests.
//
// Each test makes one TestEnvironment (it becomes the current framework), configures the
// plug-in's registry subtree, makes the plug-in and reads back what was logged. The plug-in is
// stopped and destroyed before the framework, and the folder is removed last.
#pragma once

#include "BAS/DateTime.h"
#include "BAS/Framework.h"
#include "BAS/InstrumentationProbeAttribute.h"
#include "BAS/InstrumentationProbeGroup.h"
#include "BAS/InstrumentationProbeList.h"
#include "BAS/LogRecord.h"
#include "BAS/MemoryLogSink.h"
#include "BAS/MutexLocker.h"
#include "BAS/ProtectedBool.h"
#include "BAS/RegistryEntry.h"
#include "BAS/String.h"
#include "plugin/NumberPortabilityPlugIn.h"
#include "store/NumberPortabilityData.h"
#include "testing/Report.h"
#include "testing/TempDirectory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <iterator>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace NpTest {

using namespace std::chrono_literals;
using DAT::NumberPortability::NumberPortabilityData;
using DAT::NumberPortability::PlugIn;

// Generous: the waits are for work that has been requested, so they end long before this
// unless something is broken (the sanitizer builds are slow).
inline constexpr std::chrono::milliseconds waitLimit = 60s;

// Changes the process's working directory for a scope (for relative file names in messages).
class WorkingDirectory {
public:
  explicit WorkingDirectory(const std::filesystem::path& directory) : previousM(std::filesystem::current_path()) {
    std::filesystem::current_path(directory);
  }
  ~WorkingDirectory() { std::filesystem::current_path(previousM, ignoredM); }
  WorkingDirectory(const WorkingDirectory&) = delete;
  WorkingDirectory& operator=(const WorkingDirectory&) = delete;

private:
  std::filesystem::path previousM;
  std::error_code ignoredM;
};

inline bool fileExists(const std::string& path) { return std::filesystem::exists(path); }

inline BAS::DateTime at(const char* fourteenDigits) { return BAS::DateTime(BAS::String(fourteenDigits)); }

inline std::vector<std::string> texts(const std::vector<BAS::String>& strings) {
  std::vector<std::string> result;
  for (const BAS::String& s : strings) result.push_back(s.str());
  return result;
}

// Polls until `condition` holds; false when it did not within `limit`.
inline bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = waitLimit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

// Runs `work` on another thread; false when it has not finished within `limit`. A hang is
// reported and then ends the program, since the stuck thread still uses the test's objects.
inline bool finishesWithin(std::function<void()> work, std::chrono::milliseconds limit = 10s) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  std::thread([work = std::move(work), done] {
    work();
    done->set_value();
  }).detach();
  if (finished.wait_for(limit) == std::future_status::ready) return true;
  ADD_FAILURE() << "the operation did not finish within " << limit.count() << " ms";
  std::fflush(stdout);
  std::_Exit(EXIT_FAILURE);
}

using StatusLine = Report;

using Keys = std::vector<std::pair<std::string, std::string>>;

inline bool isValid(BAS::RegisteredObject& object) {
  BAS::MutexLocker locker(BAS::RegisteredObject::isValidLockerCM);
  return object.isValid();
}

inline std::size_t groupsOffered(const BAS::RegisteredObject& object) {
  BAS::InstrumentationProbeList groups;
  object.getInstrumentationProbe(groups);
  return groups.size();
}

class TestEnvironment {
public:
  static constexpr const char* pluginName = "NumberPortability";

  TestEnvironment() : sink(std::make_shared<BAS::MemoryLogSink>()) {
    framework.log().addSink(sink);
    framework.setProbeDirectory(NP_PROBE_DIRECTORY);
  }
  ~TestEnvironment() { destroyPlugIn(); }
  TestEnvironment(const TestEnvironment&) = delete;
  TestEnvironment& operator=(const TestEnvironment&) = delete;

  // --- files -------------------------------------------------------------------------------
  std::string path(const std::string& name) const { return (dir.path() / name).string(); }
  std::string writeFile(const std::string& name, const std::string& content) const {
    writeText(path(name), content);
    return path(name);
  }

  // --- registry ----------------------------------------------------------------------------
  BAS::RegistryEntry& subtree(const std::string& name = pluginName) { return framework.registry().child(name); }
  // The three mandatory keys; the optional ones keep their defaults unless set afterwards.
  BAS::RegistryEntry& configure(const std::string& dataFile, const std::string& countryCode = "49",
                                const std::string& nationalAccessCode = "0", const std::string& name = pluginName) {
    BAS::RegistryEntry& entry = subtree(name);
    entry.add("FileName", dataFile);
    entry.add("CountryCode", countryCode);
    entry.add("NationalAccessCode", nationalAccessCode);
    return entry;
  }
  // Writes the data file and configures it as the plug-in's data file.
  std::string configureData(const std::string& content, const std::string& fileName = "np.txt") {
    const std::string file = writeFile(fileName, content);
    configure(file);
    return file;
  }

  // --- plug-in -----------------------------------------------------------------------------
  PlugIn& make(const std::string& name = pluginName) {
    plugIn = std::make_unique<PlugIn>(name, "10008");
    return *plugIn;
  }
  // Makes the plug-in and starts it; the test fails when init does not load the data.
  PlugIn& start(const std::string& name = pluginName) {
    make(name);
    startedM = true;
    EXPECT_TRUE(plugIn->init()) << "init did not load the data file";
    return *plugIn;
  }
  bool init() {
    startedM = true;
    return plugIn->init();
  }
  void destroyPlugIn() {
    if (plugIn && startedM) plugIn->shutdown();
    plugIn.reset();
    startedM = false;
  }

  // The operator that holds for `number` at `date`, or nothing.
  std::optional<std::string> lookup(const std::string& number, const char* date = "20300101000000") {
    return lookupIn(*plugIn, number, date);
  }
  static std::optional<std::string> lookupIn(PlugIn& p, const std::string& number, const char* date = "20300101000000") {
    NumberPortabilityData record;
    if (!p.search(BAS::String(number), at(date), record)) return std::nullopt;
    return std::string(record.networkOperatorM.view());
  }

  // The probe of that name in the plug-in's group, as the framework collects it.
  BAS::InstrumentationProbeValueIf* probe(const std::string& name) {
    BAS::InstrumentationProbeList groups;
    plugIn->getInstrumentationProbe(groups);
    if (groups.size() != 1 || groups.front() == nullptr) return nullptr;
    BAS::InstrumentationProbeAttribute* attribute = groups.front()->find(BAS::String(name));
    return attribute == nullptr ? nullptr : attribute->value();
  }
  void post(const std::string& probeName, const std::string& value) {
    BAS::InstrumentationProbeValueIf* target = probe(probeName);
    ASSERT_NE(target, nullptr) << "no probe " << probeName;
    EXPECT_TRUE(target->setValue(BAS::String(value)));
  }
  // A registry update with these keys, as the framework delivers it.
  bool update(const Keys& keys, BAS::ProtectedBool& taken) {
    BAS::RegistryEntry entry{BAS::String(pluginName)};
    for (const auto& [key, value] : keys) entry.add(BAS::String(key), BAS::String(value));
    return plugIn->registryUpdate(&entry, taken);
  }

  // --- log ---------------------------------------------------------------------------------
  std::vector<BAS::LogRecord> records(const std::string& id) const { return sink->withId(BAS::String(id)); }
  std::vector<std::vector<std::string>> argsOf(const std::string& id) const {
    std::vector<std::vector<std::string>> result;
    for (const BAS::LogRecord& record : records(id)) result.push_back(texts(record.args));
    return result;
  }
  std::size_t count(const std::string& id) const { return sink->count(BAS::String(id)); }
  // Identifiers of everything logged, statuses and events, in order.
  std::vector<std::string> ids() const {
    std::vector<std::string> result;
    for (const BAS::LogRecord& record : sink->records()) result.push_back(record.id.str());
    return result;
  }
  // Every status, in order.
  std::vector<StatusLine> statuses() const {
    std::vector<StatusLine> result;
    for (const BAS::LogRecord& record : sink->records()) {
      if (record.kind == BAS::LogRecord::Kind::STATUS) result.push_back({record.id.str(), record.severity, texts(record.args)});
    }
    return result;
  }
  // Every event the plug-in sent, as "id -> receiver", with " (lost)" when nobody received it.
  std::vector<std::string> events() const {
    std::vector<std::string> result;
    for (const BAS::LogRecord& record : sink->records()) {
      if (record.kind != BAS::LogRecord::Kind::EVENT) continue;
      EXPECT_EQ(record.sender, BAS::String(pluginName)) << record.id;
      result.push_back(record.id.str() + " -> " + (record.receiver.empty() ? "nobody" : record.receiver.str()) +
                       (record.delivered ? "" : " (lost)"));
    }
    return result;
  }
  bool waitFor(const std::string& id, std::size_t n = 1, std::chrono::milliseconds limit = waitLimit) const {
    return sink->waitFor(BAS::String(id), n, limit);
  }

  TempDirectory dir;
  BAS::Framework framework;
  std::shared_ptr<BAS::MemoryLogSink> sink;
  std::unique_ptr<PlugIn> plugIn;

private:
  bool startedM = false;
};

// The statuses whose identifier is one of `idsOfInterest`, in the order they were logged.
inline std::vector<StatusLine> statusLines(const BAS::MemoryLogSink& sink, const std::vector<std::string>& idsOfInterest) {
  std::vector<StatusLine> result;
  for (const BAS::LogRecord& record : sink.records()) {
    if (record.kind != BAS::LogRecord::Kind::STATUS) continue;
    for (const std::string& id : idsOfInterest) {
      if (record.id == BAS::String(id)) result.push_back({id, record.severity, texts(record.args)});
    }
  }
  return result;
}

}  // namespace NpTest
