// Runs the built nphost in script mode and with bad command lines, registries and files, and
// checks what a user sees: answer lines, exit statuses, messages on standard error, the log and
// the files it must leave alone.
#include "Nphost.h"
#include "ProgramFolderTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace NphostTest;
using namespace testing;
using NphostProgram = ProgramFolderTest;

void expectAnswers(Nphost& nphost, const std::vector<std::pair<std::string, std::string>>& exchanges) {
  for (const auto& [command, answer] : exchanges) {
    nphost.write(command + "\n");
    EXPECT_EQ(nphost.readLine(), answer) << command;
  }
}

TEST_F(NphostProgram, ScriptAnswersEachCommandWithOneLineAndChangesTheDataAsAsked) {
  writeFile("delta.txt", "+4930777777  20240101000000  OPD\n030123456  20240601000000  OPE\n");
  Nphost nphost(folderM, {"script", "reg.toml", "--log", "log.txt"});
  EXPECT_EQ(nphost.readLine(), "construct valid=true");
  EXPECT_EQ(nphost.readLine(), "init result=true");
  nphost.write("# comments and blank lines get no answer\n  \t# indented\n\n \t\r\n");
  const std::string usage = "error usage: ", whole = " must be a whole number", ms = " of milliseconds up to 86400000";
  expectAnswers(nphost, {
      {"search 004930123456 20210101000000", "found OPA 20200101000000"},
      {"search\t00491519999999  20210101000000\r", "found BLK 20000101000000"},
      {"search 0033123456 20240101000000", "not-found"}, {"usable \t", "usable true"},
      {"await INF_NUM_NPORT_LOADED", "await INF_NUM_NPORT_LOADED ok"},
      {"await NEVER_WRITTEN 1 20", "await NEVER_WRITTEN timeout"}, {"sleep 1", "sleep 1"},
      // The rejected data line is reported once for each of the two trees.
      {"await ERR_NUMBER_OF_FIELDS_IN_RECORD 2", "await ERR_NUMBER_OF_FIELDS_IN_RECORD ok"},
      {"await ERR_NUMBER_OF_FIELDS_IN_RECORD 3 20", "await ERR_NUMBER_OF_FIELDS_IN_RECORD timeout"},
      {"update Unrelated=\"a b\"", "update result=true taken=false"},
      // Hostile and malformed lines: each gets one answer line, and the program goes on.
      {"search \"\" 20240101000000", "not-found"}, {"search 0049\xff\x01 20240101000000", "not-found"},
      {"search 0049" + std::string(200, '9') + " 20240101000000", "not-found"},
      {"search 004930123456 2024-01-01", "error invalid date-time"},
      {"search 004930123456 99999999999999999999", "error invalid date-time"},
      {"search 004930123456", usage + "search NUMBER DATETIME"}, {"usable x", usage + "usable"},
      {"frobnicate now", "error unknown command frobnicate"},
      {std::string("\x01\xff\x00zz", 5), std::string("error unknown command \x01\xff\x00zz", 27)},
      {"\"", "error malformed quoting"}, {"update \"PrintData=x", "error malformed quoting"},
      {"update", usage + "update KEY=VALUE ..."}, {"update \"\"=x", "error empty key in update"},
      {"update ==", "error empty key in update"}, {"probe", usage + "probe NAME [VALUE]"},
      {"probe a b c", usage + "probe NAME [VALUE]"}, {R"(probe "" "" "")", usage + "probe NAME [VALUE]"},
      // Quotes group blanks, join touching parts and take \" and \\ inside; outside, a backslash is plain.
      {R"(probe "no such"probe)", "error unknown probe no suchprobe"}, {R"(probe a\"b")", R"(error unknown probe a\b)"},
      {R"(probe "say \"hi\" \\ \n")", R"(error unknown probe say "hi" \ \n)"}, {R"(probe "x\")", "error malformed quoting"},
      {"await", usage + "await ID [COUNT [TIMEOUT_MS]]"}, {"await X 18446744073709551615 0", "await X timeout"},
      {"await X 99999999999999999999", "error COUNT" + whole}, {"await X many", "error COUNT" + whole},
      {"await X 1 86400001", "error TIMEOUT_MS" + whole + ms}, {"sleep", usage + "sleep MS"},
      {"sleep -5", "error MS" + whole + ms}, {"sleep 99999999999999999999", "error MS" + whole + ms},
      {"shutdown now", usage + "shutdown"},
      // A delta load merges into the data file; a missing one fails.
      {"update AdditionalNumPortData=delta.txt", "update result=true taken=true"},
      {"await INF_NUM_NPORT_ADDED", "await INF_NUM_NPORT_ADDED ok"},
      {"search 004930777777 20250101000000", "found OPD 20240101000000"},
      {"search 004930123456 20250101000000", "found OPE 20240601000000"},
      {"update AdditionalNumPortData=missing.txt", "update result=false taken=true"},
  });
  // A reload through the probe reads the changed file in the background.
  writeFile("np.txt", readFile("np.txt") + "004940111  20210101000000  OPN\n");
  expectAnswers(nphost, {{"search 004940111 20240101000000", "not-found"},
                         {"probe reload TRUE", "probe reload result=true"},
                         {"await EVT::RELOAD_SUCCESSFUL", "await EVT::RELOAD_SUCCESSFUL ok"},
                         {"search 004940111 20240101000000", "found OPN 20210101000000"}});
  // The print goes to standard output, between the answers; shut-down comes once.
  nphost.write("update PrintData=\nusable\nshutdown\nshutdown\n");
  EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
  std::string out, rule(59, '-');
  for (const std::string& line : nphost.rest()) out += line + "\n";
  EXPECT_EQ(out, rule + "\n" + std::string(17, ' ') + "Number Portability Data\n" + rule + "\n" + readFile("np.txt") +
                     "update result=true taken=true\nusable true\nshutdown result=true\n"
                     "error the plug-in is already shut down\n");
  EXPECT_EQ(nphost.errors(), "") << "the log belongs in the file";
  const Lines log = linesOf(folderM / "log.txt");
  EXPECT_THAT(log, Contains(HasSubstr(" MINOR(2) NumberPortability ERR_NUMBER_OF_FIELDS_IN_RECORD [\"2\", \"3\", "
                                      "\"bad-line  20200101000000\", \"At Line# 5 in File 'np.txt'. \"] ")).Times(2));
  EXPECT_THAT(log, Contains(EndsWith(" EVENT NumberPortability -> EventHandler EVT::RELOAD_SUCCESSFUL [\"\"] delivered")));
}

