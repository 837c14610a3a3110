// Reload and delta load: what each reports, which data both trees hold afterwards, and what the
// main data file holds after a delta load. The standby tree is checked by publishing it with a
// delta load of an empty file.
#include "plugin/tests/TestEnvironment.h"

#include "STR/FileIo.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using NpTest::StatusLine;
using NpTest::TestEnvironment;
using DAT::NumberPortability::PlugIn;

// One number with two records, one written with hyphens, in three of the forms a file may use.
const char* const initialData =
    "+4930123456 20200115120000 OPA\n"
    "030123456 20230301000000 OPB\n"
    "0044-1234-567 20210101000000 OPC\n";

// initialData as the plug-in prints it: stored keys (digits only) in key order, newest first.
const std::string initialDump =
    "00441234567  20210101000000  OPC\n"
    "004930123456  20230301000000  OPB\n"
    "004930123456  20200115120000  OPA\n";
const std::string withDelta = initialDump + "0049891234  20220202020202  OPD\n";
const std::string newDump = "004930700001  20200101000000  NEW1\n";

const StatusLine dataOpened{"INF_FILE_OPENED", 1, {"np.txt"}};
const StatusLine deltaOpened{"INF_FILE_OPENED", 1, {"delta.txt"}};
const StatusLine oldDataDeleted{"INF_DELETE_OLD_DATA", 1, {"NumberPortability"}};

StatusLine rejected(const char* id, const char* file, int line, std::vector<std::string> args) {
  const std::string where = std::to_string(line) + " in File '" + file + "'. ";
  if (std::string(id) == "ERR_NUMBER_OF_FIELDS_IN_RECORD") {
    args.push_back("At Line# " + where);
  } else {
    args.insert(args.begin(), "Invalid N-Port Data at Line# " + where);
  }
  return {id, 2, args};
}

// A plug-in started on initialData. Its files are named relative to the test folder, so that
// messages quote them as "np.txt" and "delta.txt".
struct Started {
  TestEnvironment env;
  NpTest::WorkingDirectory inFolder{env.dir.path()};
  Started() {
    env.writeFile("np.txt", initialData);
    env.configure("np.txt");
    env.start();
    env.sink->clear();
  }
  bool reload(bool reuseOnFailure) { return env.plugIn->cacheManager()->cacheReload(reuseOnFailure); }
  bool deltaLoad(const std::string& file) { return env.plugIn->cacheManager()->cacheDeltaLoad(BAS::String(file)); }
  // Publishes the standby tree without changing the data.
  void exchange() {
    env.writeFile("empty-delta.txt", "");
    ASSERT_TRUE(deltaLoad("empty-delta.txt"));
  }
  // What `p` holds, as its dump prints it into a file with older content, without the banner.
  // Every printed record must also be what a lookup at its date answers.
  std::string content(PlugIn& p) {
    const std::string out = env.writeFile("dump.txt", "older content that the dump replaces\n\n\n");
    EXPECT_TRUE(p.cacheManager()->printData(BAS::String(out)));
    std::string text = NpTest::readText(out);
    if (text.rfind(NpTest::dumpBanner, 0) != 0) return "<no banner> " + text;
    text.erase(0, NpTest::dumpBanner.size());
    std::istringstream records(text);
    for (std::string number, date, op; records >> number >> date >> op;) {
      EXPECT_EQ(TestEnvironment::lookupIn(p, number, date.c_str()), op) << number << " at " << date;
    }
    return text;
  }
  std::string content() { return content(*env.plugIn); }
};

struct ReloadRow {
  const char* label;
  const char* newContent;  // nullptr: the data file is removed
  bool reuseOnFailure;
  bool result;
  std::vector<StatusLine> statuses;  // all that the reload reports, in order
  std::string content;               // what both trees hold afterwards
};

TEST(CacheReload, OutcomeDependsOnTheFileCheckTheLastLineAndReuseOnFailure) {
  const char* const lastLineShort = "030700001 20200101000000 NEW1\n030700002 20200101000000\n";
  const StatusLine shortLine = rejected("ERR_NUMBER_OF_FIELDS_IN_RECORD", "np.txt", 2, {"2", "3", "030700002 20200101000000"});
  const StatusLine duplicate = rejected("ERR_DUPLICATE_NUMPORTDATA", "np.txt", 2, {"004930700001", "20200101000000"});
  const StatusLine badDate = rejected("ERR_INVALID_DATETIME", "np.txt", 1, {"2020", "004930700009"});
  const StatusLine notFound{"ERR_FILE_NOT_FOUND", 4, {"np.txt"}};
  const std::vector<ReloadRow> rows = {
      {"short last line, no reuse: old data stays, line reported once", lastLineShort, false, false,
       {dataOpened, shortLine}, initialDump},
      {"short last line, reuse: new data, line reported in both passes", lastLineShort, true, true,
       {dataOpened, shortLine, shortLine, oldDataDeleted}, newDump},
      {"a duplicate last line counts as a good one", "030700001 20200101000000 NEW1\n+4930700001 20200101000000 NEW2\n",
       false, true, {dataOpened, duplicate, duplicate, oldDataDeleted}, newDump},
      {"bad date on an earlier line, good last line", "030700009 2020 BAD\n030700001 20200101000000 NEW1\n", false, true,
       {dataOpened, badDate, badDate, oldDataDeleted}, newDump},
      {"empty file, no reuse: old data stays", "", false, false, {dataOpened}, initialDump},
      {"empty file, reuse: both trees end empty", "", true, true, {dataOpened, oldDataDeleted}, ""},
      {"missing file, no reuse", nullptr, false, false, {notFound}, initialDump},
      {"missing file, reuse: the data stays all the same", nullptr, true, false, {notFound}, initialDump},
  };
  for (const ReloadRow& row : rows) {
    SCOPED_TRACE(row.label);
    Started s;
    if (row.newContent) {
      s.env.writeFile("np.txt", row.newContent);
    } else {
      std::filesystem::remove("np.txt");
    }
    EXPECT_EQ(s.reload(row.reuseOnFailure), row.result);
    EXPECT_EQ(s.env.statuses(), row.statuses);
    EXPECT_EQ(s.content(), row.content);
    SCOPED_TRACE("the other tree");
    s.exchange();
    EXPECT_EQ(s.content(), row.content);
  }
}

