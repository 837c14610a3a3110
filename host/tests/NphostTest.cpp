// Runs the built nphost on registries and data files in a temporary folder and checks what a
// user sees: answer lines, exit statuses, messages on standard error, the log and the files.
#include "NphostProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using NphostTest::Lines;
using NphostTest::Nphost;
using NphostTest::ProgramFolderTest;

struct Outcome {
  int status;
  Lines out;
  std::string err;
};

const char* const dataCM =
    "+4930123456  20200101000000  OPA\n"
    "030123456  20230301000000  OPB\n"
    "0049151  20000101000000  BLK\n"
    "01511234567  20220101000000  OPC\n"
    "bad-line  20200101000000\n";

std::string registry(const std::string& framework = "[Framework]\nEventHandler = \"EventHandler\"\n",
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

class NphostProgram : public ProgramFolderTest {
protected:
  void SetUp() override {
    ProgramFolderTest::SetUp();
    writeFile("np.txt", dataCM);
  }
  // Runs a whole script with a registry text; without a registry text, `arguments` are all.
  Outcome run(const std::string& script, const std::string& registryText, Lines arguments = {}) const {
    if (!registryText.empty()) {
      writeFile("reg.toml", registryText);
      arguments.insert(arguments.begin(), {"script", "reg.toml"});
    }
    Nphost nphost(folderM, arguments);
    nphost.write(script);
    const int status = nphost.finish();
    return Outcome{status, nphost.rest(), nphost.errors()};
  }

};

TEST_F(NphostProgram, AnswersEachCommandWithOneLine) {
  const Outcome r = run("# lookups\n"
                    "search 004930123456 20240101000000\n"
                    "search 004930123456 20210101000000\n"
                    "\n"
                    "search 004930123456 20100101000000\n"
                    "search 00491519999999 20210101000000\n"
                    "search 00491511234567 20230101000000\n"
                    "search 0033123456 20240101000000\n"
                    "search 004930123456 2024-01-01\n"
                    "search 004930123456\n"
                    "usable\n"
                    "frobnicate now\n"
                    "probe nosuchprobe 1\n"
                    "update \"PrintData=unterminated\n"
                    "update \"\"=x\n"
                    "update Unrelated=\"a b\"\n"
                    "await INF_NUM_NPORT_LOADED\n"
                    "await NEVER_WRITTEN 1 20\n"
                    "await INF_LOAD_DATA many\n"
                    "sleep 1\n"
                    "sleep -5\n"
                    "shutdown\n"
                    "shutdown\n",
                    registry());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, (Lines{"construct valid=true",
                          "init result=true",
                          "found OPB 20230301000000",
                          "found OPA 20200101000000",
                          "not-found",
                          "found BLK 20000101000000",
                          "found OPC 20220101000000",
                          "not-found",
                          "error invalid date-time",
                          "error usage: search NUMBER DATETIME",
                          "usable true",
                          "error unknown command frobnicate",
                          "error unknown probe nosuchprobe",
                          "error malformed quoting",
                          "error empty key in update",
                          "update result=true taken=false",
                          "await INF_NUM_NPORT_LOADED ok",
                          "await NEVER_WRITTEN timeout",
                          "error COUNT must be a whole number",
                          "sleep 1",
                          "error MS must be a whole number of milliseconds up to 86400000",
                          "shutdown result=true",
                          "error the plug-in is already shut down"}));
}

TEST_F(NphostProgram, DeltaUpdateChangesAnswersAndRewritesTheDataFile) {
  writeFile("delta.txt", "+4930777777  20240101000000  OPD\n030123456  20240601000000  OPE\n");
  const Outcome r = run("update AdditionalNumPortData=delta.txt\n"
                    "await INF_NUM_NPORT_ADDED\n"
                    "search 004930777777 20250101000000\n"
                    "search 004930123456 20250101000000\n"
                    "update AdditionalNumPortData=missing.txt\n",
                    registry());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, (Lines{"construct valid=true", "init result=true", "update result=true taken=true",
                          "await INF_NUM_NPORT_ADDED ok", "found OPD 20240101000000", "found OPE 20240601000000",
                          "update result=false taken=true"}));
  const std::string rewritten = readFile("np.txt");
  EXPECT_NE(rewritten.find("004930777777  20240101000000  OPD\n"), std::string::npos) << rewritten;
  EXPECT_NE(rewritten.find("004930123456  20230301000000  OPB\n"), std::string::npos) << rewritten;
  EXPECT_EQ(rewritten.find("bad-line"), std::string::npos) << rewritten;
}

