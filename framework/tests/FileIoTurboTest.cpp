// The framework's line reader: the loaders' reading rule, the line limit, files that are no
// files, and FIFOs, whose writers may come late, never, or stop half-way.
#include "FileTestSupport.h"
#include "STR/FileIoTurbo.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <thread>

namespace {

using namespace FileTesting;
using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

struct FileIoTurboTest : FileFixture {
  // A writer whose reader went away must not end the test.
  FileIoTurboTest() { ::signal(SIGPIPE, SIG_IGN); }
  ~FileIoTurboTest() override {
    STR::FileIoTurbo::setLineLimit(limit);
    STR::FileIoTurbo::setFifoWait(wait);
    STR::FileIoTurbo::resumeWaitingForTesting();
  }
  const std::size_t limit = STR::FileIoTurbo::lineLimit();
  const std::chrono::milliseconds wait = STR::FileIoTurbo::fifoWait();
};

// What the loaders' reading loop gets: the lines it uses, the numbers of the lines whose read
// failed before the end, and whether the stream ended in an error.
struct Reading {
  Lines lines;
  std::vector<unsigned long> failed;
  bool error = false;
};

Reading readAll(STR::FileIoTurbo& reader) {
  Reading reading;
  endsWithoutHanging([&] {
    BAS::String line;
    for (unsigned long number = 1; !std::feof(reader.stream()); ++number) {
      line = BAS::NULL_STRING;
      const bool delivered = reader.readLine(line);
      if (delivered && !std::feof(reader.stream())) reading.lines.push_back(line.str());
      if (!delivered && !std::feof(reader.stream())) reading.failed.push_back(number);
    }
    reading.error = std::ferror(reader.stream()) != 0;
  });
  return reading;
}

TEST_F(FileIoTurboTest, TheReadingLoopTakesEveryLineThatEndsInALineEnd) {
  STR::FileIoTurbo::setLineLimit(4 << 20);
  const std::string withNul("a\0b", 3), longLine(3 * 1024 * 1024 + 7, 'x');  // longer than the buffer
  const std::pair<std::string, Lines> rows[] = {
      {"a\nbb\n\nccc\n", {"a", "bb", "", "ccc"}}, {"a\nb", {"a"}}, {"", {}},
      {"x\r\n" + withNul + "\n" + longLine + "\nend\n", {"x\r", withNul, longLine, "end"}}};
  STR::FileIoTurbo reader;
  for (const auto& [content, expected] : rows) {
    ASSERT_TRUE(reader.openFile(write("lines", content), 0));
    const Reading reading = readAll(reader);
    EXPECT_TRUE(reading.lines == expected && reading.failed.empty() && !reading.error);
  }
  EXPECT_TRUE(reports("ERR_LINE_TOO_LONG").empty());
}

TEST_F(FileIoTurboTest, ALineOverTheLimitIsAFailedReadThatIsReportedAndReadingGoesOnAfterIt) {
  struct Row {
    const char* what;
    std::size_t limit;
    std::string content;
    Lines lines;
    std::vector<unsigned long> failed;
  };
  const std::string mebibyte(1 << 20, 'v'), longer((1 << 20) + 1, 'u'), x10(10, 'x'), x11(11, 'x');
  const Row rows[] = {
      {"in the middle", 10, "ok\n" + x11 + "\nafter\n", {"ok", "after"}, {2}},
      {"at the limit", 10, x10 + "\n", {x10}, {}},
      {"the last line", 10, "a\n" + x11 + x11 + "\n", {"a"}, {2}},
      {"the last line without line end", 10, "a\n" + x11 + x11, {"a"}, {2}},
      {"two in a row", 10, x11 + "\n" + x11 + "\nb\n", {"b"}, {1, 2}},
      {"over many reads", 10, "a\n" + std::string(3 << 20, 'w') + "\nb\n", {"a", "b"}, {2}},
      {"the default limit", limit, "a\n" + mebibyte + "\n" + longer + "\nz\n", {"a", mebibyte, "z"}, {3}},
  };
  for (const Row& row : rows) {
    STR::FileIoTurbo::setLineLimit(row.limit);
    STR::FileIoTurbo reader;
    ASSERT_TRUE(reader.openFile(write("lines", row.content), 0));
    const Reading reading = readAll(reader);
    EXPECT_TRUE(reading.lines == row.lines) << row.what;
    EXPECT_EQ(reading.failed, row.failed) << row.what;
    std::vector<Args> expected;
    for (unsigned long number : row.failed) expected.push_back({path("lines"), std::to_string(number), std::to_string(row.limit)});
    EXPECT_EQ(reports("ERR_LINE_TOO_LONG"), expected) << row.what;
    sink->clear();
  }
}

long peakMemoryKiB() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST_F(FileIoTurboTest, ALineWithoutEndCostsNoMoreMemoryThanTheLimit) {
  // 256 MiB of zero bytes and no line end, without taking the disk's room.
  const std::string name = write("zeros", "");
  ASSERT_EQ(::truncate(name.c_str(), 256L << 20), 0);
  const long before = peakMemoryKiB();
  STR::FileIoTurbo reader;
  ASSERT_TRUE(reader.openFile(name, 0));
  const Reading reading = readAll(reader);
  EXPECT_TRUE(reading.lines.empty() && reading.failed == std::vector<unsigned long>{1} && !reading.error);
  EXPECT_LT(peakMemoryKiB() - before, 64 << 10) << "KiB more at the peak";
}

TEST_F(FileIoTurboTest, WhatIsNoFileIsRefusedWithItsReason) {
  const std::string socketName = path("socket");
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  socketName.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const struct {
    std::string name;
    bool exists;
    const char* reason;
  } rows[] = {
      {temp.path().string(), true, "it is a directory"},
      {"/dev/zero", true, "it is a character device"},
      {"/dev/null", true, "it is a character device"},
      {socketName, true, "it is a socket"},
      {path("missing"), false, "No such file or directory"},
  };
  STR::FileIoTurbo reader;
  std::vector<Args> expected;
  for (const auto& row : rows) {
    BAS::String line;
    EXPECT_EQ(reader.openFile(row.name, 8), row.exists) << row.name;
    EXPECT_TRUE(!reader.isOpen() && !reader.readLine(line) && reader.closeFile()) << row.name;
    EXPECT_EQ(reader.failure(), row.reason) << row.name;
    if (row.exists) expected.push_back({row.name, row.reason});
  }
  EXPECT_EQ(reports("ERR_FILE_NOT_READ"), expected);
  ::close(listener);
}

// A writer of a FIFO, on a thread of its own: it gets the FIFO's name and a signal that the
// reading is over.
using Writer = std::function<void(const std::string& fifo, std::shared_future<void> readingOver)>;

void writeAndClose(const std::string& fifo, const std::string& text) {
  const int descriptor = ::open(fifo.c_str(), O_WRONLY);  // waits for the reader
  (void)!::write(descriptor, text.data(), text.size());
  ::close(descriptor);
}

TEST_F(FileIoTurboTest, AFifoIsReadWhenItsWriterComesInTimeAndRefusedOtherwise) {
  struct Row {
    const char* what;
    std::chrono::milliseconds wait;
    Writer writer;
    bool open;
    Lines lines;
    bool error;
    const char* reason;  // of ERR_FILE_NOT_READ; none when null
  };
  const Row rows[] = {
      {"a writer that is there", 30s, [](const std::string& f, auto) { writeAndClose(f, "a\nb\n"); }, true, {"a", "b"}, false, nullptr},
      {"a writer that comes late", 30s,
       [](const std::string& f, auto) {
         std::this_thread::sleep_for(300ms);
         writeAndClose(f, "late\n");
       },
       true, {"late"}, false, nullptr},
      {"echo", 30s,
       [](const std::string& f, auto) { ASSERT_EQ(std::system(("sleep 0.2; echo from echo > '" + f + "'").c_str()), 0); },
       true, {"from echo"}, false, nullptr},
      {"a writer that writes nothing", 30s, [](const std::string& f, auto) { writeAndClose(f, ""); }, true, {}, false, nullptr},
      {"no writer", 300ms, nullptr, false, {}, false, "no writer opened it within 300 ms"},
      {"a writer that stalls", 300ms,
       [](const std::string& f, std::shared_future<void> over) {
         const int descriptor = ::open(f.c_str(), O_WRONLY);
         (void)!::write(descriptor, "a\nb", 3);
         over.wait();
         ::close(descriptor);
       },
       true, {"a"}, true, "no byte came from it for 300 ms"},
  };
  for (const Row& row : rows) {
    useFreshFolder(row.what);
    const std::string fifo = path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    STR::FileIoTurbo::setFifoWait(row.wait);
    std::promise<void> over;
    std::thread writer;
    if (row.writer) writer = std::thread(row.writer, fifo, over.get_future().share());
    STR::FileIoTurbo reader;
    endsWithoutHanging([&] { EXPECT_TRUE(reader.openFile(fifo, 8)) << row.what; });
    EXPECT_EQ(reader.isOpen(), row.open) << row.what;
    if (reader.isOpen()) {
      const Reading reading = readAll(reader);
      EXPECT_TRUE(reading.lines == row.lines && reading.failed.empty()) << row.what;
      EXPECT_EQ(reading.error, row.error) << row.what;
    }
    over.set_value();
    if (writer.joinable()) writer.join();
    const std::vector<Args> reported = row.reason ? std::vector<Args>{{fifo, row.reason}} : std::vector<Args>{};
    EXPECT_EQ(reports("ERR_FILE_NOT_READ"), reported) << row.what;
    EXPECT_EQ(reader.failure(), row.reason ? row.reason : "") << row.what;
    sink->clear();
  }
}

TEST_F(FileIoTurboTest, AFifoOpenedAndClosedUnreadKeepsWhatItsWriterWroteForTheNextReader) {
  const std::string fifo = path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  // More than a pipe holds: the writer is still writing when the first reader closes.
  const std::string text = numberedLines("line", 256 << 10);
  bool written = false;
  std::thread writer([&] {
    const int descriptor = ::open(fifo.c_str(), O_WRONLY);
    written = ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(descriptor);
  });
  STR::FileIoTurbo check, load;  // the plug-in's file check, then its load
  endsWithoutHanging([&] {
    EXPECT_TRUE(check.openFile(fifo, 8) && check.isOpen() && check.closeFile());
    EXPECT_TRUE(load.openFile(fifo, 8) && load.isOpen());
  });
  ASSERT_TRUE(load.isOpen());
  const Reading reading = readAll(load);
  writer.join();
  std::string read;
  for (const std::string& line : reading.lines) read += line + "\n";
  EXPECT_TRUE(written && read == text && !reading.error);
}

TEST_F(FileIoTurboTest, StopWaitingEndsAWaitForAWriterAndForBytesAtOnce) {
  // Longer than the guard against a hang: only stopWaiting can end these waits in time.
  STR::FileIoTurbo::setFifoWait(60s);
  const std::string fifo = path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  STR::FileIoTurbo reader;
  std::thread stopper([] {
    std::this_thread::sleep_for(100ms);
    STR::FileIoTurbo::stopWaiting();
  });
  endsWithoutHanging([&] { EXPECT_TRUE(reader.openFile(fifo, 8) && !reader.isOpen()); });
  stopper.join();
  const char* const stopped = "the wait for it was stopped, as the process is ending";
  EXPECT_EQ(reader.failure(), stopped);

  STR::FileIoTurbo::resumeWaitingForTesting();
  std::promise<void> over;
  std::thread writer([&fifo, readingOver = over.get_future()] {
    const int descriptor = ::open(fifo.c_str(), O_WRONLY);
    (void)!::write(descriptor, "a\n", 2);
    readingOver.wait();
    ::close(descriptor);
  });
  ASSERT_TRUE(reader.openFile(fifo, 8) && reader.isOpen());
  stopper = std::thread([] {
    std::this_thread::sleep_for(100ms);
    STR::FileIoTurbo::stopWaiting();
  });
  const Reading reading = readAll(reader);
  stopper.join();
  over.set_value();
  writer.join();
  EXPECT_TRUE(reading.lines == Lines{"a"} && reading.error);
  EXPECT_EQ(reports("ERR_FILE_NOT_READ"), (std::vector<Args>{{fifo, stopped}, {fifo, stopped}}));
}

}  // namespace
