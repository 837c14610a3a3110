// The framework's output file: a replacement or rewrite reaches every name of the target whole,
// or none of them, and what did not happen is reported as it is.
#include "FileTestSupport.h"
#include "STR/FileIo.h"
#include "STR/FileIoTurbo.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

namespace {

namespace fs = std::filesystem;
using namespace FileTesting;

struct FileIoTest : FileFixture {
  ~FileIoTest() override { STR::FileIo::failWritesAfterForTesting(-1); }
  bool publish(const std::string& name, const std::string& content, std::ios_base::openmode mode = std::ios_base::out) {
    STR::FileIo output(path(name), mode);
    output.stream() << content;
    return output.closeFile();
  }
};

TEST_F(FileIoTest, ReplacesAFileWholeOnCloseKeepingItsModeAndWritesThroughLinksAndIntoFifos) {
  const fs::perms mode = fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read;
  fs::permissions(write("data", "old\n"), mode);
  fs::create_symlink("data", path("link"));
  fs::create_symlink(path("created"), path("dangling"));
  fs::create_hard_link(write("shared", "old\n"), path("other"));
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
  const int fifo = ::open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK);
  // Past two of the steps at which a replacement asks the kernel to start writing back.
  const std::string big((17 << 20) + 3, 'n');
  {
    STR::FileIo output(path("link"), std::ios_base::out);
    output.stream() << big << std::flush;
    EXPECT_EQ(contents("data"), "old\n") << "nothing is visible before the close";
  }
  EXPECT_TRUE(contents("data") == big && fs::status(path("data")).permissions() == mode);
  EXPECT_TRUE(publish("dangling", "made\n") && publish("shared", "new\n") && publish("fifo", "piped\n"));
  EXPECT_TRUE(contents("created") == "made\n" && contents("other") == "new\n");
  char piped[16] = {};
  EXPECT_TRUE(::read(fifo, piped, sizeof piped) == 6 && std::string(piped) == "piped\n") << piped;
  ::close(fifo);
  EXPECT_TRUE(fs::is_symlink(path("link")) && fs::is_symlink(path("dangling")) && fs::is_fifo(path("fifo")));
  EXPECT_EQ(entries().size(), 7u) << "a temporary file was left behind";
  EXPECT_TRUE(publish("data", "two\n", std::ios_base::out | std::ios_base::app));
  EXPECT_EQ(contents("data"), big + "two\n");
  EXPECT_TRUE(reports("ERR_FILE_NOT_WRITTEN").empty());
}

// A fault while `data` (and its second name `other`, for a hard-linked target) is rewritten.
struct Fault {
  const char* what;
  bool hardLinked;
  std::size_t oldBytes, newBytes;
  std::function<void(FileIoTest&)> before;        // before the writer opens the file
  std::function<void(FileIoTest&)> whileWriting;  // between the opening and the close
  const char* reason;                             // of ERR_FILE_NOT_WRITTEN
};

// Every name holds what it held just before the close, nothing is left beside it, and the one
// report says so.
void expectLeftAsItWas(FileIoTest& test, const Fault& fault) {
  test.write("data", numberedLines("old", fault.oldBytes));
  if (fault.hardLinked) fs::create_hard_link(test.path("data"), test.path("other"));
  if (fault.before) fault.before(test);
  STR::FileIo output(test.path("data"), std::ios_base::out);
  output.stream() << numberedLines("new", fault.newBytes);
  if (fault.whileWriting) fault.whileWriting(test);
  const std::string held = test.contents("data");
  EXPECT_FALSE(output.closeFile()) << fault.what;
  EXPECT_TRUE(test.contents("data") == held) << fault.what << ": the file was touched";
  if (fault.hardLinked) {
    EXPECT_TRUE(test.contents("other") == held) << fault.what << ": its second name was touched";
  }
  const std::vector<std::string> names = fault.hardLinked ? std::vector<std::string>{"data", "other"} : std::vector<std::string>{"data"};
  EXPECT_EQ(test.entries(), names) << fault.what << ": something was left behind";
  EXPECT_EQ(test.reports("ERR_FILE_NOT_WRITTEN"), (std::vector<Args>{{test.path("data"), fault.reason}})) << fault.what;
  test.sink->clear();
}

const char* const changedCM =
    "it changed since this process last read or wrote it (another file, size or modification time); it is left as it is";

void readData(FileIoTest& test) {
  STR::FileIoTurbo reader;
  ASSERT_TRUE(reader.openFile(test.path("data"), 8) && reader.isOpen());
}
// A feed drops in a new snapshot the way feeds do: written beside, renamed over.
void dropIn(FileIoTest& test) { fs::rename(test.write("snapshot", "a feed's snapshot\n"), test.path("data")); }

