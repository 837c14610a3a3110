// Runs the built nphost on registries and data files in a temporary folder and checks what a
// user sees: answer lines, exit statuses, messages on standard error, the log and the files.
#include "NphostProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <sstream>

namespace {

using NphostTest::jsonLog;
using NphostTest::Lines;
using NphostTest::Nphost;
using NphostTest::registry;
using json = nlohmann::json;
using NphostProgram = NphostTest::ProgramFolderTest;

// Writes each command and expects its answer line back before the next.
void expectAnswers(Nphost& nphost, const std::vector<std::pair<std::string, std::string>>& exchanges) {
  for (const auto& [command, answer] : exchanges) {
    nphost.write(command + "\n");
    EXPECT_EQ(nphost.readLine(), answer) << command;
  }
}

TEST_F(NphostProgram, ScriptAnswersEachCommandWithOneLineAndChangesTheDataAsAsked) {
  writeFile("delta.txt", "+4930777777  20240101000000  OPD\n030123456  20240601000000  OPE\n");
  Nphost nphost(folderM, {"script", "reg.toml", "--log", "log.json", "--log-format", "json"});
  EXPECT_EQ(nphost.readLine(), "construct valid=true");
  EXPECT_EQ(nphost.readLine(), "init result=true");
  nphost.write("# comments and blank lines get no answer\n\n");
  expectAnswers(nphost, {
      {"search 004930123456 20240101000000", "found OPB 20230301000000"},
      {"search 004930123456 20210101000000", "found OPA 20200101000000"},
      {"search 004930123456 20100101000000", "not-found"},
      {"search 00491519999999 20210101000000", "found BLK 20000101000000"},
      {"search 00491511234567 20230101000000", "found OPC 20220101000000"},
      {"search 0033123456 20240101000000", "not-found"},
      {"search 004930123456 2024-01-01", "error invalid date-time"},
      {"search 004930123456", "error usage: search NUMBER DATETIME"},
      {"usable", "usable true"},
      {"frobnicate now", "error unknown command frobnicate"},
      {"probe nosuchprobe 1", "error unknown probe nosuchprobe"},
      {"update \"PrintData=unterminated", "error malformed quoting"},
      {"update \"\"=x", "error empty key in update"},
      {"update Unrelated=\"a b\"", "update result=true taken=false"},
      {"await INF_NUM_NPORT_LOADED", "await INF_NUM_NPORT_LOADED ok"},
      {"await NEVER_WRITTEN 1 20", "await NEVER_WRITTEN timeout"},
      {"await INF_LOAD_DATA many", "error COUNT must be a whole number"},
      // The rejected data line is reported once for each of the two trees.
      {"await ERR_NUMBER_OF_FIELDS_IN_RECORD 2", "await ERR_NUMBER_OF_FIELDS_IN_RECORD ok"},
      {"await ERR_NUMBER_OF_FIELDS_IN_RECORD 3 20", "await ERR_NUMBER_OF_FIELDS_IN_RECORD timeout"},
      {"sleep 1", "sleep 1"},
      {"sleep -5", "error MS must be a whole number of milliseconds up to 86400000"},
      {"update AdditionalNumPortData=delta.txt", "update result=true taken=true"},
      {"await INF_NUM_NPORT_ADDED", "await INF_NUM_NPORT_ADDED ok"},
      {"search 004930777777 20250101000000", "found OPD 20240101000000"},
      {"search 004930123456 20250101000000", "found OPE 20240601000000"},
      {"update AdditionalNumPortData=missing.txt", "update result=false taken=true"},
  });
  // The delta load rewrote the data file with the merged data in the plug-in's own form.
  const std::string merged =
      "0049151  20000101000000  BLK\n"
      "00491511234567  20220101000000  OPC\n"
      "004930123456  20240601000000  OPE\n"
      "004930123456  20230301000000  OPB\n"
      "004930123456  20200101000000  OPA\n"
      "004930777777  20240101000000  OPD\n";
  EXPECT_EQ(readFile("np.txt"), merged);

  // A reload through the probe reads the changed file in the background.
  writeFile("np.txt", merged + "004940111  20210101000000  OPN\n");
  expectAnswers(nphost, {
      {"search 004940111 20240101000000", "not-found"},
      {"probe reload TRUE", "probe reload result=true"},
      {"await EVT::RELOAD_SUCCESSFUL", "await EVT::RELOAD_SUCCESSFUL ok"},
      {"search 004940111 20240101000000", "found OPN 20210101000000"},
  });
  // The print goes to standard output, between the answers.
  nphost.write("update PrintData=\nusable\nshutdown\nshutdown\n");
  Lines printed;
  std::istringstream dump(std::string(59, '-') + "\n" + std::string(17, ' ') + "Number Portability Data\n" +
                          std::string(59, '-') + "\n" + readFile("np.txt"));
  for (std::string line; std::getline(dump, line);) printed.push_back(line);
  printed.insert(printed.end(), {"update result=true taken=true", "usable true", "shutdown result=true",
                                 "error the plug-in is already shut down"});
  EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
  EXPECT_EQ(nphost.rest(), printed);
  EXPECT_EQ(nphost.errors(), "") << "the log belongs in the file";

  EXPECT_EQ(jsonLog(folderM / "log.json", {"INF_LOAD_DATA", "ERR_NUMBER_OF_FIELDS_IN_RECORD", "INF_NUM_NPORT_LOADED",
                                           "EVT::RELOAD_SUCCESSFUL"}),
            json::parse(R"([
  {"kind": "status", "object": "NumberPortability", "id": "INF_LOAD_DATA", "severity": 1, "args": ["NumberPortability"]},
  {"kind": "status", "object": "NumberPortability", "id": "ERR_NUMBER_OF_FIELDS_IN_RECORD", "severity": 2,
   "args": ["2", "3", "bad-line  20200101000000", "At Line# 5 in File 'np.txt'. "]},
  {"kind": "status", "object": "NumberPortability", "id": "ERR_NUMBER_OF_FIELDS_IN_RECORD", "severity": 2,
   "args": ["2", "3", "bad-line  20200101000000", "At Line# 5 in File 'np.txt'. "]},
  {"kind": "status", "object": "NumberPortability", "id": "INF_NUM_NPORT_LOADED", "severity": 1, "args": ["4"]},
  {"kind": "event", "sender": "NumberPortability", "receiver": "EventHandler", "id": "EVT::RELOAD_SUCCESSFUL",
   "args": [""], "delivered": true}])"));
}

const std::string twoInstances = registry("[Framework]\nLog = \"alone.json\"\nLogFormat = \"json\"\n") +
                                 "\n[pipeline.np]\nLibrary = \"DAT_NumberPortability\"\nFileName = \"np.txt\"\n"
                                 "CountryCode = \"43\"\nNationalAccessCode = \"0\"\n";

TEST_F(NphostProgram, NameChoosesAnInstanceAndTheFrameworkTableTheLog) {
  writeFile("reg.toml", twoInstances);
  Nphost nphost(folderM, {"script", "reg.toml", "--name", "pipeline.np"});
  // The Austrian instance stores the national number 030123456 under 0043.
  nphost.write("search 004330123456 20240101000000\nprobe reload TRUE\nawait EVT::RELOAD_SUCCESSFUL\n");
  EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
  EXPECT_EQ(nphost.rest(), (Lines{"construct valid=true", "init result=true", "found OPB 20230301000000",
                                  "probe reload result=true", "await EVT::RELOAD_SUCCESSFUL ok"}));
  // Without an event handler nobody receives the event, and the log says so.
  EXPECT_EQ(jsonLog(folderM / "alone.json", {"INF_NUM_NPORT_LOADED", "EVT::RELOAD_SUCCESSFUL"}), json::parse(R"([
  {"kind": "status", "object": "pipeline.np", "id": "INF_NUM_NPORT_LOADED", "severity": 1, "args": ["4"]},
  {"kind": "event", "sender": "pipeline.np", "receiver": "", "id": "EVT::RELOAD_SUCCESSFUL", "args": [""],
   "delivered": false}])"));
}

// How standard error must match: the whole of it, its beginning, or every part somewhere in it.
enum class Match { WHOLE, STARTS, HOLDS };

struct EarlyEnd {
  Lines arguments;
  std::string registryText;  // written to reg.toml
  int status;
  Match match;
  Lines err;
  Lines out = {};
};

TEST_F(NphostProgram, CommandLineRegistryAndFileProblemsEndEarlyWithTheirStatus) {
  const Lines script{"script", "reg.toml"};
  const Lines run{"run", "reg.toml"};
  auto with = [](Lines words, const Lines& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
  };
  std::string noSuchLibrary = registry();
  noSuchLibrary.replace(noSuchLibrary.find("\"DAT_NumberPortability\""), 23, "\"NoSuchPlugIn\"");
  std::string noEntryPoint = registry();
  noEntryPoint.replace(noEntryPoint.find("\"DAT_NumberPortability\""), 23, "\"" NP_FRAMEWORK_LIBRARY "\"");
  std::string noFileName = registry();
  noFileName.erase(noFileName.find("FileName"), std::string("FileName = \"np.txt\"\n").size());
  writeFile("plain.txt", "not a socket");

  const EarlyEnd cases[] = {
      {script, registry("", "Codes = [1, 2]\n"), 1, Match::WHOLE,
       {"nphost: registry file 'reg.toml', line 8: 'NumberPortability.Codes' is an array; "
        "a registry value must be a single value.\n"}},
      {script, registry("", "Broken = \n"), 1, Match::STARTS, {"nphost: registry file 'reg.toml', line 8: "}},
      {{"script", "absent.toml"}, registry(), 1, Match::WHOLE,
       {"nphost: cannot read the registry file 'absent.toml': No such file or directory.\n"}},
      {script, "[Framework]\nEventHandler = \"EventHandler\"\n", 1, Match::WHOLE,
       {"nphost: the registry file 'reg.toml' names no plug-in instance (a table with a Library key).\n"}},
      {script, registry("[Framework]\nLogFormat = \"xml\"\n"), 1, Match::WHOLE,
       {"nphost: registry file 'reg.toml', line 2: Framework.LogFormat must be 'text' or 'json', not 'xml'.\n"}},
      {script, twoInstances, 1, Match::WHOLE,
       {"nphost: the registry file 'reg.toml' holds several plug-in instances (NumberPortability, pipeline.np); "
        "choose one with --name.\n"}},
      {with(script, {"--name", "other"}), twoInstances, 1, Match::WHOLE,
       {"nphost: the registry file 'reg.toml' has no plug-in instance named 'other' "
        "(instances: NumberPortability, pipeline.np).\n"}},
      // The loader's own reason follows.
      {script, noSuchLibrary, 2, Match::STARTS,
       {"nphost: cannot load the plug-in library '" NP_PLUGIN_DIRECTORY "/libNoSuchPlugIn.so': "}},
      {script, noEntryPoint, 2, Match::STARTS,
       {"nphost: the plug-in library '" NP_FRAMEWORK_LIBRARY "' has no entry point 'npframeworkModuleStart': "}},
      // With --plugin-dir the bare name is looked up elsewhere.
      {with(script, {"--plugin-dir", folderM.string()}), registry(), 2, Match::STARTS,
       {"nphost: cannot load the plug-in library '" + folderM.string() + "/libDAT_NumberPortability.so': "}},
      // The log explains why the object is not valid.
      {script, noFileName, 3, Match::HOLDS,
       {"nphost: the plug-in 'NumberPortability' is not valid after construction", "ERR_REG_NAME_NOT_FOUND"},
       {"construct valid=false"}},
      {{"--version"}, "", 0, Match::WHOLE, {""}, {"nphost 1.0.8"}},
      {{}, "", 1, Match::STARTS, {"nphost: "}},
      {with(script, {"--log-format", "xml"}), registry(), 1, Match::WHOLE,
       {"nphost: --log-format must be 'text' or 'json', not 'xml'.\n"}},
      {with(run, {"--delimiter", "ab"}), registry(), 1, Match::WHOLE,
       {"nphost: --delimiter must be one character other than a line feed, not 'ab'.\n"}},
      {with(run, {"--threads", "0"}), registry(), 1, Match::WHOLE,
       {"nphost: --threads: Value 0 not in range 1 to 1024. Run 'nphost --help' for the usage.\n"}},
      {with(run, {"--input", "absent.txt"}), registry(), 1, Match::WHOLE,
       {"nphost: cannot open the input file 'absent.txt': No such file or directory.\n"}},
      {with(run, {"--output", "."}), registry(), 1, Match::WHOLE,
       {"nphost: cannot open the output file '.' for writing: Is a directory.\n"}},
      // The plug-in's log comes first.
      {with(run, {"--control", "plain.txt"}), registry(), 1, Match::HOLDS,
       {"\nnphost: 'plain.txt' exists and is not a socket; the control socket is not created there.\n"}},
  };
  for (const EarlyEnd& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments) + "\n" + c.registryText);
    writeFile("reg.toml", c.registryText);
    Nphost nphost(folderM, c.arguments);
    // A command or record that must never be answered.
    nphost.write("usable\n");
    EXPECT_EQ(nphost.finish(), c.status);
    EXPECT_EQ(nphost.rest(), c.out);
    const std::string err = nphost.errors();
    if (c.match == Match::WHOLE) {
      EXPECT_EQ(err, c.err.front());
    } else if (c.match == Match::STARTS) {
      EXPECT_EQ(err.rfind(c.err.front(), 0), 0u) << err;
    } else {
      for (const std::string& part : c.err) EXPECT_NE(err.find(part), std::string::npos) << err;
    }
  }
  EXPECT_EQ(readFile("plain.txt"), "not a socket");

  Nphost help(folderM, {"--help"});
  EXPECT_EQ(help.finish(), 0);
  EXPECT_NE(std::find_if(help.rest().begin(), help.rest().end(),
                         [](const std::string& line) { return line.find("script") != std::string::npos; }),
            help.rest().end());
}

}  // namespace
