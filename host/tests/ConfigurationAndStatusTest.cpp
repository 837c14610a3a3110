// What an operator meets before the data serves: a registry table checked against the keys and
// values the plug-in takes (by check, and in the log of run and script, which go on), one exit
// status per fault for run, script and check, a command line that names what it does not know,
// help that says each command's statuses, the programs' versions and the run-time packages.
#include "Nphost.h"
#include "ProgramFolderTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>

namespace {

using namespace NphostTest;
using namespace testing;
using NphostConfiguration = ProgramFolderTest;

std::string replaced(std::string text, const std::string& what, const std::string& by) {
  return text.replace(text.find(what), what.size(), by);
}

// Standard output and exit status of a shell command.
std::pair<int, std::string> shell(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  std::string out;
  char chunk[4096];
  for (std::size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) out.append(chunk, n);
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

const std::string framework = "[Framework]\nEventHandler = \"EventHandler\"\n";
const std::string cleanData = "+4930123456  20200101000000  OPA\n030123456  20230301000000  OPB\n"
                              "0049151  20000101000000  BLK\n01511234567  20220101000000  OPC\n";
const std::string methods = "0 (the longest stored prefix with a record at the date), 1 (the number itself only) and "
                            "2 (the shortest stored prefix)";
const std::string reads = "The plug-in reads FileName, CountryCode, NationalAccessCode, InternationalAccessCode, "
                          "InternationalAccessCodeSign and SearchMethod at start, and Reload, ReuseOnFailure, "
                          "AdditionalNumPortData and PrintData in updates.";

// The configuration messages of a text log: severity, object and identifier, then the text.
std::vector<std::pair<std::string, std::string>> configurationMessages(const fs::path& log) {
  std::vector<std::pair<std::string, std::string>> messages;
  for (const std::string& line : linesOf(log)) {
    if (line.find("_NPHOST_CONFIGURATION [") == std::string::npos) continue;
    const auto head = line.find(' ') + 1;
    messages.emplace_back(line.substr(head, line.find(" [") - head), line.substr(line.find("\"] ") + 3));
  }
  return messages;
}

// Each mistake is reported once by check, at its line, with the values the plug-in takes; run
// and script log the same sentence at start and serve as the plug-in configures itself: a
// search method it does not know searches as 0, a misspelt key changes nothing.
TEST_F(NphostConfiguration, EachMistakeIsFoundByCheckAtItsLineAndLoggedByRunAndScriptWhichGoOn) {
  writeFile("np.txt", cleanData);
  const struct {
    std::string registryText;
    Lines found;  // check's lines before the summary
    int status;
    Lines enriched;
  } cases[] = {
      {replaced(registry(), "SearchMethod = 0", "SearchMethod = 7"),
       {"reg.toml:9: NumberPortability.SearchMethod is '7', which names no search method; the plug-in knows " + methods +
        ", and takes any other whole number as 0, without a message."},
       4, {"004930123456;20240101000000;OPB", "00491519999999;20210101000000;BLK"}},
      {registry(framework, "SearchMethd = 1\n"), {"reg.toml:10: NumberPortability.SearchMethd is not a key the plug-in reads, so it has no effect; "
                    "did you mean SearchMethod? " + reads},
       4, {"004930123456;20240101000000;OPB", "00491519999999;20210101000000;BLK"}},
      {replaced(registry(), "\"49\"", "\"4x4\""),
       {"reg.toml:7: NumberPortability.CountryCode is '4x4', but a country code is digits only, e.g. 49: the plug-in "
        "puts it as written in front of every national number, where only its digits count."},
       4, {"004930123456;20240101000000;OPA", "00491519999999;20210101000000;BLK"}},
      {registry(framework, "DeltaFileName = \"delta.txt\"\nInternationalAccessCode = \"0 0\"\n"),
       {"reg.toml:10: NumberPortability.DeltaFileName has no effect: the plug-in never reads it; a delta file is named "
        "when it is loaded, by the update key AdditionalNumPortData or the probe deltaLoad.",
        "reg.toml:11: NumberPortability.InternationalAccessCode is '0 0', but an international access code is digits "
        "only, e.g. 00: the plug-in puts it as written in front of every stored number, where only its digits count, "
        "and keeps a number as international only when it starts with exactly these characters."},
       4, {"004930123456;20240101000000;OPB", "00491519999999;20210101000000;"}},
      // Legitimate, so noted only: the status stays 0.
      {replaced(registry(), "NationalAccessCode = \"0\"", "NationalAccessCode = \"\""),
       {"reg.toml:8: note: NumberPortability.NationalAccessCode is empty, as in a country without a trunk prefix: the "
        "plug-in puts the international access code and the country code in front of every number that starts with "
        "neither the international access code nor its sign."},
       0, {"004930123456;20240101000000;OPA", "00491519999999;20210101000000;BLK"}},
      // Every key known, the host's Library and the update keys included: nothing to say.
      {registry(framework, "InternationalAccessCode = \"00\"\nInternationalAccessCodeSign = \"+\"\nReload = \"\"\n"), {}, 0,
       {"004930123456;20240101000000;OPB", "00491519999999;20210101000000;BLK"}},
  };
  for (const auto& [registryText, found, status, enriched] : cases) {
    SCOPED_TRACE(registryText);
    writeFile("reg.toml", registryText);
    Nphost check(folderM, {"check", "reg.toml"});
    EXPECT_EQ(check.finish(), status);
    ASSERT_FALSE(check.rest().empty());
    EXPECT_EQ(Lines(check.rest().begin(), check.rest().end() - 1), found);
    EXPECT_EQ(check.errors(), "");

    std::vector<std::pair<std::string, std::string>> logged;
    for (const std::string& line : found)
      logged.emplace_back(line.find(": note: ") != std::string::npos ? "NORMAL(1) nphost INF_NPHOST_CONFIGURATION"
                                                                      : "CRITICAL(5) nphost ERR_NPHOST_CONFIGURATION",
                          line);
    Nphost run(folderM, {"run", "reg.toml", "--log", "run.log"});
    run.write("004930123456;20240101000000\n00491519999999;20210101000000\n");
    EXPECT_EQ(run.finish(), 0) << run.errors();
    EXPECT_EQ(run.rest(), enriched);
    EXPECT_EQ(configurationMessages(folderM / "run.log"), logged);

    Nphost script(folderM, {"script", "reg.toml", "--log", "script.log"});
    script.write("search 004930123456 20240101000000\n");
    EXPECT_EQ(script.finish(), 0) << script.errors();
    EXPECT_THAT(script.rest(), ElementsAre("construct valid=true", "init result=true", StartsWith("found ")));
    EXPECT_EQ(configurationMessages(folderM / "script.log"), logged);
    fs::remove(folderM / "run.log");
    fs::remove(folderM / "script.log");
  }
}

// The README shows what check says about a mistyped configuration; it must be what nphost prints.
TEST_F(NphostConfiguration, ExampleInTheReadmeIsWhatCheckPrints) {
  const Lines readme = linesOf(fs::path(NP_EXAMPLES_DIRECTORY).parent_path() / "README.md");
  const auto start = std::find(readme.begin(), readme.end(), "$ nphost check registry.toml");
  const auto end = std::find(start, readme.end(), "```");
  ASSERT_TRUE(start != readme.end() && end != readme.end());
  writeFile("np.txt", cleanData);
  writeFile("registry.toml", replaced(registry(), "SearchMethod = 0", "SearchMethod = 7\nSearchMethd = 1"));
  Nphost check(folderM, {"check", "registry.toml"});
  EXPECT_EQ(check.finish(), 4);
  ASSERT_FALSE(check.rest().empty());
  EXPECT_EQ(Lines(check.rest().begin(), check.rest().end() - 1), Lines(start + 1, end));
}

// One table of exit statuses: a fault gives the same status whichever command meets it, with a
// sentence on standard error; only check has findings (4), which run and script go on with.
TEST_F(NphostConfiguration, TheSameFaultGivesTheSameStatusToRunScriptAndCheck) {
  const std::string longLine = "030123457 20200101000000 " + std::string(60, 'X') + "\n";
  const struct {
    std::string fault;
    std::string registryText;
    std::string data;
    int status;       // run and script
    int checkStatus;  // check
  } cases[] = {
      {"none", registry(), cleanData, 0, 0},
      {"a rejected data line", registry(), cleanData + "bad-line 20200101000000\n", 0, 4},
      {"a search method the plug-in replaces", replaced(registry(), "SearchMethod = 0", "SearchMethod = 3"), cleanData,
       0, 4},
      {"no registry file", "", cleanData, 1, 1},
      {"a TOML syntax error", "[NumberPortability\nLibrary = 1\n", cleanData, 1, 1},
      {"a bad [Framework] value", registry("[Framework]\nLogFormat = \"xml\"\n"), cleanData, 1, 1},
      {"a missing library", replaced(registry(), "DAT_NumberPortability", "NoSuchPlugIn"), cleanData, 2, 2},
      {"a missing entry point", replaced(registry(), "DAT_NumberPortability", NP_LIBRARY_WITHOUT_LOOKUP), cleanData, 2,
       2},
      {"a missing mandatory key", replaced(registry(), "CountryCode = \"49\"\n", ""), cleanData, 3, 3},
      {"a search method that is no number", replaced(registry(), "SearchMethod = 0", "SearchMethod = -1"), cleanData, 3,
       3},
      {"a missing data file", replaced(registry(), "np.txt", "gone.txt"), cleanData, 3, 3},
      {"a data file that is a folder", replaced(registry(), "np.txt", "."), cleanData, 3, 3},
      {"a data line the reader cannot take", registry("[Framework]\nDataLineLimit = 40\n"), cleanData + longLine, 3, 3},
  };
  for (const auto& [fault, registryText, data, status, checkStatus] : cases) {
    SCOPED_TRACE(fault);
    fs::remove(folderM / "reg.toml");
    if (!registryText.empty()) writeFile("reg.toml", registryText);
    writeFile("np.txt", data);
    for (const std::string command : {"run", "script", "check"}) {
      const int expected = command == "check" ? checkStatus : status;
      Nphost nphost(folderM, {command, "reg.toml"});
      EXPECT_EQ(nphost.finish(), expected) << command << "\n" << nphost.errors();
      if (expected != 0 && expected != 4) {
        EXPECT_THAT(nphost.errors(), ContainsRegex("(^|\n)nphost: [^\n]+\\.\n$")) << command;
      }
    }
  }
}

TEST(NphostCommandLine, AnUnknownSubcommandIsNamedAndEveryProgramTellsItsVersion) {
  const std::string version = NP_VERSION;
  const struct {
    std::string command;
    int status;
    std::string out;
  } cases[] = {
      {NPHOST_PROGRAM " foo 2>&1", 1,
       "nphost: 'foo' is not a subcommand; the subcommands are script, run, check and ctl. Run 'nphost --help' for "
       "the usage.\n"},
      {NPHOST_PROGRAM " frobnicate reg.toml --name x 2>&1", 1,
       "nphost: 'frobnicate' is not a subcommand; the subcommands are script, run, check and ctl. Run 'nphost --help' "
       "for the usage.\n"},
      {NPHOST_PROGRAM " --version", 0, "nphost " + version + "\n"},
      {NPGEN_PROGRAM " --version", 0, "npgen " + version + "\n"},
      {NPBENCH_PROGRAM " --version", 0, "npbench " + version + "\n"},
  };
  for (const auto& [command, status, out] : cases) EXPECT_EQ(shell(command), std::make_pair(status, out)) << command;
}

// Each help is complete for its own command and says its exit statuses once, without those of
// the others.
TEST(NphostCommandLine, EachHelpStatesItsOwnExitStatusesOnce) {
  const std::string library = "2 the plug-in library or an entry point is not found";
  const struct {
    std::string arguments;
    Lines present;
    Lines absent;
  } cases[] = {
      {"--help", {library, "4 (check only) findings", "ctl: 0 the command was carried out, 1 not"}, {"Signals"}},
      {"run --help", {library, "the input or the output cannot be used", "3 the plug-in could not start", "128 + N", "Signals:"},
       {"4 ", "ctl", "init result", "(check"}},
      {"script --help", {library, "3 the plug-in could not start", "search NUMBER DATETIME", "init result=false"},
       {"128 + N", "ctl", "4 "}},
      {"check --help", {library, "3 the plug-in would not start", "4 findings in the configuration or the data",
                        "SearchMethod other than 0, 1 or 2"},
       {"128 + N", "ctl", "init result"}},
  };
  for (const auto& [arguments, present, absent] : cases) {
    auto [status, help] = shell(NPHOST_PROGRAM " " + arguments);
    std::replace(help.begin(), help.end(), '\n', ' ');  // the text is wrapped anywhere
    EXPECT_EQ(status, 0) << arguments;
    const std::string statuses = help.substr(std::min(help.size(), help.find("Exit status")));
    EXPECT_EQ(statuses.find("Exit status", 1), std::string::npos) << arguments << ": said twice";
    for (const std::string& text : present) EXPECT_THAT(statuses + help, HasSubstr(text)) << arguments;
    for (const std::string& text : absent) EXPECT_THAT(statuses, Not(HasSubstr(text))) << arguments;
  }
}

}  // namespace
