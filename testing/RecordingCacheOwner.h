// NpTest::RecordingCacheOwner is the owner that cache tests give a CacheManager in place of the
// plug-in: its file checks only ask whether the file opens, and it keeps every status the cache
// reports (identifier, severity, arguments) for the test to compare.
//
// Thread contract: the cache reports only from the one operation in progress, and tests read
// the reports after it; nothing here is shared between threads at the same time.
#pragma once

#include "BAS/Status.h"
#include "BAS/String.h"
#include "cache/CacheOwner.h"
#include "testing/Report.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace NpTest {

class RecordingCacheOwner : public DAT::NumberPortability::CacheOwner {
public:
  explicit RecordingCacheOwner(std::string dataFile) : dataFileM(std::move(dataFile)) {}
  ~RecordingCacheOwner() override = default;

  bool checkFile() override { return check(dataFileM); }
  bool checkFile(const BAS::String& fileName) override { return check(fileName.str()); }
  void reportStatus(const char* messageId, BAS::Status::Severity severity, const BAS::String& argument) override {
    reportsM.push_back({messageId, severity, {argument.str()}});
  }
  void reportStatus(const char* messageId, BAS::Status::Severity severity,
                    const std::vector<BAS::String>& arguments) override {
    Report report{messageId, severity, {}};
    for (const BAS::String& argument : arguments) report.args.push_back(argument.str());
    reportsM.push_back(report);
  }
  BAS::String registeredName() const override { return BAS::String("NumberPortability"); }

  // The reports since the last call, in order.
  std::vector<Report> take() {
    std::vector<Report> taken;
    taken.swap(reportsM);
    return taken;
  }

  // Runs after every successful check with the file's name: a test may make the file vanish
  // between the check and the cache's own opening. Set by the test between operations.
  std::function<void(const std::string&)> afterCheckM;

private:
  bool check(const std::string& fileName) {
    const bool opens = !std::filesystem::is_directory(fileName) && std::ifstream(fileName).is_open();
    if (opens && afterCheckM) afterCheckM(fileName);
    return opens;
  }

  std::string dataFileM;  // set at construction, then only read
  // Written by the one cache operation in progress and read by the test after it, never at
  // the same time (lookups on other threads report nothing), so no lock.
  std::vector<Report> reportsM;
};

}  // namespace NpTest
