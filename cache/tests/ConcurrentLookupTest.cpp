// Lookups in other threads while the data is reloaded and extended again and again: every
// answer must come from one complete data set, the old or the new, never from a tree that is
// being emptied or filled.
#include "plugin/tests/TestEnvironment.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using NpTest::TestEnvironment;

constexpr int numbersPerGroup = 1000;

std::string number(int group, int index) {
  char text[32];
  std::snprintf(text, sizeof text, "004930%d%05d", group, index);
  return text;
}

// Group 1 is in both versions with different operators, group 2 only in version A, group 3
// only in version B; group 4 comes from the delta file.
std::string version(char name) {
  std::string text;
  for (int i = 0; i < numbersPerGroup; ++i) {
    text += number(1, i) + " 20200101000000 " + name + std::to_string(i) + "\n";
    text += number(name == 'A' ? 2 : 3, i) + " 20200101000000 " + name + std::to_string(i) + "\n";
  }
  return text;
}

std::string deltaRecords() {
  std::string text;
  for (int i = 0; i < numbersPerGroup; ++i) text += number(4, i) + " 20200101000000 D" + std::to_string(i) + "\n";
  return text;
}

TEST(ConcurrentLookup, AnswersComeFromTheOldOrTheNewDataNeverFromAPartlyFilledTree) {
  TestEnvironment env;
  const std::string file = env.configureData(version('A'));
  DAT::NumberPortability::PlugIn& plugIn = env.start();
  const std::string delta = env.writeFile("delta.txt", deltaRecords());
  DAT::NumberPortability::CacheManager& cache = *plugIn.cacheManager();

  std::atomic<bool> writing{true};
  std::atomic<long> lookups{0};
  std::mutex faultsMutex;
  std::vector<std::string> faults;
  auto fault = [&](const std::string& text) {
    std::lock_guard<std::mutex> guard(faultsMutex);
    if (faults.size() < 20) faults.push_back(text);
  };

  auto reader = [&](int seed) {
    unsigned state = static_cast<unsigned>(seed) * 2654435761u + 1;
    long done = 0;
    // At least one full round, so that every reader also runs after the last change.
    while (writing.load() || done < 4 * numbersPerGroup) {
      state = state * 1103515245u + 12345u;
      const int index = static_cast<int>((state >> 8) % numbersPerGroup);
      const int group = 1 + static_cast<int>((state >> 20) % 4);
      const std::optional<std::string> answer = TestEnvironment::lookupIn(plugIn, number(group, index));
      // Group 1 must always answer, from either version; the others answer from their own source or not at all.
      const std::string suffix = std::to_string(index);
      const bool consistent = group == 1 ? (answer == "A" + suffix || answer == "B" + suffix)
                                         : (!answer || *answer == std::string(1, "  ABD"[group]) + suffix);
      if (!consistent) fault(number(group, index) + " -> " + answer.value_or("<none>"));
      ++done;
    }
    lookups += done;
  };

  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) readers.emplace_back(reader, i);

  bool allSucceeded = true;
  for (int round = 0; round < 12; ++round) {
    NpTest::writeText(file, version(round % 2 == 0 ? 'B' : 'A'));
    const bool reuse = true;
    allSucceeded = cache.cacheReload(reuse) && allSucceeded;
    allSucceeded = cache.cacheDeltaLoad(BAS::String(delta)) && allSucceeded;
  }
  writing = false;
  for (std::thread& t : readers) t.join();

  EXPECT_TRUE(allSucceeded);
  EXPECT_TRUE(faults.empty()) << "first inconsistent answer: " << (faults.empty() ? "" : faults.front());
  EXPECT_GE(lookups.load(), 3L * 4 * numbersPerGroup);

  // The last round loaded version A and the delta: every number of it answers, from both trees.
  for (int pass = 0; pass < 2; ++pass) {
    SCOPED_TRACE(pass == 0 ? "active tree" : "other tree");
    for (int i = 0; i < numbersPerGroup; ++i) {
      const std::string suffix = std::to_string(i);
      ASSERT_EQ(env.lookup(number(1, i)), "A" + suffix);
      ASSERT_EQ(env.lookup(number(2, i)), "A" + suffix);
      ASSERT_EQ(env.lookup(number(3, i)), std::nullopt);
      ASSERT_EQ(env.lookup(number(4, i)), "D" + suffix);
    }
    const std::string empty = env.writeFile("empty.txt", "");
    ASSERT_TRUE(cache.cacheDeltaLoad(BAS::String(empty)));
  }
}

}  // namespace
