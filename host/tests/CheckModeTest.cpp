// Runs `nphost check` on small data files and checks what an operator sees before a file goes
// live: a finding for each line the load would skip or store under a surprising key, the
// summary's figures, the exit status, and a progress line only on a terminal.
#include "Nphost.h"
#include "ProgramFolderTest.h"
#include "TerminalRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <sstream>

namespace {

using namespace NphostTest;
using namespace testing;
using NphostCheck = ProgramFolderTest;

const std::string skipped = "; it is skipped.";

TEST_F(NphostCheck, ReportsEachLineTheLoadWouldSkipOrStoreUnderASurprisingKey) {
  const struct {
    std::string data;
    Lines findings;  // standard output before the summary
    int status;
  } cases[] = {
      // Every accepted way of writing a number, separators included: nothing to report.
      {"+4930123456 20200101000000 A\n030-12.34/5(6) 20210101000000 A\n  0049151\t20000101000000   B  \r\n", {}, 0},
      {"030123456 20200101000000 A\n\n  \t\n1 2\n0301 20200101000000 OP B\n",
       {"np.txt:2: the line is blank; every line must be a record, so it is skipped.",
        "np.txt:3: the line is blank; every line must be a record, so it is skipped.",
        "np.txt:4: the line has 2 fields, not 3: \"1 2\"" + skipped,
        "np.txt:5: the line has 4 fields, not 3: \"0301 20200101000000 OP B\"" + skipped},
       4},
      {"030123456 20231301000000 A\n030123456 2020-01-01 A\n030123456 20200101000000 A\n",
       {"np.txt:1: the date-time \"20231301000000\" is not a valid YYYYMMDDHHMMSS; the line is skipped.",
        "np.txt:2: the date-time \"2020-01-01\" is not a valid YYYYMMDDHHMMSS; the line is skipped."},
       4},
      // The same number in two notations and the same date: the first one stays.
      {"030123456 20200101000000 A\n030123456 20210101000000 B\n+49-30123456 20200101000000 C\n",
       {"np.txt:3: the number 004930123456 already has a record from 20200101000000 on an earlier line; this one is "
        "skipped and the earlier one stays."},
       4},
      {"030123456 20200101000000 A\n030999 20200101000000 B",
       {"np.txt:2: the last line has no line end, so the plug-in never loads it: \"030999 20200101000000 B\"."}, 4},
      {"\xEF\xBB\xBF+49301234567 20180101000000 D055\n",
       {"np.txt:1: the file starts with a byte-order mark, which becomes part of the number \"+49301234567\"; it "
        "would be stored as 004949301234567."},
       4},
      {"030123456 20200101000000 A\nX 20180101000000 D055\n+49+30 20200101000000 C\n0301*5 20200101000000 C\n"
       "030+1 20200101000000 C\n\xEF\xBB\xBF" "030 20200101000000 C\n",
       {"np.txt:2: the number \"X\" holds the letter 'X'; it would be stored as 0049, the country code alone, and "
        "answer for every unknown number of that country.",
        "np.txt:3: the number \"+49+30\" holds a second '+'; it would be stored as 004930.",
        "np.txt:4: the number \"0301*5\" holds the character \"*\"; it would be stored as 00493015.",
        "np.txt:5: the number \"030+1\" holds a '+' after its start; it would be stored as 0049301.",
        "np.txt:6: the number \"\\xEF\\xBB\\xBF030\" holds the character \"\\xEF\"; it would be stored as 0049030."},
       4},
      // A file that would leave the service without data is a finding, whatever its lines.
      {"", {"np.txt: no line holds a record that the plug-in would load; it would start with no data."}, 4},
      {"1 2\n",
       {"np.txt:1: the line has 2 fields, not 3: \"1 2\"" + skipped,
        "np.txt: no line holds a record that the plug-in would load; it would start with no data."},
       4},
  };
  for (const auto& [data, findings, status] : cases) {
    writeFile("np.txt", data);
    Nphost nphost(folderM, {"check", "reg.toml"});
    EXPECT_EQ(nphost.finish(), status) << data;
    ASSERT_FALSE(nphost.rest().empty()) << data;
    const Lines before(nphost.rest().begin(), nphost.rest().end() - 1);
    EXPECT_EQ(before, findings) << data;
    EXPECT_THAT(nphost.rest().back(), StartsWith("checked np.txt: ")) << data;
    EXPECT_EQ(nphost.errors(), "") << "a check starts no service and logs nothing: " << data;
  }
}

TEST_F(NphostCheck, SummaryCountsLinesRecordsNumbersOperatorsAndTheSpanOfDates) {
  // Two notations of one number, a prefix of another, one rejected line, one suspicious line.
  writeFile("np.txt", "030123456 20200101000000 A\n+4930123456 20230301000000 B\n0049151 20000101000000 A\n"
                      "01511234567 20220101000000 C\n1 2\n030x 20250615120000 D\n");
  Nphost nphost(folderM, {"check", "reg.toml"});
  EXPECT_EQ(nphost.finish(), 4);
  EXPECT_THAT(nphost.rest(), ElementsAre(_, _, "checked np.txt: 6 lines, 5 records, 4 numbers, 1 rejected, 1 suspicious, "
                                               "dates 20000101000000 to 20250615120000, 4 operators"));
}

// What keeps a file from being judged gives one sentence and the status that the same fault
// gives a start: 1 the registry file, 2 the library, 3 what the plug-in would not start on. The
// instance and the library are chosen as script and run choose them.
TEST_F(NphostCheck, InstanceAndLibraryAreFoundAsInScriptModeAndWhatCannotBeUsedGivesItsStatus) {
  const auto replaced = [](std::string text, const std::string& what, const std::string& by) {
    return text.replace(text.find(what), what.size(), by);
  };
  const std::string twoInstances = registry("") + replaced(replaced(registry(""), "NumberPortability]", "at.np]"),
                                                            "np.txt", "at.txt");
  writeFile("at.txt", "030123456 20200101000000 A\n");
  const struct {
    std::string arguments;
    std::string registryText;
    int status;
    std::string err;
    Lines out = {};
  } cases[] = {
      {"check missing.toml", registry(), 1,
       "nphost: cannot read the registry file 'missing.toml': No such file or directory.\n"},
      {"check reg.toml", replaced(registry(), "np.txt", "gone.txt"), 3,
       "nphost: the data file 'gone.txt' (NumberPortability.FileName) does not exist.\n"},
      {"check reg.toml", replaced(registry(), "np.txt", "."), 3,
       "nphost: cannot open the data file '.' for reading: it is a directory.\n"},
      {"check reg.toml", replaced(registry(), "np.txt", "/dev/zero"), 3,
       "nphost: cannot open the data file '/dev/zero' for reading: it is a character device.\n"},
      // The table's remarks come first, so the misspelt key is seen beside the missing one.
      {"check reg.toml", replaced(registry(), "FileName = \"np.txt\"", "FileNme = \"np.txt\""), 3,
       "nphost: the plug-in needs the key NumberPortability.FileName, which the registry lacks.\n",
       {"reg.toml:6: NumberPortability.FileNme is not a key the plug-in reads, so it has no effect; did you mean "
        "FileName? The plug-in reads FileName, CountryCode, NationalAccessCode, InternationalAccessCode, "
        "InternationalAccessCodeSign and SearchMethod at start, and Reload, ReuseOnFailure, AdditionalNumPortData "
        "and PrintData in updates."}},
      {"check reg.toml", replaced(registry(), "SearchMethod = 0", "SearchMethod = -1"), 3,
       "nphost: the plug-in 'NumberPortability' would not start: it cannot read NumberPortability.SearchMethod as a "
       "search method.\n",
       {"reg.toml:9: NumberPortability.SearchMethod is '-1', not a whole number written in digits alone; the plug-in "
        "refuses it and does not start. Its search methods are 0 (the longest stored prefix with a record at the "
        "date), 1 (the number itself only) and 2 (the shortest stored prefix)."}},
      {"check reg.toml --plugin-dir /nonexistent", registry(), 2,
       "nphost: cannot load the plug-in library '/nonexistent/libDAT_NumberPortability.so': "
       "/nonexistent/libDAT_NumberPortability.so: cannot open shared object file: No such file or directory.\n"},
      {"check reg.toml --name at.np --plugin-dir " NP_PLUGIN_DIRECTORY, twoInstances, 0, "",
       {"checked at.txt: 1 lines, 1 records, 1 numbers, 0 rejected, 0 suspicious, dates 20200101000000 to "
        "20200101000000, 1 operators"}},
  };
  for (const auto& [arguments, registryText, status, err, out] : cases) {
    writeFile("reg.toml", registryText);
    Lines words;
    std::istringstream split(arguments);
    for (std::string word; split >> word;) words.push_back(word);
    Nphost nphost(folderM, words);
    EXPECT_EQ(nphost.finish(), status) << arguments;
    EXPECT_EQ(nphost.errors(), err) << arguments;
    EXPECT_EQ(nphost.rest(), out) << arguments;
  }
}

// A kill -9 while a rewrite was copied over a hard-linked data file leaves a complete staged
// copy beside it. The check, which never writes, says so and leaves both alone; the next start
// finishes the copy before it loads, so every name holds the new data whole.
TEST_F(NphostCheck, AnInterruptedRewriteIsNamedByTheCheckAndFinishedByTheNextStart) {
  const std::string whole = "030123456 20200101000000 NEW\n030777 20200101000000 NEW\n";
  writeFile("np.txt", "030123456 20200101000000 NEW\n030777 20200101000000 OLD\n");  // new in front, old behind
  fs::create_hard_link(folderM / "np.txt", folderM / "np-link.txt");
  struct stat status {};
  ASSERT_EQ(::stat((folderM / "np.txt").c_str(), &status), 0);
  const std::string staged = ".pending-rewrite." + std::to_string(status.st_ino);
  writeFile(staged, whole);

  Nphost check(folderM, {"check", "reg.toml"});
  EXPECT_EQ(check.finish(), 4);
  ASSERT_FALSE(check.rest().empty());
  EXPECT_THAT(check.rest().front(), StartsWith("np.txt: a rewrite of the file was interrupted"));
  EXPECT_TRUE(fs::exists(folderM / staged)) << "a check never writes";
  EXPECT_NE(readFile("np.txt"), whole);

  Nphost script(folderM, {"script", "reg.toml"});
  script.write("search 004930777 20240101000000\n");
  EXPECT_EQ(script.finish(), 0);
  EXPECT_THAT(script.rest(), Contains("found NEW 20200101000000"));
  EXPECT_THAT(script.errors(), HasSubstr("INF_FILE_REWRITE_FINISHED"));
  EXPECT_EQ(readFile("np.txt"), whole);
  EXPECT_EQ(readFile("np-link.txt"), whole);
  EXPECT_FALSE(fs::exists(folderM / staged));
}

// Framework.DataLineLimit sets the longest data line the reader takes: the check judges a longer
// one as the start-up load meets it, which stops there; a value that is no size is refused.
TEST_F(NphostCheck, TheDataLineLimitIsTheRegistrysAndALongerLineStopsTheStart) {
  writeFile("np.txt", "030123456 20200101000000 A\n030123457 20200101000000 A-LONGER-THAN-FORTY-BYTES-IN-ALL\n");
  const struct {
    std::string limit;
    int status;
    std::string err;
  } cases[] = {
      {"40", 3, "nphost: reading the data file 'np.txt' failed at line 2: line 2 is longer than 40 bytes; "
                "the plug-in would not start.\n"},
      // A registry file that cannot be used gives 1, as it does for a start.
      {"\"4x\"", 1, "nphost: registry file 'reg.toml', line 3: Framework.DataLineLimit must be a whole number of "
                     "bytes from 1 to 1073741824, not '4x'.\n"},
      {"0", 1, "nphost: registry file 'reg.toml', line 3: Framework.DataLineLimit must be a whole number of "
               "bytes from 1 to 1073741824, not '0'.\n"},
  };
  for (const auto& [limit, status, err] : cases) {
    writeFile("reg.toml", registry("[Framework]\nEventHandler = \"EventHandler\"\nDataLineLimit = " + limit + "\n"));
    Nphost check(folderM, {"check", "reg.toml"});
    EXPECT_EQ(check.finish(), status) << limit;
    EXPECT_EQ(check.errors(), err) << limit;
  }
  writeFile("reg.toml", registry("[Framework]\nEventHandler = \"EventHandler\"\nDataLineLimit = 40\n"));
  Nphost run(folderM, {"run", "reg.toml"});
  EXPECT_EQ(run.finish(), 3);
  EXPECT_THAT(run.errors(), HasSubstr("ERR_LINE_TOO_LONG [\"np.txt\", \"2\", \"40\"]"));
}

// The README shows a check of the example data; it must be what nphost prints.
TEST_F(NphostCheck, ExampleRunInTheReadmeIsWhatNphostPrints) {
  const fs::path root = fs::path(NP_EXAMPLES_DIRECTORY).parent_path();
  const Lines readme = linesOf(root / "README.md");
  const auto start = std::find(readme.begin(), readme.end(), "$ nphost check examples/registry.toml");
  const auto end = std::find(start, readme.end(), "$ echo $?");
  ASSERT_TRUE(start != readme.end() && end != readme.end() && end + 1 != readme.end());
  Nphost nphost(root, {"check", "examples/registry.toml"}, (folderM / "stderr.txt").string());
  EXPECT_EQ(nphost.finish(), std::stoi(*(end + 1)));
  EXPECT_EQ(nphost.rest(), Lines(start + 1, end));
  EXPECT_EQ(nphost.errors(), "");
}

// A person watching a large file sees how far the check is; the line is gone before the summary.
TEST_F(NphostCheck, ShowsProgressOnATerminalForALargeFileAndErasesIt) {
  std::string data;
  for (int i = 0; data.size() < (std::size_t{5} << 20); ++i) data += "0301" + std::to_string(i) + " 20200101000000 OP\n";
  writeFile("np.txt", data);
  const auto [status, screen] = runOnTerminal(folderM, {"check", "reg.toml"});
  EXPECT_EQ(status, 0) << screen;
  const auto progress = screen.find("\rchecking np.txt: ");
  const auto erased = screen.rfind("\r\x1b[K");
  const auto summary = screen.find("checked np.txt: ");
  ASSERT_NE(progress, std::string::npos) << screen.substr(0, 300);
  EXPECT_THAT(screen.substr(progress, 40), MatchesRegex("\rchecking np\\.txt: [0-9]+ lines, [0-9]+%.*"));
  EXPECT_LT(progress, erased);
  EXPECT_LT(erased, summary);
}

}  // namespace