struct DeltaRow {
  const char* label;
  const char* delta;        // nullptr: the delta file does not exist
  const char* reloadFirst;  // a data file whose reload without reuse fails before, or nullptr
  bool result;
  std::vector<StatusLine> statuses;  // all that the delta load reports, in order
  std::string content;               // what both trees hold afterwards
};

TEST(CacheDeltaLoad, AddsToBothTreesAndRewritesTheMainFileInItsOwnForm) {
  const StatusLine duplicate = rejected("ERR_DUPLICATE_NUMPORTDATA", "delta.txt", 2, {"004930123456", "20200115120000"});
  const StatusLine badDate = rejected("ERR_INVALID_DATETIME", "delta.txt", 3, {"2022", "004930999"});
  const StatusLine twoFields = rejected("ERR_NUMBER_OF_FIELDS_IN_RECORD", "delta.txt", 1, {"2", "3", "only two"});
  const StatusLine sameAsLoaded = rejected("ERR_DUPLICATE_NUMPORTDATA", "delta.txt", 2, {"004930123456", "20230301000000"});
  const std::vector<DeltaRow> rows = {
      {"a new record, a duplicate of loaded data and an unreadable date: rejections reported in both passes",
       "0891234 20220202020202 OPD\n+4930123456 20200115120000 OPX\n030999 2022 OPY\n", nullptr, true,
       {deltaOpened, duplicate, badDate, duplicate, badDate}, withDelta},
      {"every line rejected: exchanged and rewritten all the same", "only two\n030123456 20230301000000 OPB\n", nullptr,
       true, {deltaOpened, twoFields, sameAsLoaded, twoFields, sameAsLoaded}, initialDump},
      {"missing delta file: nothing changes, the main file is not rewritten", nullptr, nullptr, false,
       {{"ERR_FILE_NOT_FOUND", 4, {"delta.txt"}}}, initialDump},
      // The failed reload emptied the standby tree; the old records must come back with the delta.
      {"after a reload without reuse failed", "0891234 20220202020202 OPD\n", "030700001 20200101000000 NEW1\nbroken\n",
       true, {deltaOpened}, withDelta},
  };
  for (const DeltaRow& row : rows) {
    SCOPED_TRACE(row.label);
    Started s;
    if (row.reloadFirst) {
      s.env.writeFile("np.txt", row.reloadFirst);
      ASSERT_FALSE(s.reload(false));
      s.env.sink->clear();
    }
    if (row.delta) s.env.writeFile("delta.txt", row.delta);

    EXPECT_EQ(s.deltaLoad("delta.txt"), row.result);
    EXPECT_EQ(s.env.statuses(), row.statuses);
    EXPECT_EQ(s.content(), row.content);
    EXPECT_EQ(NpTest::readText("np.txt"), row.result ? row.content : std::string(initialData));

    // A plug-in started on the main file reads the same records back, and rejects none.
    s.env.configure("np.txt", "49", "0", "NumberPortabilityCopy");
    PlugIn copy("NumberPortabilityCopy", "10008");
    ASSERT_TRUE(copy.init());
    EXPECT_EQ(s.content(copy), row.content);
    copy.shutdown();
    for (const BAS::LogRecord& record : s.env.sink->records()) {
      EXPECT_FALSE(record.object == BAS::String("NumberPortabilityCopy") && record.severity == 2) << record.id;
    }

    SCOPED_TRACE("the other tree");
    s.exchange();
    EXPECT_EQ(s.content(), row.content);
  }
}

