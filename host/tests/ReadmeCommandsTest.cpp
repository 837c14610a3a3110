// The README's commands, run as a reader pastes them: every `sh` block, in order, into one shell
// that starts in a checkout after the first command, with the programs of this build. The
// checkout is a scratch folder: a copy of examples/, this build as build/gcc, the rest of the
// source tree linked in, and the two build scripts standing in for the build they made. Blocks
// that install into the system say so on their first line and run with their system paths moved
// into the scratch folder; there apt-get unpacks the package it is given into a root of its own. A comment that begins with a quoted text promises what the command
// prints, and the output must hold it.
#include "ProcessText.h"
#include "testing/ScriptRun.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <set>

extern char** environ;

namespace NphostTest {
namespace {

struct Block {
  std::string kind;  // the fence's word: sh, text, console, json
  int line = 0;      // the README line of its first line
  std::string text;
};

const fs::path sourceRoot = fs::path(NP_EXAMPLES_DIRECTORY).parent_path();
const std::string installingMark = "# installs into the system";

std::vector<Block> blocksOf(const fs::path& markdown) {
  std::vector<Block> blocks;
  bool inside = false;
  int number = 0;
  for (const std::string& line : linesOf(markdown)) {
    ++number;
    if (line.starts_with("```")) {
      if (!inside) blocks.push_back({line.substr(3), number + 1, ""});
      inside = !inside;
    } else if (inside) {
      blocks.back().text += line + "\n";
    }
  }
  return blocks;
}

// System paths of the installing blocks and where the test puts them.
std::vector<std::pair<std::string, fs::path>> systemPaths(const fs::path& system) {
  return {{"/usr/local", system / "usr-local"},   {"/etc/nphost", system / "etc-nphost"},
          {"/var/lib/nphost", system / "var-lib"}, {"/var/log/nphost", system / "var-log"},
          {"/run/nphost", system / "run"}};
}

std::string moved(std::string text, const std::vector<std::pair<std::string, fs::path>>& paths) {
  for (const auto& [from, to] : paths)
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.string().size()))
      text.replace(at, from.size(), to.string());
  return text;
}

// The texts that the comments of a block promise, as patterns, `...` matching the rest of a line.
std::vector<std::pair<std::string, std::regex>> promisesOf(const std::string& text) {
  std::vector<std::pair<std::string, std::regex>> promises;
  const std::regex comment(R"((^|\s)# (".*)$)");
  const std::regex quoted("\"([^\"]*)\"");
  const std::regex special(R"([.^$|()\[\]{}*+?\\])");
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::smatch found;
    if (!std::regex_search(line, found, comment)) continue;
    const std::string said = found[2];
    for (std::sregex_iterator it(said.begin(), said.end(), quoted), end; it != end; ++it) {
      const std::string promise = (*it)[1];
      std::string pattern = std::regex_replace(promise, special, "\\$&");
      pattern = std::regex_replace(pattern, std::regex(R"(\\\.\\\.\\\.)"), "[^\n]*");
      promises.emplace_back(promise, std::regex(pattern));
    }
  }
  return promises;
}

// A stand-in for a build script: the build under test is what it would have made; it takes the
// arguments the real one takes and nothing else.
void writeStandIn(const fs::path& file, const fs::path& real, bool takesTests) {
  std::ofstream(file) << "#!/bin/sh\n[ -x '" << real.string() << "' ] || { echo 'no script " << real.string()
                      << "' >&2; exit 2; }\n"
                      << (takesTests ? "[ \"${1:-}\" = --tests ] && shift\n" : "")
                      << "case \"${1:-gcc}\" in gcc|clang|asan|tsan) [ $# -le 1 ] && exit 0 ;; esac\n"
                         "echo \"$0 does not take: $*\" >&2; exit 2\n";
  fs::permissions(file, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec, fs::perm_options::replace);
}

// apt-get as the installing blocks use it: `install [-y] ./FILE.deb` unpacks each package into
// `root`, as dpkg would put its files there; it takes nothing else.
void writeAptGet(const fs::path& file, const fs::path& root) {
  std::ofstream(file) << "#!/bin/sh\n[ \"${1:-}\" = install ] || { echo \"apt-get stand-in does not take: $*\" >&2; exit 2; }\n"
                         "shift\n[ \"${1:-}\" = -y ] && shift\n[ $# -gt 0 ] || exit 2\n"
                         "for deb; do\n  case \"$deb\" in ./*.deb|/*.deb) ;; *) echo \"not a package file: $deb\" >&2; exit 2 ;; esac\n"
                         "  dpkg-deb -x \"$deb\" '"
                      << root.string() << "' || exit 1\ndone\n";
  fs::permissions(file, fs::perms::owner_all, fs::perm_options::replace);
}

