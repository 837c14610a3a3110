// Test helpers for the nphost program tests: a test folder of its own holding a small data file
// and a registry file for it, one nphost process started in that folder (pipes to its standard
// input and output, standard error in a file), and a raw client of its control socket.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

extern char** environ;

namespace NphostTest {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

inline std::string readText(const fs::path& file) {
  std::ifstream in(file);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A registry file for np.txt; `framework` comes first, `extra` is added to the plug-in's table.
inline std::string registry(const std::string& framework = "[Framework]\nEventHandler = \"EventHandler\"\n",
                            const std::string& extra = "") {
  return framework + "\n[NumberPortability]\nLibrary = \"DAT_NumberPortability\"\nFileName = \"np.txt\"\n" +
         "CountryCode = \"49\"\nNationalAccessCode = \"0\"\nSearchMethod = 0\n" + extra;
}

// A folder of its own, removed after the test, holding reg.toml and np.txt: a number with two
// records, a number block with a longer number of its own, and a line that the plug-in rejects
// (line 5). The path is short: a control socket's path must fit in 108 bytes.
class ProgramFolderTest : public testing::Test {
protected:
  void SetUp() override {
    std::signal(SIGPIPE, SIG_IGN);  // writing to a program that ended must fail, not kill the test
    std::string pattern = "/tmp/nphost-test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folderM = pattern;
    writeFile("np.txt", "+4930123456  20200101000000  OPA\n030123456  20230301000000  OPB\n"
                        "0049151  20000101000000  BLK\n01511234567  20220101000000  OPC\nbad-line  20200101000000\n");
    writeFile("reg.toml", registry());
  }
  void TearDown() override { fs::remove_all(folderM); }
  void writeFile(const std::string& name, const std::string& text) const { std::ofstream(folderM / name) << text; }
  std::string readFile(const std::string& name) const { return readText(folderM / name); }

  fs::path folderM;
};

// The lines of a file.
inline Lines linesOf(const fs::path& file) {
  Lines lines;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Writes all of `text`, unless the reader has gone; its exit status then tells the test why.
inline void writeAll(int descriptor, const std::string& text) {
  for (ssize_t done = 0, n = 0; done < static_cast<ssize_t>(text.size()); done += n)
    if ((n = ::write(descriptor, text.data() + done, text.size() - done)) <= 0) return;
}

// The next line from `descriptor`, `buffer` keeping what came after it; at the end an unfinished
// last line, or "<end>". "<no answer>" after a minute, so that a hang fails the test.
inline std::string nextLine(int descriptor, std::string& buffer) {
  while (buffer.find('\n') == std::string::npos) {
    pollfd wait{descriptor, POLLIN, 0};
    if (poll(&wait, 1, 60'000) <= 0) return "<no answer>";
    char chunk[4096];
    const ssize_t n = ::read(descriptor, chunk, sizeof chunk);
    if (n <= 0) return buffer.empty() ? "<end>" : std::exchange(buffer, std::string());
    buffer.append(chunk, static_cast<std::size_t>(n));
  }
  std::string line = buffer.substr(0, buffer.find('\n'));
  buffer.erase(0, line.size() + 1);
  return line;
}

class Nphost {
public:
  Nphost(const fs::path& folder, Lines words, const std::string& errorFile = "stderr.txt") : errorsM(folder / errorFile) {
    int in[2], out[2];  // close-on-exec keeps the parent's ends out of the program
    EXPECT_EQ(pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, errorsM.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    words.insert(words.begin(), NPHOST_PROGRAM);
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    EXPECT_EQ(posix_spawn(&pidM, NPHOST_PROGRAM, &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    inM = in[1];
    outM = out[0];
  }
  ~Nphost() {
    if (pidM > 0) finish();
    for (const int descriptor : {inM, outM})
      if (descriptor >= 0) close(descriptor);
  }

  void write(const std::string& text) const { writeAll(inM, text); }
  std::string readLine() { return nextLine(outM, bufferM); }
  // Ends standard input, collects the rest of standard output and returns the exit status.
  int finish() {
    if (inM >= 0) close(std::exchange(inM, -1));
    for (std::string line = readLine(); line != "<end>" && line != "<no answer>"; line = readLine())
      restM.push_back(line);
    return waitForExit();
  }
  // Stops reading standard output (the program's writes then fail) and returns the exit status.
  int abandonOutput() {
    close(std::exchange(outM, -1));
    return waitForExit();
  }
  // The exit status, or -1 for a program still running a minute later, then killed. The pipes
  // stay open for threads of the test that may still use them.
  int waitForExit() {
    int status = 0;
    for (int i = 0; waitpid(pidM, &status, WNOHANG) == 0; ++i) {
      if (i == 6'000) kill(pidM, SIGKILL);
      usleep(10'000);
    }
    pidM = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status) == SIGKILL ? -1 : 128 + WTERMSIG(status);
  }
  void signal(int number) const { kill(pidM, number); }
  const Lines& rest() const { return restM; }
  std::string errors() const { return readText(errorsM); }

private:
  fs::path errorsM;
  pid_t pidM = 0;
  int inM = -1;
  int outM = -1;
  std::string bufferM;
  Lines restM;
};

// A raw client of a control socket; it retries for half a minute while the program starts.
class SocketClient {
public:
  explicit SocketClient(const fs::path& path) {
    sockaddr_un where{AF_UNIX, {}};
    std::strncpy(where.sun_path, path.c_str(), sizeof(where.sun_path) - 1);
    for (int i = 0; i < 1500 && descriptorM < 0; ++i) {
      descriptorM = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (connect(descriptorM, reinterpret_cast<const sockaddr*>(&where), sizeof(where)) == 0) break;
      close(std::exchange(descriptorM, -1));
      usleep(20'000);
    }
  }
  ~SocketClient() { close(descriptorM); }
  bool connected() const { return descriptorM >= 0; }
  void send(const std::string& bytes) const { writeAll(descriptorM, bytes); }
  std::string readLine() { return nextLine(descriptorM, bufferM); }
  std::string ask(const std::string& line) {
    send(line + "\n");
    return readLine();
  }

private:
  int descriptorM = -1;
  std::string bufferM;
};

}  // namespace NphostTest
