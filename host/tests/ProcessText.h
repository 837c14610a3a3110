// Text helpers of the nphost program tests: files read whole or by lines, the registry text the
// tests start from, and reading and writing lines on a pipe or socket without hanging a test.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

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

}  // namespace NphostTest