TEST_F(FileIoTest, AFailedOrRefusedRewriteLeavesEveryNameAsItWasAndSaysWhy) {
  const Fault faults[] = {
      {"write fails, one link", false, 1000, 400 << 10, [](FileIoTest&) { STR::FileIo::failWritesAfterForTesting(100 << 10); },
       nullptr, "No space left on device; it is left as it was"},
      {"write fails, hard-linked", true, 1000, 400 << 10, [](FileIoTest&) { STR::FileIo::failWritesAfterForTesting(100 << 10); },
       nullptr, "No space left on device; it is left as it was"},
      {"replaced after it was read", false, 1000, 2000, [](FileIoTest& t) { readData(t), dropIn(t); }, nullptr, changedCM},
      {"grown in place after it was read", true, 1000, 2000,
       [](FileIoTest& t) {
         readData(t);
         std::ofstream(t.path("data"), std::ios::app) << "appended 1\n";
       },
       nullptr, changedCM},
      {"replaced while it was written", false, 1000, 2000, nullptr, dropIn, changedCM},
  };
  for (const Fault& fault : faults) {
    STR::FileIo::failWritesAfterForTesting(-1);
    useFreshFolder(fault.what);
    expectLeftAsItWas(*this, fault);
  }
  // Nothing to leave as it was: a file that cannot even be created.
  STR::FileIo missing(path("missing/data"), std::ios_base::out);
  EXPECT_TRUE(!missing.isOpen() && missing.stream().bad() && !missing.closeFile());
  EXPECT_EQ(reports("ERR_FILE_NOT_WRITTEN"), (std::vector<Args>{{path("missing/data"), "No such file or directory; it was not created"}}));
}

// A tmpfs of the test's own, so that the disk is full where the test wants it; gone at the end.
class SmallDisk {
public:
  SmallDisk(const std::string& where, const std::string& size) : whereM(where) {
    mountedM = ::mount("tmpfs", where.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
    errorM = mountedM ? 0 : errno;
  }
  ~SmallDisk() {
    if (mountedM) ::umount2(whereM.c_str(), MNT_DETACH);
  }
  bool mounted() const { return mountedM; }
  int error() const { return errorM; }

private:
  std::string whereM;
  bool mountedM;
  int errorM;
};

TEST_F(FileIoTest, AFullDiskLeavesEveryNameAsItWasAndSaysWhy) {
  useFreshFolder("disk");
  const SmallDisk disk(folder, "1m");
  if (!disk.mounted()) GTEST_SKIP() << "a tmpfs cannot be mounted here (" << std::strerror(disk.error()) << "), and a full disk needs one";
  const Fault faults[] = {
      // The new content does not fit beside the old: staging it fails.
      {"one link", false, 300 << 10, 900 << 10, nullptr, nullptr, "No space left on device; it is left as it was"},
      // Staged beside the old it fits, but the target has no room for it: refused before the copy.
      {"hard-linked", true, 300 << 10, 600 << 10, nullptr, nullptr,
       "there is no room for its new content (No space left on device); it is left as it was"},
  };
  for (const Fault& fault : faults) {
    expectLeftAsItWas(*this, fault);
    for (const std::string& name : entries()) fs::remove(path(name));
  }
}

// The pipes through which a writer in a child process, stopped once its content is staged,
// says that it is there and learns when to go on.
int stagedSignal[2], goSignal[2];
void pauseWhenStaged(STR::FileIo::Step step) {
  char byte = 's';
  if (step == STR::FileIo::Step::STAGED && ::write(stagedSignal[1], &byte, 1) == 1) (void)!::read(goSignal[0], &byte, 1);
}

TEST_F(FileIoTest, OnlyTheTemporariesOfWritersThatAreGoneAreRemoved) {
  write("data", "old\n");
  // Left by killed writers: no lock is held on them.
  write(".data.tmp.4000000.0", "partial");
  EXPECT_TRUE(publish("data", "rewritten\n"));
  EXPECT_EQ(reports("INF_FILE_TEMPORARY_REMOVED"), (std::vector<Args>{{path(".data.tmp.4000000.0"), path("data")}}));
  sink->clear();

  ASSERT_TRUE(::pipe(stagedSignal) == 0 && ::pipe(goSignal) == 0);
  const pid_t child = ::fork();
  if (child == 0) {
    STR::FileIo::onStepForTesting(&pauseWhenStaged);
    STR::FileIo output(path("data"), std::ios_base::out);
    output.stream() << "from the live writer\n";
    ::_exit(output.closeFile() ? 0 : 1);
  }
  ::close(stagedSignal[1]);
  ::close(goSignal[0]);
  char byte = 0;
  ASSERT_EQ(::read(stagedSignal[0], &byte, 1), 1) << "the writer did not stage its content";
  // Beside the live writer's temporary: two of killed writers, and two that are no temporaries of the file.
  std::vector<std::string> kept = entries();
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_TRUE(kept[0].starts_with(".data.tmp." + std::to_string(child) + "."));
  kept.insert(kept.begin() + 1, {".data.tmp.notes", ".other.tmp.4000001.0"});
  for (const char* name : {".data.tmp.4000001.0", ".data.tmp.4000001.1", ".data.tmp.notes", ".other.tmp.4000001.0"})
    write(name, "partial");

  STR::FileIoTurbo reader;  // the start-up's opening
  EXPECT_TRUE(reader.openFile(path("data"), 8) && reader.isOpen());
  std::vector<Args> removed = reports("INF_FILE_TEMPORARY_REMOVED");
  std::sort(removed.begin(), removed.end());
  EXPECT_EQ(removed, (std::vector<Args>{{path(".data.tmp.4000001.0"), path("data")}, {path(".data.tmp.4000001.1"), path("data")}}));
  EXPECT_EQ(entries(), kept);
  EXPECT_EQ(::write(goSignal[1], "g", 1), 1);
  int status = 0;
  endsWithoutHanging([&] { ::waitpid(child, &status, 0); });
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the live writer failed";
  EXPECT_EQ(contents("data"), "from the live writer\n");
  for (int descriptor : {stagedSignal[0], goSignal[1]}) ::close(descriptor);
}

}  // namespace
