// What the tests of the framework's files share: a folder of their own, a framework whose log
// they read back, whole-file helpers and a guard that turns a hang into a failure.
#pragma once

#include "BAS/Framework.h"
#include "BAS/MemoryLogSink.h"
#include "testing/TempDirectory.h"
#include "testing/EndsWithoutHanging.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace FileTesting {

using NpTest::endsWithoutHanging;

using Args = std::vector<BAS::String>;


// Numbered lines of `word` of at least `bytes` bytes in all: two versions of a file differ in
// every line and in length.
inline std::string numberedLines(const std::string& word, std::size_t bytes) {
  std::string text;
  for (unsigned long n = 1; text.size() < bytes; ++n) text += word + " " + std::to_string(n) + "\n";
  return text;
}

struct FileFixture : ::testing::Test {
  FileFixture() { framework.log().addSink(sink); }

  // Names are taken in `folder`: the test's own, or a fresh one per case of a table.
  std::string path(const std::string& name) const { return folder + "/" + name; }
  void useFreshFolder(const std::string& name) {
    folder = temp.path(name);
    std::filesystem::create_directories(folder);
  }
  std::string write(const std::string& name, const std::string& content) const {
    return NpTest::writeText(path(name), content);
  }
  std::string contents(const std::string& name) const { return NpTest::readText(path(name)); }
  // The names in the folder, sorted.
  std::vector<std::string> entries() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }
  // The arguments of every message `id` logged so far, in order.
  std::vector<Args> reports(const char* id) const {
    std::vector<Args> arguments;
    for (const BAS::LogRecord& record : sink->withId(id)) arguments.push_back(record.args);
    return arguments;
  }

  NpTest::TempDirectory temp;
  std::string folder = temp.path().string();
  BAS::Framework framework;
  std::shared_ptr<BAS::MemoryLogSink> sink = std::make_shared<BAS::MemoryLogSink>();
};

}  // namespace FileTesting