TEST_F(NphostProgram, ProbeReloadReadsTheChangedFileInTheBackground) {
  writeFile("reg.toml", registry());
  Nphost nphost(folderM, {"script", "reg.toml"});
  EXPECT_EQ(nphost.readLine(), "construct valid=true");
  EXPECT_EQ(nphost.readLine(), "init result=true");
  EXPECT_EQ(nphost.ask("search 004940111 20240101000000"), "not-found");

  writeFile("np.txt", std::string(dataCM) + "040111  20210101000000  OPN\n");
  EXPECT_EQ(nphost.ask("probe reload TRUE"), "probe reload result=true");
  EXPECT_EQ(nphost.ask("await EVT::RELOAD_SUCCESSFUL"), "await EVT::RELOAD_SUCCESSFUL ok");
  EXPECT_EQ(nphost.ask("search 004940111 20240101000000"), "found OPN 20210101000000");
  EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
}

TEST_F(NphostProgram, PrintedDataAppearsBetweenTheAnswers) {
  const Outcome r = run("usable\nupdate PrintData=\nusable\n", registry());
  EXPECT_EQ(r.status, 0) << r.err;
  ASSERT_GE(r.out.size(), 6u);
  EXPECT_EQ(r.out[2], "usable true");
  const Lines dump(r.out.begin() + 3, r.out.end() - 2);
  EXPECT_NE(std::find(dump.begin(), dump.end(), "004930123456  20230301000000  OPB"), dump.end());
  EXPECT_NE(std::find(dump.begin(), dump.end(), "0049151  20000101000000  BLK"), dump.end());
  EXPECT_EQ(r.out[r.out.size() - 2], "update result=true taken=true");
  EXPECT_EQ(r.out.back(), "usable true");
}

TEST_F(NphostProgram, WritesTheFrameworkLogAsJsonLines) {
  const Outcome r = run("probe reload TRUE\nawait EVT::RELOAD_SUCCESSFUL\n", registry(),
                    {"--log", "log.json", "--log-format", "json"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "") << "the log belongs in the file";

  std::map<std::string, nlohmann::json> first;  // first line of each id
  std::istringstream log(readFile("log.json"));
  for (std::string line; std::getline(log, line);) {
    const auto entry = nlohmann::json::parse(line, nullptr, false);
    ASSERT_FALSE(entry.is_discarded()) << line;
    first.emplace(entry.at("id").get<std::string>(), entry);
  }
  ASSERT_TRUE(first.contains("INF_LOAD_DATA"));
  EXPECT_EQ(first["INF_LOAD_DATA"]["kind"], "status");
  EXPECT_EQ(first["INF_LOAD_DATA"]["severity"], 1);
  EXPECT_EQ(first["INF_LOAD_DATA"]["args"], nlohmann::json::array({"NumberPortability"}));
  EXPECT_EQ(first["INF_NUM_NPORT_LOADED"]["args"], nlohmann::json::array({"4"}));
  EXPECT_EQ(first["ERR_NUMBER_OF_FIELDS_IN_RECORD"]["severity"], 2);
  EXPECT_EQ(first["ERR_NUMBER_OF_FIELDS_IN_RECORD"]["args"],
            nlohmann::json::array({"2", "3", "bad-line  20200101000000", "At Line# 5 in File 'np.txt'. "}));
  ASSERT_TRUE(first.contains("EVT::RELOAD_SUCCESSFUL"));
  EXPECT_EQ(first["EVT::RELOAD_SUCCESSFUL"]["kind"], "event");
  EXPECT_EQ(first["EVT::RELOAD_SUCCESSFUL"]["receiver"], "EventHandler");
  EXPECT_EQ(first["EVT::RELOAD_SUCCESSFUL"]["delivered"], true);

  // Without an event handler nobody receives the event, and the log says so.
  const Outcome alone = run("probe reload TRUE\nawait EVT::RELOAD_SUCCESSFUL\n",
                        registry("[Framework]\nLog = \"alone.json\"\nLogFormat = \"json\"\n"));
  ASSERT_EQ(alone.status, 0) << alone.err;
  std::istringstream aloneLog(readFile("alone.json"));
  bool sawEvent = false;
  for (std::string line; std::getline(aloneLog, line);) {
    const auto entry = nlohmann::json::parse(line);
    if (entry["id"] != "EVT::RELOAD_SUCCESSFUL") continue;
    sawEvent = true;
    EXPECT_EQ(entry["delivered"], false) << line;
  }
  EXPECT_TRUE(sawEvent);
}

TEST_F(NphostProgram, RegistryProblemsEndWithStatusOne) {
  Outcome r = run("", registry("", "Codes = [1, 2]\n"));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "nphost: registry file 'reg.toml', line 8: 'NumberPortability.Codes' is an array; "
                   "a registry value must be a single value.\n");
  EXPECT_TRUE(r.out.empty());

  r = run("", registry("", "Broken = \n"));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.rfind("nphost: registry file 'reg.toml', line 8: ", 0), 0u) << r.err;

  r = run("", "", {"script", "absent.toml"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "nphost: cannot read the registry file 'absent.toml': No such file or directory.\n");

  r = run("", "[Framework]\nEventHandler = \"EventHandler\"\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("names no plug-in instance"), std::string::npos) << r.err;

  r = run("", registry("[Framework]\nLogFormat = \"xml\"\n"));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "nphost: registry file 'reg.toml', line 2: Framework.LogFormat must be 'text' or 'json', not 'xml'.\n");
}

