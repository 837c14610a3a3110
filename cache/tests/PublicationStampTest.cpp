// The stamps of the publications: which operations publish and with which number and time, and
// that a lookup racing reloads and delta loads reads a record and a stamp of the same tree.
#include "cache/CacheManager.h"
#include "testing/RecordingCacheOwner.h"
#include "testing/TempDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

using DAT::NumberPortability::NumberPortabilityData;
using DAT::NumberPortability::PublicationStamp;

std::int64_t nowMillis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

struct Cache {
  Cache() {
    NpTest::writeText(data, "030111111 20200101000000 OPA\n");
  }
  // The stamp that a batched search hands out, after checking that it is the published one.
  PublicationStamp searched() {
    const std::string_view number = "004930111111";
    const BAS::DateTime date("20300101000000");
    NumberPortabilityData record;
    bool found = false;
    PublicationStamp stamp;
    cache.searchMany(&number, &date, 1, 0, &record, &found, nullptr, &stamp);
    EXPECT_EQ(stamp, cache.publishedStamp());
    return stamp;
  }

  NpTest::TempDirectory dir;
  const std::string data = dir.path("np.txt");
  BAS::String nac{"0"}, iac{"00"}, cc{"49"}, sign{"+"};
  NpTest::RecordingCacheOwner owner{data};
  DAT::NumberPortability::CacheManager cache{&owner, nac, iac, cc, sign, 3, BAS::String(data)};
};

TEST(PublicationStamp, TheLoadAndEachReloadOrDeltaLoadThatExchangesPublishTheNextNumberAndTime) {
  struct Row {
    const char* label;
    enum { LOAD, RELOAD, DELTA } operation;
    bool reuse;
    const char* content;  // of the main data file (load, reload) or the delta file; null: absent
    std::uint64_t number;  // the published number afterwards
  };
  const Row rows[] = {
      {"load", Row::LOAD, false, "030111111 20200101000000 OPA\n", 1},
      {"reload", Row::RELOAD, false, "030111111 20210101000000 OPB\n", 2},
      {"reload cut short, old data kept", Row::RELOAD, false, "030111111 20220101000000 OPC\nbad\n", 2},
      {"delta load", Row::DELTA, false, "030111111 20230101000000 OPD\n", 3},
      {"delta load of a missing file", Row::DELTA, false, nullptr, 3},
      {"reload cut short, what was read is used", Row::RELOAD, true, "030111111 20240101000000 OPE\nbad\n", 4},
      {"reload of a missing file", Row::RELOAD, true, nullptr, 4},
      {"delta load of an empty file", Row::DELTA, false, "", 5},
  };
  Cache c;
  EXPECT_EQ(c.cache.publishedStamp(), PublicationStamp{}) << "nothing published before the load";
  PublicationStamp last;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    const std::string file = row.operation == Row::DELTA ? c.dir.path("delta.txt") : c.data;
    if (row.content != nullptr) NpTest::writeText(file, row.content);
    else std::filesystem::remove(file);
    const std::int64_t before = nowMillis();
    if (row.operation == Row::LOAD) c.cache.load();
    if (row.operation == Row::RELOAD) c.cache.cacheReload(row.reuse);
    if (row.operation == Row::DELTA) c.cache.cacheDeltaLoad(BAS::String(file));
    const std::int64_t after = nowMillis();
    const PublicationStamp stamp = c.searched();
    EXPECT_EQ(stamp.numberM, row.number);
    if (stamp.numberM == last.numberM) {
      EXPECT_EQ(stamp, last) << "no publication, no new time";
    } else {
      EXPECT_GE(stamp.utcMillisM, before);
      EXPECT_LE(stamp.utcMillisM, after);
    }
    last = stamp;
  }
}

// Publication n holds, for every number, a record of the year 2000 + n of operator "G<n>" on
// top of the older ones: an answer read from one tree with the stamp of another shows.
TEST(PublicationStamp, ALookupRacingReloadsAndDeltaLoadsReadsItsRecordsAndStampFromOneTree) {
  constexpr int numbersCM = 4000;
  const auto version = [](std::uint64_t n) {
    std::string text;
    for (int i = 0; i < numbersCM; ++i) {
      text += "0301" + std::to_string(100000 + i) + " " + std::to_string(2000 + n) + "0101000000 G" + std::to_string(n) + "\n";
    }
    return text;
  };
  Cache c;
  NpTest::writeText(c.data, version(1));
  ASSERT_TRUE(c.cache.load());
  std::atomic<bool> changing{true};
  std::atomic<int> faults{0}, batches{0};
  std::vector<std::thread> readers;
  for (unsigned t = 0; t < 2 * std::max(2u, std::thread::hardware_concurrency()); ++t) {
    readers.emplace_back([&, t] {
      std::vector<std::string> texts;
      for (int i = 0; i < 64; ++i) texts.push_back("004930" + std::to_string(1100000 + (i * 61 + static_cast<int>(t)) % numbersCM));
      const std::vector<std::string_view> numbers(texts.begin(), texts.end());
      const std::vector<BAS::DateTime> dates(numbers.size(), BAS::DateTime("20990101000000"));
      std::vector<NumberPortabilityData> records(numbers.size());
      bool found[64];
      std::uint64_t previous = 0;
      for (int round = 0; changing.load() || round < 200; ++round) {
        PublicationStamp stamp;
        c.cache.searchMany(numbers.data(), dates.data(), numbers.size(), 0, records.data(), found, nullptr, &stamp);
        const std::string expected = "G" + std::to_string(stamp.numberM);
        int wrong = stamp.numberM < previous ? 1 : 0;  // publications only ever go forward
        for (std::size_t i = 0; i < numbers.size(); ++i) wrong += found[i] && records[i].networkOperatorM.view() == expected ? 0 : 1;
        faults.fetch_add(wrong);
        batches.fetch_add(1);
        previous = stamp.numberM;
      }
    });
  }
  for (std::uint64_t n = 2; n <= 13; ++n) {
    if (n % 2 == 0) {
      NpTest::writeText(c.data, version(n));
      EXPECT_TRUE(c.cache.cacheReload(false));
    } else {
      EXPECT_TRUE(c.cache.cacheDeltaLoad(BAS::String(NpTest::writeText(c.dir.path("delta.txt"), version(n)))));
    }
  }
  changing = false;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(faults.load(), 0) << "of " << batches.load() << " batches";
  EXPECT_EQ(c.searched().numberM, 13U);
}

}  // namespace
