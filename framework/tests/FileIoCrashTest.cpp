// kill -9 at each step of a rewrite: the next opening of the file, as at the next start, leaves
// every name of it holding the old content or the new, whole, and nothing behind.
#include "FileTestSupport.h"
#include "STR/FileIo.h"
#include "STR/FileIoTurbo.h"
#include "STR/StagedFiles.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace {

namespace fs = std::filesystem;
using namespace FileTesting;
using Step = STR::FileIo::Step;

Step killAt;
void killHere(Step step) {
  if (step == killAt) ::kill(::getpid(), SIGKILL);
}

// Writes `content` over `name` in a child process that is killed at `step`.
void rewriteKilledAt(Step step, const std::string& name, const std::string& content) {
  const pid_t child = ::fork();
  if (child == 0) {
    killAt = step;
    STR::FileIo::onStepForTesting(&killHere);
    STR::FileIo output(name, std::ios_base::out);
    output.stream() << content;
    output.closeFile();
    ::_exit(0);
  }
  int status = 0;
  endsWithoutHanging([&] { ::waitpid(child, &status, 0); });
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the writer was not killed at the step";
}

// What the reading rule of the loaders sees of a file.
std::string asLoaded(STR::FileIoTurbo& reader) {
  std::string text;
  for (BAS::String line; !std::feof(reader.stream());)
    if (reader.readLine(line) && !std::feof(reader.stream())) text += line.str() + "\n";
  return text;
}

struct Crash {
  const char* what;
  Step step;
  bool hardLinked;
  bool pending;        // a rewrite is pending after the kill
  bool becomesNew;     // every name holds the new content after the opening, else the old
  const char* report;  // what the opening reports
};

struct FileIoCrashTest : FileFixture {};

TEST_F(FileIoCrashTest, TheNextOpeningLeavesEveryNameWholeWhereverTheWriterWasKilled) {
  // Several copy blocks long, and shorter than the old content, so that a cut shows either way.
  const std::string oldContent = numberedLines("old", 3 << 20), newContent = numberedLines("new", (5 << 20) / 2);
  const Crash crashes[] = {
      {"staged, one link", Step::STAGED, false, false, false, "INF_FILE_TEMPORARY_REMOVED"},
      {"staged", Step::STAGED, true, false, false, "INF_FILE_TEMPORARY_REMOVED"},
      {"reserved", Step::RESERVED, true, false, false, "INF_FILE_TEMPORARY_REMOVED"},
      {"marked pending", Step::MARKED, true, true, true, "INF_FILE_REWRITE_FINISHED"},
      {"mid-copy", Step::COPYING, true, true, true, "INF_FILE_REWRITE_FINISHED"},
      {"copied", Step::COPIED, true, true, true, "INF_FILE_REWRITE_FINISHED"},
  };
  for (const Crash& crash : crashes) {
    SCOPED_TRACE(crash.what);
    useFreshFolder(crash.what);
    write("data", oldContent);
    if (crash.hardLinked) fs::create_hard_link(path("data"), path("other"));
    const std::vector<std::string> names = entries();
    rewriteKilledAt(crash.step, path("data"), newContent);
    EXPECT_EQ(STR::StagedFiles::rewritePending(path("data")), crash.pending);
    if (crash.step == Step::COPYING) {
      const std::string mixed = contents("data");
      EXPECT_TRUE(mixed != oldContent && mixed != newContent) << "not killed part-way through the copy";
    }

    STR::FileIoTurbo reader;
    ASSERT_TRUE(reader.openFile(path("data"), 8) && reader.isOpen());
    const std::string& expected = crash.becomesNew ? newContent : oldContent;
    EXPECT_TRUE(asLoaded(reader) == expected);
    for (const std::string& name : names) EXPECT_TRUE(contents(name) == expected) << name << " is not whole";
    EXPECT_EQ(entries(), names) << "something was left behind";
    EXPECT_FALSE(STR::StagedFiles::rewritePending(path("data")));
    const std::vector<Args> reported = reports(crash.report);
    ASSERT_EQ(reported.size(), 1u);
    const std::string left = reported[0][crash.becomesNew ? 1 : 0].str();
    EXPECT_EQ(reported[0][crash.becomesNew ? 0 : 1], path("data"));
    EXPECT_TRUE(left.starts_with(path(crash.becomesNew ? ".pending-rewrite." : ".data.tmp."))) << left;
    sink->clear();
  }
}

TEST_F(FileIoCrashTest, APendingCopyIsLeftAloneByAProcessThatNeverWritesAndByAFileThatWasReplaced) {
  const std::string oldContent = numberedLines("old", 3 << 20), newContent = numberedLines("new", 2 << 20);
  write("data", oldContent);
  fs::create_hard_link(path("data"), path("other"));
  rewriteKilledAt(Step::COPYING, path("data"), newContent);
  const std::string mixed = contents("data");

  // nphost check: reads, says that a rewrite is pending, and changes nothing.
  const pid_t check = ::fork();
  if (check == 0) {
    STR::StagedFiles::setProcessNeverWrites();
    STR::FileIoTurbo reader;
    const bool opened = reader.openFile(path("data"), 8) && reader.isOpen();
    ::_exit(opened && STR::StagedFiles::rewritePending(path("data")) && contents("data") == mixed ? 0 : 1);
  }
  int status = 0;
  endsWithoutHanging([&] { ::waitpid(check, &status, 0); });
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(contents("data") == mixed && contents("other") == mixed);

  // Once the name leads to another file, the copy is not for it; the other name still leads to
  // the file that it was made for.
  fs::rename(write("snapshot", "a feed's snapshot\n"), path("data"));
  STR::FileIoTurbo reader;
  ASSERT_TRUE(reader.openFile(path("data"), 8) && reader.isOpen());
  EXPECT_EQ(asLoaded(reader), "a feed's snapshot\n");
  EXPECT_TRUE(reports("INF_FILE_REWRITE_FINISHED").empty());
  EXPECT_TRUE(!STR::StagedFiles::rewritePending(path("data")) && STR::StagedFiles::rewritePending(path("other")));
  ASSERT_TRUE(reader.openFile(path("other"), 8) && reader.isOpen());
  EXPECT_TRUE(asLoaded(reader) == newContent && contents("other") == newContent);
  EXPECT_EQ(reports("INF_FILE_REWRITE_FINISHED").size(), 1u);
  EXPECT_EQ(entries(), (std::vector<std::string>{"data", "other"}));
}

}  // namespace
