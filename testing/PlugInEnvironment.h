// NpTest::PlugInEnvironment is the in-process plug-in that the host's fuzz target drives: a
// framework of its own, a registry that names a tiny data file in a private temporary folder,
// and a number-portability plug-in made from it, all created once per process and never
// destroyed (the fuzz run ends with the process). The log goes to a CheckingLogSink.
#pragma once

#include "BAS/Framework.h"
#include "BAS/Log.h"
#include "BAS/MutexLocker.h"
#include "BAS/RegisteredObject.h"
#include "BAS/RegistryEntry.h"
#include "BAS/String.h"
#include "plugin/NumberPortabilityPlugIn.h"
#include "testing/CheckingLogSink.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <unistd.h>

namespace NpTest {

class PlugInEnvironment {
public:
  static constexpr const char* pluginNameCM = "NumberPortability";
  static constexpr const char* dataCM =
      "030111111 20200101000000 OPA\n"
      "+4930222222 20210101000000 OPB\n"
      "004930222222 20220101000000 OPC\n"
      "4940 20190101000000 PREFIX\n";

  // The one environment of the process; `extraSink` (added once, with the first call) also
  // receives the log. `started` also starts the plug-in, which loads the data file.
  static PlugInEnvironment& instance(bool started, std::shared_ptr<BAS::LogSink> extraSink = nullptr) {
    static PlugInEnvironment* environment = new PlugInEnvironment(started, std::move(extraSink));
    return *environment;
  }

  BAS::Framework& framework() { return *frameworkM; }
  DAT::NumberPortability::PlugIn& plugIn() { return *plugInM; }
  const std::filesystem::path& folder() const { return folderM; }

private:
  PlugInEnvironment(bool started, std::shared_ptr<BAS::LogSink> extraSink) {
    std::string pattern = (std::filesystem::temp_directory_path() / "np-fuzz-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) failProperty("the fuzz environment gets a temporary folder", pattern);
    folderM = pattern;
    folderToRemove() = folderM;
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(folderToRemove(), ignored);
    });
    const std::string dataFile = (folderM / "np.txt").string();
    std::ofstream(dataFile, std::ios::binary) << dataCM;

    frameworkM = new BAS::Framework;
    frameworkM->log().addSink(std::make_shared<CheckingLogSink>());
    if (extraSink) frameworkM->log().addSink(std::move(extraSink));
    frameworkM->setProbeDirectory(NP_PROBE_DIRECTORY);
    BAS::RegistryEntry& entry = frameworkM->registry().child(pluginNameCM);
    entry.add("FileName", BAS::String(dataFile));
    entry.add("CountryCode", "49");
    entry.add("NationalAccessCode", "0");

    plugInM = new DAT::NumberPortability::PlugIn(pluginNameCM, "10008");
    bool valid = false;
    {
      BAS::MutexLocker locker(BAS::RegisteredObject::isValidLockerCM);
      valid = plugInM->isValid();
    }
    if (!valid || plugInM->cacheManager() == nullptr) failProperty("the fuzz plug-in is valid", dataFile);
    if (started && !plugInM->init()) failProperty("the fuzz plug-in loads its data file", dataFile);
  }

  static std::filesystem::path& folderToRemove() {
    static std::filesystem::path path;
    return path;
  }

  std::filesystem::path folderM;
  BAS::Framework* frameworkM = nullptr;
  DAT::NumberPortability::PlugIn* plugInM = nullptr;
};

}  // namespace NpTest
