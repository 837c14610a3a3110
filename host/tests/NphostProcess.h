// Test helpers for the nphost program tests: a test folder of its own holding a small data file
// and a registry file for it, a line reader for pipes and sockets, and one nphost process,
// started in a folder, with pipes to its standard input and output and its standard error in a
// file.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace NphostTest {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// The data file np.txt: a number with two records, a number block with a longer number of its
// own, and a line that the plug-in rejects (line 5).
inline const char* const dataCM =
    "+4930123456  20200101000000  OPA\n"
    "030123456  20230301000000  OPB\n"
    "0049151  20000101000000  BLK\n"
    "01511234567  20220101000000  OPC\n"
    "bad-line  20200101000000\n";

inline std::string readText(const fs::path& file) {
  std::ifstream in(file);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A registry file for np.txt; `framework` comes first, `extra` is added to the plug-in's table.
inline std::string registry(const std::string& framework = "[Framework]\nEventHandler = \"EventHandler\"\n",
                            const std::string& extra = "") {
  return framework +
         "\n[NumberPortability]\n"
         "Library = \"DAT_NumberPortability\"\n"
         "FileName = \"np.txt\"\n"
         "CountryCode = \"49\"\n"
         "NationalAccessCode = \"0\"\n"
         "SearchMethod = 0\n" +
         extra;
}

// A fixture with a folder of its own, holding np.txt and reg.toml (registry()), removed after
// the test. The path is short, since a control socket's path must fit in 108 bytes.
class ProgramFolderTest : public testing::Test {
protected:
  void SetUp() override {
    // A program that ends early closes its input; writing to it must fail, not kill the test.
    std::signal(SIGPIPE, SIG_IGN);
    std::string pattern = "/tmp/nphost-test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folderM = pattern;
    writeFile("np.txt", dataCM);
    writeFile("reg.toml", registry());
  }
  void TearDown() override { fs::remove_all(folderM); }

  void writeFile(const std::string& name, const std::string& text) const { std::ofstream(folderM / name) << text; }
  std::string readFile(const std::string& name) const { return readText(folderM / name); }

  fs::path folderM;
};

// Writes all of `text`, unless the reader has gone; its exit status then tells the test why.
inline void writeAll(int descriptor, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(descriptor, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

// The entries of a JSON Lines log file whose identifier is one of `ids`, in order, without
// their time and catalogue text.
inline nlohmann::json jsonLog(const fs::path& file, const std::vector<std::string>& ids) {
  nlohmann::json entries = nlohmann::json::array();
  std::ifstream log(file);
  for (std::string line; std::getline(log, line);) {
    nlohmann::json entry = nlohmann::json::parse(line, nullptr, false);
    EXPECT_TRUE(entry.is_object()) << line;
    if (!entry.is_object() || std::find(ids.begin(), ids.end(), entry.value("id", "")) == ids.end()) continue;
    entry.erase("time");
    entry.erase("text");
    entries.push_back(entry);
  }
  return entries;
}

// Lines from a pipe or a socket it does not own. A read gives up after `timeoutMs`, so that a
// hanging program fails the test instead of blocking it.
class LineReader {
public:
  LineReader(int descriptor, int timeoutMs) : descriptorM(descriptor), timeoutMsM(timeoutMs) {}
  void setDescriptor(int descriptor) { descriptorM = descriptor; }
  // The next line; at the end an unfinished last line, or "<end>"; "<no answer>" on time-out.
  std::string next() {
    while (bufferM.find('\n') == std::string::npos) {
      pollfd wait{descriptorM, POLLIN, 0};
      if (poll(&wait, 1, timeoutMsM) <= 0) return "<no answer>";
      char chunk[4096];
      const ssize_t n = ::read(descriptorM, chunk, sizeof chunk);
      if (n <= 0) return bufferM.empty() ? "<end>" : std::exchange(bufferM, std::string());
      bufferM.append(chunk, static_cast<std::size_t>(n));
    }
    const auto end = bufferM.find('\n');
    std::string line = bufferM.substr(0, end);
    bufferM.erase(0, end + 1);
    return line;
  }

private:
  int descriptorM;
  int timeoutMsM;
  std::string bufferM;
};

// One nphost process with pipes to its standard input and output; standard error goes to a
// file. Reads give up after a minute so that a hanging program fails the test instead of
// blocking it.
class Nphost {
public:
  Nphost(const fs::path& folder, const Lines& arguments, const std::string& errorFile = "stderr.txt") : errorFileM(folder / errorFile) {
    // Close-on-exec keeps the parent's ends out of the program; dup2 gives it its own ends.
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, errorFileM.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    std::vector<std::string> words{NPHOST_PROGRAM};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pidM, NPHOST_PROGRAM, &actions, nullptr, argv.data(), environ) != 0)
      throw std::runtime_error("posix_spawn");
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    inM = in[1];
    outM = out[0];
    outputM.setDescriptor(outM);
  }
  ~Nphost() {
    if (pidM > 0) finish();
    if (inM >= 0) close(inM);
    if (outM >= 0) close(outM);
  }

  void write(const std::string& text) { writeAll(inM, text); }
  // The next line of standard output; "<end>" at its end.
  std::string readLine() { return outputM.next(); }
  // Ends standard input, collects the rest of standard output and returns the exit status.
  int finish() {
    if (inM >= 0) close(std::exchange(inM, -1));
    return collect();
  }
  // Collects standard output up to its end and returns the exit status; standard input stays
  // as it is, so a program that must end by itself (on a signal) is seen to.
  int collect() {
    for (std::string line = readLine(); line != "<end>" && line != "<no answer>"; line = readLine())
      restM.push_back(line);
    return reap();
  }
  // Stops reading standard output (the program's writes then fail) and returns the exit status.
  int abandonOutput() { return reap(); }
  void signal(int number) const { kill(pidM, number); }
  // The ends of the pipes, for a test that feeds and drains the program on threads of its own.
  int inputDescriptor() const { return inM; }
  int outputDescriptor() const { return outM; }
  // Waits up to `limit` for the program to end and returns its exit status; a program still
  // running then is killed, and -1 returned, so that a hang fails the test instead of blocking it.
  // The pipes stay open until this object ends, for the threads that may still use them.
  int waitForExit(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (waitpid(pidM, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        kill(pidM, SIGKILL);
        waitpid(std::exchange(pidM, 0), &status, 0);
        return -1;
      }
      usleep(10'000);
    }
    pidM = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  const Lines& rest() const { return restM; }
  std::string errors() const { return readText(errorFileM); }

private:
  int reap() {
    if (inM >= 0) close(std::exchange(inM, -1));
    close(std::exchange(outM, -1));
    int status = 0;
    waitpid(std::exchange(pidM, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  fs::path errorFileM;
  pid_t pidM = 0;
  int inM = -1;
  int outM = -1;
  LineReader outputM{-1, 60'000};
  Lines restM;
};

inline sockaddr_un socketAddress(const fs::path& path) {
  sockaddr_un where{};
  where.sun_family = AF_UNIX;
  std::strncpy(where.sun_path, path.c_str(), sizeof(where.sun_path) - 1);
  return where;
}

// A raw client of the control socket.
class SocketClient {
public:
  explicit SocketClient(const fs::path& path) {
    descriptorM = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un where = socketAddress(path);
    connectedM = connect(descriptorM, reinterpret_cast<const sockaddr*>(&where), sizeof(where)) == 0;
    answersM.setDescriptor(descriptorM);
  }
  ~SocketClient() { close(descriptorM); }
  SocketClient(const SocketClient&) = delete;
  SocketClient& operator=(const SocketClient&) = delete;
  bool connected() const { return connectedM; }
  void send(const std::string& bytes) const { writeAll(descriptorM, bytes); }
  // The next answer line; "<end>" when the server closed, "<no answer>" after a minute.
  std::string readLine() { return answersM.next(); }
  std::string ask(const std::string& line) {
    send(line + "\n");
    return readLine();
  }

private:
  int descriptorM = -1;
  bool connectedM = false;
  LineReader answersM{-1, 60'000};
};

// Waits until the control socket at `path` answers, so that a test does not race the
// program's start.
inline bool controlReady(const fs::path& path) {
  for (int i = 0; i < 1500; ++i) {
    if (SocketClient(path).connected()) return true;
    usleep(20'000);
  }
  return false;
}

}  // namespace NphostTest
