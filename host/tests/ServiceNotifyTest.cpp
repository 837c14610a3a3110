// `nphost run` under a service manager: the notes it sends to the datagram socket that
// NOTIFY_SOCKET names, read by the test as systemd would read them. Ready only once the data
// serves (and without waiting for the output's reader), a status line that follows reloads and
// delta loads, reloading around SIGHUP, stopping at the end.
#include "Nphost.h"
#include "ProcessWatch.h"
#include "ProgramFolderTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdlib>
#include <cstring>

namespace {

using namespace NphostTest;
using namespace testing;

// The service manager's end: a datagram socket in the test folder, NOTIFY_SOCKET naming it for
// the programs the test starts while it lives.
class NotifyListener {
public:
  explicit NotifyListener(const fs::path& path) {
    descriptorM = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un where{AF_UNIX, {}};
    std::strncpy(where.sun_path, path.c_str(), sizeof(where.sun_path) - 1);
    EXPECT_EQ(bind(descriptorM, reinterpret_cast<const sockaddr*>(&where), sizeof(where)), 0) << std::strerror(errno);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }
  ~NotifyListener() {
    unsetenv("NOTIFY_SOCKET");
    close(descriptorM);
  }
  // The next note, or "<none>" when none came within `limit`.
  std::string next(std::chrono::milliseconds limit = std::chrono::seconds(20)) const {
    pollfd wait{descriptorM, POLLIN, 0};
    if (poll(&wait, 1, static_cast<int>(limit.count())) <= 0) return "<none>";
    char note[4096];
    const ssize_t n = recv(descriptorM, note, sizeof note, 0);
    return n < 0 ? "<none>" : std::string(note, static_cast<std::size_t>(n));
  }

private:
  int descriptorM = -1;
};

class ServiceNotify : public ProgramFolderTest {};

const std::string never = "4 records in service; last reload: never; last delta load: never";
const char* const stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z";

// The data file is a FIFO that the test feeds late, and the output a FIFO nobody reads: nothing
// may be said before the data is in, and readiness must not wait for the output's reader.
TEST_F(ServiceNotify, ReadyComesOnceTheDataIsLoadedAndBeforeTheOutputHasAReader) {
  ASSERT_EQ(mkfifo((folderM / "data.fifo").c_str(), 0600) | mkfifo((folderM / "out.fifo").c_str(), 0600), 0);
  std::string settings = registry();
  writeFile("reg.toml", settings.replace(settings.find("np.txt"), 6, "data.fifo"));
  const NotifyListener manager(folderM / "notify.sock");
  Nphost nphost(folderM, {"run", "reg.toml", "--output", "out.fifo", "--log", "log.txt"});
  // The plug-in waits for the FIFO's writer now; a note sent before the data is in would come.
  ASSERT_TRUE(eventually([&] { return fileHas(folderM / "log.txt", "INF_NPHOST_START"); })) << nphost.errors();
  EXPECT_EQ(manager.next(std::chrono::milliseconds(500)), "<none>");
  {
    std::ofstream feed(folderM / "data.fifo");
    feed << readFile("np.txt");
  }
  EXPECT_EQ(manager.next(), "READY=1\nSTATUS=" + never);
  nphost.signal(SIGTERM);
  EXPECT_EQ(manager.next(), "STOPPING=1");
  EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
  EXPECT_EQ(manager.next(std::chrono::milliseconds(100)), "<none>");
}

TEST_F(ServiceNotify, TheStatusFollowsReloadsAndDeltaLoadsAndSighupIsAReload) {
  // Without the rejected last line, on which a reload fails.
  writeFile("np.txt", readFile("np.txt").substr(0, readFile("np.txt").find("bad-line")));
  writeFile("delta.txt", "004940555000  20240101000000  OPD\n");
  const NotifyListener manager(folderM / "notify.sock");
  Nphost nphost(folderM, {"run", "reg.toml", "--control", "np.sock", "--log", "log.txt"});
  EXPECT_EQ(manager.next(), "READY=1\nSTATUS=" + never) << nphost.errors();
  // Ready comes before the output is opened, and the control socket appears after that.
  ASSERT_TRUE(eventually([&] { return fs::exists(folderM / "np.sock"); })) << nphost.errors();
  struct Step {
    std::string what;
    std::function<void()> act;
    std::string notes;  // a pattern of the notes it brings, one after the other
  };
  const std::vector<Step> steps{
      {"a reload through the control socket", [&] { EXPECT_EQ(ctl(folderM, {"np.sock", "reload"}).first, 0); },
       std::string("STATUS=4 records in service; last reload: ") + stamp + " ok; last delta load: never"},
      {"a delta load", [&] { EXPECT_EQ(ctl(folderM, {"np.sock", "delta", "delta.txt"}).first, 0); },
       std::string("STATUS=5 records in service; last reload: ") + stamp + " ok; last delta load: " + stamp + " ok"},
      {"a reload that fails", [&] {
         writeFile("np.txt", "");
         EXPECT_EQ(ctl(folderM, {"np.sock", "reload"}).first, 1);
       },
       std::string("STATUS=5 records in service; last reload: ") + stamp + " failed; last delta load: " + stamp + " ok"},
      {"SIGHUP, on which the log is reopened", [&] { nphost.signal(SIGHUP); },
       "RELOADING=1\nMONOTONIC_USEC=[0-9]+ READY=1"},
      {"SIGTERM", [&] { nphost.signal(SIGTERM); }, "STOPPING=1"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    step.act();
    std::string notes = manager.next();
    if (step.notes.starts_with("RELOADING")) notes += " " + manager.next();
    EXPECT_THAT(notes, MatchesRegex(step.notes)) << nphost.errors();
  }
  EXPECT_EQ(nphost.waitForExit(), 0) << nphost.errors();
  EXPECT_EQ(manager.next(std::chrono::milliseconds(100)), "<none>");
}

TEST_F(ServiceNotify, ARunThatCannotStartSaysNothingAndEndsWithItsStatus) {
  fs::remove(folderM / "np.txt");
  const NotifyListener manager(folderM / "notify.sock");
  Nphost nphost(folderM, {"run", "reg.toml", "--log", "log.txt"});
  EXPECT_EQ(nphost.finish(), 3) << nphost.errors();
  EXPECT_EQ(manager.next(std::chrono::milliseconds(100)), "<none>");
}

}  // namespace
