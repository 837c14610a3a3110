// Helpers of the nphost program tests that watch a running nphost from outside: its log file,
// its memory and reads in /proc, `nphost ctl` run to its end, and a bounded wait for any of it.
#pragma once

#include "Nphost.h"
#include "ProcessText.h"

#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

namespace NphostTest {

// Waits until `reached` holds, for at most `limit` (a bound against a hang, never a timing
// claim); whether it held.
inline bool eventually(const std::function<bool()>& reached, std::chrono::seconds limit = std::chrono::seconds(60)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!reached()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

inline bool fileHas(const fs::path& file, const std::string& text) {
  return readText(file).find(text) != std::string::npos;
}

// A number from /proc/PID/FILE on the line that starts with `key` (kB for status, bytes for io);
// -1 when there is none.
inline long long procFigure(pid_t pid, const std::string& file, const std::string& key) {
  for (const std::string& line : linesOf("/proc/" + std::to_string(pid) + "/" + file))
    if (line.starts_with(key)) return std::atoll(line.c_str() + key.size());
  return -1;
}

// `nphost ctl words...` in `folder`: its exit status and its standard output, or its standard
// error when it printed nothing.
inline std::pair<int, std::string> ctl(const fs::path& folder, Lines words) {
  words.insert(words.begin(), "ctl");
  Nphost client(folder, words, "ctl-stderr.txt");
  const int status = client.finish();
  std::string text;
  for (const std::string& line : client.rest()) text += line + "\n";
  return {status, text.empty() ? client.errors() : text};
}

}  // namespace NphostTest