TEST_F(NphostProgram, NameChoosesAmongSeveralInstances) {
  const std::string two = registry() + "\n[pipeline.np]\nLibrary = \"DAT_NumberPortability\"\nFileName = \"np.txt\"\n"
                                       "CountryCode = \"43\"\nNationalAccessCode = \"0\"\n";
  Outcome r = run("", two);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("several plug-in instances (NumberPortability, pipeline.np); choose one with --name"),
            std::string::npos)
      << r.err;

  // The Austrian instance stores the national number 030123456 under 0043.
  r = run("search 004330123456 20240101000000\n", two, {"--name", "pipeline.np"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, (Lines{"construct valid=true", "init result=true", "found OPB 20230301000000"}));

  r = run("", two, {"--name", "other"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("no plug-in instance named 'other'"), std::string::npos) << r.err;
}

TEST_F(NphostProgram, MissingLibraryOrEntryPointEndsWithStatusTwo) {
  std::string text = registry();
  text.replace(text.find("\"DAT_NumberPortability\""), 23, "\"NoSuchPlugIn\"");
  Outcome r = run("", text);
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("cannot load the plug-in library '" NP_PLUGIN_DIRECTORY "/libNoSuchPlugIn.so'"),
            std::string::npos)
      << r.err;

  text = registry();
  text.replace(text.find("\"DAT_NumberPortability\""), 23, "\"" NP_FRAMEWORK_LIBRARY "\"");
  r = run("", text);
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("has no entry point 'npframeworkModuleStart'"), std::string::npos) << r.err;

  // With --plugin-dir the bare name is looked up elsewhere.
  r = run("", registry(), {"--plugin-dir", folderM.string()});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find(folderM.string() + "/libDAT_NumberPortability.so"), std::string::npos) << r.err;
}

TEST_F(NphostProgram, InvalidObjectEndsWithStatusThree) {
  std::string text = registry();
  text.erase(text.find("FileName"), std::string("FileName = \"np.txt\"\n").size());
  const Outcome r = run("usable\n", text);
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.out, Lines{"construct valid=false"});
  EXPECT_NE(r.err.find("nphost: the plug-in 'NumberPortability' is not valid after construction"), std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("ERR_REG_NAME_NOT_FOUND"), std::string::npos) << "the log explains why: " << r.err;
}

TEST_F(NphostProgram, CommandLineHelpVersionAndMistakes) {
  Outcome r = run("", "", {"--version"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, Lines{"nphost 1.0.8"});

  r = run("", "", {"--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(std::find_if(r.out.begin(), r.out.end(), [](const std::string& line) { return line.find("script") != std::string::npos; }),
            r.out.end());

  r = run("", "", {});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.rfind("nphost: ", 0), 0u) << r.err;

  r = run("", registry(), {"--log-format", "xml"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "nphost: --log-format must be 'text' or 'json', not 'xml'.\n");
}

TEST_F(NphostProgram, ExampleDemoRunsOnACopyOfTheData) {
  fs::create_directory(folderM / "examples");
  for (const char* name : {"registry.toml", "np_data.txt", "np_delta.txt", "demo.script"})
    fs::copy_file(fs::path(NP_EXAMPLES_DIRECTORY) / name, folderM / "examples" / name);
  std::ifstream script(fs::path(NP_EXAMPLES_DIRECTORY) / "demo.script");
  const Outcome r = run(std::string(std::istreambuf_iterator<char>(script), {}), "", {"script", "examples/registry.toml"});
  EXPECT_EQ(r.status, 0) << r.err;
  for (const auto& line : r.out) {
    EXPECT_EQ(line.rfind("error", 0), std::string::npos) << line;
    EXPECT_EQ(line.find("timeout"), std::string::npos) << line;
    EXPECT_EQ(line.find("=false"), std::string::npos) << line;
  }
  EXPECT_NE(std::find(r.out.begin(), r.out.end(), "found D001 20000101000000"), r.out.end());
  EXPECT_NE(std::find(r.out.begin(), r.out.end(), "found D052 20240301000000"), r.out.end());
  EXPECT_NE(readFile("examples/np_data.txt").find("004930555000"), std::string::npos);
}

}  // namespace