// The scratch checkout: examples/ copied, this build as build/gcc, the rest linked to the source.
fs::path makeCheckout(const fs::path& scratch) {
  const fs::path checkout = scratch / "checkout";
  fs::create_directories(checkout / "build");
  fs::create_directory_symlink(NP_BUILD_DIRECTORY, checkout / "build" / "gcc");
  for (const auto& entry : fs::directory_iterator(sourceRoot)) {
    const std::string name = entry.path().filename();
    if (name == "build" || name == ".git" || name == "examples" || name == "tools") continue;
    fs::create_symlink(entry.path(), checkout / name);
  }
  fs::copy(sourceRoot / "examples", checkout / "examples", fs::copy_options::recursive);
  fs::create_directory(checkout / "tools");
  for (const auto& entry : fs::directory_iterator(sourceRoot / "tools"))
    fs::create_symlink(entry.path(), checkout / "tools" / entry.path().filename());
  for (const auto& [name, takesTests] : {std::pair{"build.sh", true}, {"build-and-test.sh", false}}) {
    fs::remove(checkout / "tools" / name);
    writeStandIn(checkout / "tools" / name, sourceRoot / "tools" / name, takesTests);
  }
  return checkout;
}

// A block of any other kind is either pasted by mistake or skipped by mistake: say which it is.
TEST(ReadmeCommands, EveryBlockSaysWhetherItIsToBePasted) {
  const std::set<std::string> kinds{"sh", "text", "console", "json"};
  for (const Block& block : blocksOf(sourceRoot / "README.md")) {
    EXPECT_TRUE(kinds.contains(block.kind)) << "README line " << block.line << ": a block marked '" << block.kind
                                            << "'; mark it sh, text, console or json";
    if (block.kind == "console") {
      EXPECT_TRUE(block.text.starts_with("$ ")) << "README line " << block.line << ": a transcript starts with '$ '";
    }
    if (block.kind == "sh") {
      EXPECT_FALSE(block.text.starts_with("$ ")) << "README line " << block.line << ": a transcript marked sh";
      const bool marked = block.text.starts_with(installingMark);
      for (const auto& [path, ignored] : systemPaths("/"))
        EXPECT_TRUE(marked || block.text.find(path) == std::string::npos)
            << "README line " << block.line << ": writes " << path << " without '" << installingMark << "'";
    }
  }
}

TEST(ReadmeCommands, EveryShellBlockRunsAsWrittenInOrderInOneShell) {
  std::string pattern = "/tmp/np-readme.XXXXXX";
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  const fs::path scratch = pattern;
  const fs::path checkout = makeCheckout(scratch);
  fs::create_directory(scratch / "tmp");
  const auto paths = systemPaths(scratch / "system");
  for (const auto& [ignored, to] : paths) fs::create_directories(to);
  const fs::path root = scratch / "system" / "root";
  fs::create_directories(scratch / "stand-ins");
  writeAptGet(scratch / "stand-ins" / "apt-get", root);

  std::string script;
  std::vector<std::pair<std::string, std::regex>> promises;
  for (const Block& block : blocksOf(sourceRoot / "README.md")) {
    if (block.kind != "sh") continue;
    script += "echo '### README line " + std::to_string(block.line) + "'\n";
    script += block.text.starts_with(installingMark) ? moved(block.text, paths) : block.text;
    for (auto& promise : promisesOf(block.text)) promises.push_back(std::move(promise));
  }
  std::ofstream(scratch / "readme.sh") << script;

  // The shell's own PATH, without this build's programs: the README must say where they are.
  std::vector<std::string> environment{"PATH=" + (scratch / "stand-ins").string() + ":/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin",
                                       "HOME=" + scratch.string(), "TMPDIR=" + (scratch / "tmp").string()};
  for (char** variable = environ; *variable != nullptr; ++variable)  // the sanitizers' settings
    if (std::regex_search(*variable, std::regex("^[A-Z]+SAN_OPTIONS="))) environment.emplace_back(*variable);
  const NpTest::ScriptResult run =
      NpTest::runScript({"/bin/bash", "-e", (scratch / "readme.sh").string()}, checkout, environment, true);
  EXPECT_EQ(run.status, 0) << "(-1: still running after 90 s)\n" << run.output;
  auto from = run.output.cbegin();
  for (const auto& [promise, match] : promises) {
    std::smatch found;
    if (!std::regex_search(from, run.output.cend(), found, match)) {
      ADD_FAILURE() << "the README promises \"" << promise << "\"; the commands printed, from there on:\n"
                    << std::string(from, run.output.cend());
      break;
    }
    from = found[0].second;
  }
  if (script.find("apt-get install") != std::string::npos) {  // the package, unpacked: its nphost runs
    const NpTest::ScriptResult installed = NpTest::runScript({(root / "usr/bin/nphost").string(), "--version"}, scratch,
                                                             environment, true);
    EXPECT_EQ(installed.output, std::string("nphost ") + NP_VERSION + "\n") << run.output;
  }
  fs::remove_all(scratch);
}

}  // namespace
}  // namespace NphostTest