// What the user named as main data file stays what it was: the rewrite goes to the file that
// the name leads to, and the file keeps its mode, owner and links. A rewrite that fails to
// write is reported and leaves that file whole.
TEST(CacheDeltaLoad, RewritesTheFileThatTheMainFileNameLeadsTo) {
  namespace fs = std::filesystem;
  enum Layout { PLAIN, SYMBOLIC_LINK, HARD_LINK };
  const char* const layoutNames[] = {"plain file", "symbolic link", "hard link"};
  for (const Layout layout : {PLAIN, SYMBOLIC_LINK, HARD_LINK}) {
    for (const bool writeFails : {false, true}) {
      SCOPED_TRACE(std::string(layoutNames[layout]) + (writeFails ? ", write fails" : ""));
      Started s;
      // `reached` is the file that np.txt leads to, or its second name.
      std::string reached = "np.txt";
      if (layout == SYMBOLIC_LINK) {
        fs::create_directory("real");
        fs::rename("np.txt", "real/data.txt");
        fs::create_symlink("real/data.txt", "np.txt");
        reached = "real/data.txt";
      } else if (layout == HARD_LINK) {
        fs::create_hard_link("np.txt", "second-name.txt");
        reached = "second-name.txt";
      }
      ASSERT_EQ(::chmod(reached.c_str(), 0640), 0);
      // Only a privileged run can give the file away; the owner is checked where it could.
      const bool givenAway = ::chown(reached.c_str(), 4321, 4322) == 0;
      s.env.writeFile("delta.txt", "0891234 20220202020202 OPD\n");
      if (writeFails) STR::FileIo::failWritesAfterForTesting(10);

      EXPECT_TRUE(s.deltaLoad("delta.txt"));
      STR::FileIo::failWritesAfterForTesting(-1);
      std::vector<StatusLine> expected = {deltaOpened};
      if (writeFails) expected.push_back({"ERR_FILE_NOT_WRITTEN", 4, {"np.txt", std::strerror(ENOSPC)}});
      EXPECT_EQ(s.env.statuses(), expected);
      const std::string content = writeFails ? std::string(initialData) : withDelta;
      EXPECT_EQ(NpTest::readText("np.txt"), content);
      EXPECT_EQ(NpTest::readText(reached), content);
      EXPECT_EQ(fs::is_symlink("np.txt"), layout == SYMBOLIC_LINK);
      EXPECT_EQ(fs::hard_link_count(reached), layout == HARD_LINK ? 2U : 1U);
      struct stat status {};
      ASSERT_EQ(::stat(reached.c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & 07777, 0640U);
      if (givenAway) {
        EXPECT_EQ(status.st_uid, 4321U);
        EXPECT_EQ(status.st_gid, 4322U);
      }
      for (const auto& entry : fs::recursive_directory_iterator(".")) {
        EXPECT_EQ(entry.path().filename().string().find(".tmp."), std::string::npos) << entry.path();
      }
    }
  }
}

// A FIFO named as destination is written, not replaced, so its reader gets the dump.
TEST(CachePrintData, WritesIntoAFifoWhoseReaderGetsTheDump) {
  Started s;
  ASSERT_EQ(::mkfifo("dump.fifo", 0600), 0);
  // The reading end is open before the print starts, and a writing end stays open until the
  // print has ended, so the reader neither waits for a writer that never comes nor takes the
  // moment before the print opens the FIFO for its end.
  const int readEnd = ::open("dump.fifo", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(readEnd, 0);
  const int heldOpen = ::open("dump.fifo", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(heldOpen, 0);
  ASSERT_EQ(::fcntl(readEnd, F_SETFL, 0), 0);
  std::string received;
  std::thread reader([readEnd, &received] {
    char buffer[4096];
    for (ssize_t n; (n = ::read(readEnd, buffer, sizeof buffer)) > 0;) received.append(buffer, static_cast<std::size_t>(n));
  });

  EXPECT_TRUE(s.env.plugIn->cacheManager()->printData(BAS::String("dump.fifo")));
  ::close(heldOpen);
  reader.join();
  ::close(readEnd);
  EXPECT_EQ(received, NpTest::dumpBanner + initialDump);
  EXPECT_TRUE(std::filesystem::is_fifo("dump.fifo"));
  EXPECT_EQ(s.env.statuses(), std::vector<StatusLine>{});
}

TEST(CachePrintData, NullStringWritesToStandardOutput) {
  Started s;
  testing::internal::CaptureStdout();
  const bool printed = s.env.plugIn->cacheManager()->printData(BAS::NULL_STRING);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), NpTest::dumpBanner + initialDump);
  EXPECT_TRUE(printed);
}

TEST(CacheSearch, NumbersAreSearchedOnlyInTheStoredForm) {
  Started s;
  EXPECT_EQ(s.env.lookup("004930123456"), "OPB");
  // Characters other than digits are skipped, so separators do not matter ...
  EXPECT_EQ(s.env.lookup("0049-30-123456"), "OPB");
  EXPECT_EQ(s.env.lookup("0044 1234 567"), "OPC");
  // ... but no other form of the number is normalised at lookup.
  for (const char* otherForm : {"+4930123456", "030123456", "4930123456", "30123456", "+441234567"}) {
    EXPECT_EQ(s.env.lookup(otherForm), std::nullopt) << otherForm;
  }
}

}  // namespace