// Each run gets `input` (or a command or record that must never be answered) on standard input;
// the input file and an existing output file must come out as they were.
TEST_F(NphostProgram, OptionsRegistriesAndFilesChooseWhatRunsOrEndItEarlyWithTheirStatus) {
  const auto replaced = [](std::string text, const std::string& what, const std::string& by) {
    return text.replace(text.find(what), what.size(), by);
  };
  const std::string reg = registry(), events = "004930123456;20240101000000\n", kept = "the user's file\n";
  const std::string twoInstances = registry("[Framework]\nLog = \"alone.json\"\nLogFormat = \"json\"\n") +
                                   replaced(replaced(registry(""), "NumberPortability]", "pipeline.np]"), "49", "43");
  const std::string usage = " Run 'nphost --help' for the usage.\n", at = "nphost: registry file 'reg.toml', line ";
  const std::string file = "nphost: the registry file 'reg.toml' ", loader = "nphost: cannot load the plug-in library '";
  const std::string same = "' is the input file 'events.txt'; name another output.\n";
  const std::string invalid = "nphost: the plug-in 'NumberPortability' is not valid";
  writeFile("plain.txt", "not a socket");
  fs::create_directory(folderM / "sub");
  fs::create_symlink(folderM / "events.txt", folderM / "link.txt");
  const struct {
    std::string arguments;     // split at blanks
    std::string registryText;  // written to reg.toml
    int status;
    Matcher<const std::string&> err;
    Matcher<const Lines&> out = IsEmpty();
    std::string input = "usable\n";
  } cases[] = {
      // The Austrian instance stores the national number 030123456 under 0043; the framework
      // table names the log, and without an event handler nobody receives the reload's event.
      {"script reg.toml --name pipeline.np", twoInstances, 0, Eq(""),
       ElementsAre("construct valid=true", "init result=true", "found OPB 20230301000000", "probe reload result=true",
                   "await EVT::RELOAD_SUCCESSFUL ok"),
       "search 004330123456 20240101000000\nprobe reload TRUE\nawait EVT::RELOAD_SUCCESSFUL\n"},
      {"--version", "", 0, Eq(""), ElementsAre("nphost 1.0.8")},
      {"--help", "", 0, Eq(""), Contains(HasSubstr("script"))},
      {"", "", 1, Eq("nphost: a subcommand is required: script, run, check or ctl." + usage)},
      {"script", "", 1, Eq("nphost: REGISTRY is required." + usage)},
      {"ctl np.sock", "", 1, Eq("nphost: COMMAND is required." + usage)},
      {"run reg.toml --threads 0", reg, 1, Eq("nphost: --threads: Value 0 not in range 1 to 1024." + usage)},
      {"script reg.toml --log-format xml", reg, 1, Eq("nphost: --log-format must be 'text' or 'json', not 'xml'.\n")},
      {"run reg.toml --delimiter | --log log.txt", reg, 0, HasSubstr("1 record: 1 found, 0 not found, 0 rejected"),
       ElementsAre("004930123456|20240101000000|x|OPB"), "004930123456|20240101000000|x\n"},
      {"run reg.toml --delimiter ab", reg, 1,
       Eq("nphost: --delimiter must be one character other than a line feed, not 'ab'.\n")},
      {"run reg.toml --control plain.txt", reg, 1,  // after the plug-in's log
       EndsWith("\nnphost: 'plain.txt' exists and is not a socket; the control socket is not created there.\n")},
      {"run reg.toml --output out.txt", registry("", "Codes = [1, 2]\n"), 1,
       Eq(at + "8: 'NumberPortability.Codes' is an array; a registry value must be a single value.\n")},
      {"run reg.toml --output out.txt", "[NumberPortability\n", 1, StartsWith(at + "1: ")},
      {"run absent.toml", reg, 1, Eq("nphost: cannot read the registry file 'absent.toml': No such file or directory.\n")},
      {"script reg.toml", "[Framework]\n", 1, Eq(file + "names no plug-in instance (a table with a Library key).\n")},
      {"script reg.toml", registry("[Framework]\nLogFormat = \"xml\"\n"), 1,
       Eq(at + "2: Framework.LogFormat must be 'text' or 'json', not 'xml'.\n")},
      {"script reg.toml", twoInstances, 1,
       Eq(file + "holds several plug-in instances (NumberPortability, pipeline.np); choose one with --name.\n")},
      {"script reg.toml --name other", twoInstances, 1,
       Eq(file + "has no plug-in instance named 'other' (instances: NumberPortability, pipeline.np).\n")},
      // The loader's own reason follows.
      {"run reg.toml --output out.txt", replaced(reg, "DAT_NumberPortability", "NoSuchPlugIn"), 2,
       StartsWith(loader + NP_PLUGIN_DIRECTORY "/libNoSuchPlugIn.so': ")},
      {"script reg.toml --plugin-dir " + folderM.string(), reg, 2,
       StartsWith(loader + folderM.string() + "/libDAT_NumberPortability.so': ")},
      {"script reg.toml", replaced(reg, "DAT_NumberPortability", NP_FRAMEWORK_LIBRARY), 2,
       StartsWith("nphost: the plug-in library '" NP_FRAMEWORK_LIBRARY "' has no entry point 'npframeworkModuleStart': ")},
      {"script reg.toml", replaced(reg, "DAT_NumberPortability", NP_LIBRARY_WITHOUT_LOOKUP), 2,
       StartsWith("nphost: the plug-in library '" NP_LIBRARY_WITHOUT_LOOKUP
                  "' has no entry point 'DAT_NumberPortabilityLookup': ")},
      // The log explains why the object is not valid.
      {"script reg.toml", replaced(reg, "FileName = \"np.txt\"\n", ""), 3,
       AllOf(HasSubstr("ERR_REG_NAME_NOT_FOUND"), HasSubstr(invalid + " after construction")),
       ElementsAre("construct valid=false")},
      {"run reg.toml --input events.txt --output out.txt", replaced(reg, "np.txt", "gone.txt"), 3, HasSubstr(invalid)},
      {"run reg.toml --input absent.txt", reg, 1,
       Eq("nphost: cannot open the input file 'absent.txt': No such file or directory.\n")},
      {"run reg.toml --output .", reg, 1, Eq("nphost: cannot open the output file '.' for writing: Is a directory.\n")},
      // The output is opened only once the plug-in runs, and never over the input by any name.
      {"run reg.toml --input events.txt --output events.txt", reg, 1, Eq("nphost: the output 'events.txt" + same)},
      {"run reg.toml --input events.txt --output ./sub/../events.txt", reg, 1,
       Eq("nphost: the output './sub/../events.txt" + same)},
      {"run reg.toml --input events.txt --output link.txt", reg, 1, Eq("nphost: the output 'link.txt" + same)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments + "\n" + c.registryText);
    writeFile("reg.toml", c.registryText);
    writeFile("events.txt", events);
    writeFile("out.txt", kept);
    Lines words;
    std::istringstream split(c.arguments);
    for (std::string word; split >> word;) words.push_back(word);
    Nphost nphost(folderM, words);
    nphost.write(c.input);
    EXPECT_EQ(nphost.finish(), c.status);
    EXPECT_THAT(nphost.rest(), c.out);
    EXPECT_THAT(nphost.errors(), c.err);
    EXPECT_EQ(readFile("events.txt") + readFile("out.txt"), events + kept);
  }
  EXPECT_EQ(readFile("plain.txt"), "not a socket");
  EXPECT_TRUE(fs::is_symlink(folderM / "link.txt"));
  EXPECT_THAT(linesOf(folderM / "alone.json"),
              Contains(EndsWith(R"("kind":"event","sender":"pipeline.np","receiver":"","id":"EVT::RELOAD_SUCCESSFUL",)"
                                R"("args":[""],"delivered":false})")));
  // Standard input and standard output may be the same file too.
  const std::string shell = "cd " + folderM.string() + " && " NPHOST_PROGRAM " run reg.toml <events.txt >>events.txt 2>e";
  EXPECT_EQ(WEXITSTATUS(std::system(shell.c_str())), 1);
  EXPECT_EQ(readFile("events.txt"), events);
  EXPECT_THAT(readFile("e"), HasSubstr("nphost: the output '-' is the input file '-'"));
}

}  // namespace
