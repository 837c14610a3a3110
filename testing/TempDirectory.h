// NpTest::TempDirectory is a folder of its own under the system's temporary folder, removed with
// everything in it; beside it the whole-file helpers that tests of the cache, the plug-in and
// the host use to write data files and read back what the code wrote.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unistd.h>

namespace NpTest {

class TempDirectory {
public:
  TempDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "np-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    pathM = pattern;
  }
  ~TempDirectory() { std::filesystem::remove_all(pathM, ignoredM); }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;
  const std::filesystem::path& path() const { return pathM; }
  std::string path(const std::string& name) const { return (pathM / name).string(); }

private:
  std::filesystem::path pathM;
  std::error_code ignoredM;
};

// Replaces the file's content; gives the path back.
inline std::string writeText(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!(out << content).flush()) throw std::runtime_error("cannot write " + path);
  return path;
}

inline std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The banner that every dump with banner starts with.
inline const std::string dumpBanner = std::string(59, '-') + "\n" + std::string(17, ' ') +
                                      "Number Portability Data\n" + std::string(59, '-') + "\n";

}  // namespace NpTest
