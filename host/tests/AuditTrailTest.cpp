// What a billing dispute needs of nphost, checked on the real program and plug-in: the fields
// that tell what answered each record (against the store's answers for every search method),
// `explain`, the generation that names the data read, and the log line of each publication,
// whose size, time and digest must be those of the file's bytes.
#include "Nphost.h"
#include "ProgramFolderTest.h"
#include "SocketClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <xxhash.h>

#include <atomic>
#include <cstdio>
#include <regex>
#include <thread>

namespace {

using namespace NphostTest;
using namespace testing;

using AuditTrail = ProgramFolderTest;

// The arguments of the INF_NPHOST_GENERATION lines of a JSON log.
std::vector<Lines> publications(const fs::path& log) {
  std::vector<Lines> found;
  for (const std::string& line : linesOf(log)) {
    const auto entry = nlohmann::json::parse(line);
    if (entry.value("id", "") == "INF_NPHOST_GENERATION") found.push_back(entry["args"].get<Lines>());
  }
  return found;
}

// Whether `text` is a generation of publication `publication`: YYYYMMDDTHHMMSS.mmmZ-N.
bool isGeneration(const std::string& text, int publication) {
  return std::regex_match(text, std::regex(R"(\d{8}T\d{6}\.\d{3}Z-)" + std::to_string(publication)));
}

// What the log line must say of a file's content: size, modification time, XXH3-128 digest.
Lines fileFacts(const fs::path& file, const std::string& bytes) {
  struct stat status {};
  EXPECT_EQ(::stat(file.c_str(), &status), 0) << file;
  char time[64];
  std::tm utc{};
  gmtime_r(&status.st_mtim.tv_sec, &utc);
  std::snprintf(time, sizeof time, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(status.st_mtim.tv_nsec / 1'000'000));
  const XXH128_hash_t digest = XXH3_128bits(bytes.data(), bytes.size());
  char hex[33];
  std::snprintf(hex, sizeof hex, "%016llx%016llx", static_cast<unsigned long long>(digest.high64),
                static_cast<unsigned long long>(digest.low64));
  return {std::to_string(bytes.size()), time, hex};
}

// Each field against what the store answers, for every search method: the number's own record,
// a stored prefix of 7 digits (0049151), no record; as looked up and, with --normalize, as
// written in another form (the key's digits are counted in the stored form). `explain` answers
// the same, and the generation is the start-up load's.
TEST_F(AuditTrail, FieldsAndExplainTellWhatAnsweredForEverySearchMethod) {
  struct Case {
    std::string number, dateTime;
    std::string expected[3];  // operator;valid_from;match for SearchMethod 0, 1 and 2
  };
  const std::string own = "OPA;20200101000000;number", block = "BLK;20000101000000;prefix:7", none = ";;";
  const std::vector<Case> cases = {
      {"004930123456", "20210101000000", {own, own, own}},
      {"004930123456", "20240101000000", {"OPB;20230301000000;number", "OPB;20230301000000;number", "OPB;20230301000000;number"}},
      {"004930123456", "20190101000000", {none, none, none}},
      {"00491511234567", "20230101000000", {"OPC;20220101000000;number", "OPC;20220101000000;number", block}},
      {"00491511234567", "20210101000000", {block, none, block}},
      {"00491519999", "20210101000000", {block, none, block}},
      {"+49 151 1234567", "20230101000000", {"OPC;20220101000000;number", "OPC;20220101000000;number", block}},
      {"030123456", "20190101000000", {none, none, none}},
      {"0151 9999", "20210101000000", {block, none, block}},
  };
  const std::size_t storedForm = 6;  // the cases before are in the stored form
  for (const int method : {0, 1, 2}) {
    SCOPED_TRACE("SearchMethod " + std::to_string(method));
    std::string registryText = registry();
    registryText.replace(registryText.find("SearchMethod = 0"), 16, "SearchMethod = " + std::to_string(method));
    writeFile("reg.toml", registryText);
    for (const bool normalize : {false, true}) {
      std::string input, script;
      for (std::size_t i = 0; i < cases.size(); ++i) {
        if (!normalize && i >= storedForm) break;
        input += cases[i].number + ";" + cases[i].dateTime + ";x\n";
        script += "explain \"" + cases[i].number + "\" " + cases[i].dateTime + "\n";
      }
      input += "bad line\n004930123456;2024\n";  // rejected: no lookup, every field empty
      writeFile("in.txt", input);
      Lines words = {"run", "reg.toml", "--input", "in.txt", "--output", "out.txt", "--log", "log.txt",
                     "--fields", "match,operator,generation,valid_from"};
      if (normalize) words.push_back("--normalize");
      Nphost run(folderM, words);
      ASSERT_EQ(run.finish(), 0) << run.errors();
      Nphost explain(folderM, {"script", "reg.toml", "--log", "script-log.txt"});
      explain.write(script + "status\n");
      ASSERT_EQ(explain.finish(), 0) << explain.errors();

      const Lines out = linesOf(folderM / "out.txt");
      const Lines& answers = explain.rest();
      ASSERT_EQ(out.size(), (normalize ? cases.size() : storedForm) + 2) << "one output line per input line";
      const std::string scriptGeneration = answers.back().substr(answers.back().rfind('=') + 1);
      const std::regex shape(R"((.*);x;(.*);(.*);(\d{8}T\d{6}\.\d{3}Z-1);(.*))");
      for (std::size_t i = 0; i + 2 < out.size(); ++i) {
        SCOPED_TRACE(cases[i].number + " at " + cases[i].dateTime + (normalize ? " normalised" : ""));
        std::smatch field;
        ASSERT_TRUE(std::regex_match(out[i], field, shape)) << out[i];
        EXPECT_EQ(field[3].str() + ";" + field[5].str() + ";" + field[2].str(), cases[i].expected[method]);
        EXPECT_THAT(readFile("log.txt"), HasSubstr("INF_NPHOST_GENERATION [\"" + field[4].str() + "\", \"load\""));
        // explain takes the number in the stored form, as search does.
        if (i >= storedForm) continue;
        EXPECT_EQ(answers[i + 2], "explain operator=" + field[3].str() + " valid_from=" + field[5].str() + " match=" +
                                      (field[2].str().empty() ? "none" : field[2].str()) + " generation=" + scriptGeneration);
      }
      EXPECT_TRUE(isGeneration(scriptGeneration, 1)) << scriptGeneration;
      EXPECT_EQ(out[out.size() - 2], "bad line;;;;");
      EXPECT_EQ(out.back(), "004930123456;2024;;;;");
    }
  }
}

// A live reload while records stream in through a FIFO: each record carries the generation of
// the data that answered it, whose operator it also carries; the generation changes once, where
// the data changed, and records sent after the reload's answer all carry the new one, which
// `status` and the log's publication line name too. A reload that fails publishes nothing and
// logs no line.
TEST_F(AuditTrail, TheGenerationChangesOnceAtTheReloadThatPublishedIt) {
  ASSERT_EQ(mkfifo((folderM / "events").c_str(), 0600), 0);
  Nphost nphost(folderM, {"run", "reg.toml", "--input", "events", "--output", "out.txt", "--control", "np.sock",
                          "--threads", "3", "--log", "log.json", "--log-format", "json", "--fields", "generation,operator"});
  SocketClient control(folderM / "np.sock");
  ASSERT_TRUE(control.connected()) << nphost.errors();
  const int events = ::open((folderM / "events").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(events, 0);
  const std::string record = "004930123456;20240101000000\n";
  std::atomic<bool> stop{false};
  std::atomic<long> sent{0};
  std::jthread feeder([&] {
    for (; !stop; ++sent) {
      writeAll(events, record);
      if (sent % 100 == 0) usleep(1'000);
    }
  });
  const auto outputLines = [this] { return linesOf(folderM / "out.txt").size(); };
  for (int i = 0; i < 3'000 && outputLines() < 1'000; ++i) usleep(10'000);
  const std::size_t beforeReload = outputLines() - 1;  // the last one may be cut

  writeFile("np.txt", "");  // empty: a reload without reuse fails and leaves the data serving
  EXPECT_EQ(control.ask("update Reload ReuseOnFailure=FALSE"), "update result=false taken=true");
  writeFile("np.txt", "004930123456  20230301000000  NEW\n");
  EXPECT_EQ(control.ask("update Reload ReuseOnFailure=FALSE"), "update result=true taken=true");
  stop = true;
  feeder.join();
  for (int i = 0; i < 500; ++i) writeAll(events, record);
  const std::string status = control.ask("status");
  ::close(events);
  ASSERT_EQ(nphost.finish(), 0) << nphost.errors();

  const Lines out = linesOf(folderM / "out.txt");
  ASSERT_EQ(static_cast<long>(out.size()), sent + 500);
  std::vector<std::string> generations;
  for (std::size_t i = 0; i < out.size(); ++i) {
    const std::string fields = out[i].substr(record.size() - 1);
    const auto delimiter = fields.find(';', 1);
    const std::string generation = fields.substr(1, delimiter - 1), op = fields.substr(delimiter + 1);
    if (generations.empty() || generations.back() != generation) generations.push_back(generation);
    ASSERT_EQ(op, generation.ends_with("-1") ? "OPB" : "NEW") << "line " << i << ": the record and the generation "
                                                                    "come from two copies of the data: " << out[i];
    if (i < beforeReload) {
      ASSERT_THAT(generation, EndsWith("-1")) << "line " << i;
    }
    if (i >= out.size() - 500) {
      ASSERT_THAT(generation, EndsWith("-2")) << "line " << i;
    }
  }
  ASSERT_EQ(generations.size(), 2u) << "the generation must change exactly once";
  EXPECT_THAT(status, HasSubstr(" generation=" + generations[1]));
  const auto logged = publications(folderM / "log.json");
  ASSERT_EQ(logged.size(), 2u) << "the start-up load and the reload that published; not the failed one";
  EXPECT_EQ(Lines(logged[0].begin(), logged[0].begin() + 3), (Lines{generations[0], "load", "np.txt"}));
  EXPECT_EQ(Lines(logged[1].begin(), logged[1].begin() + 3), (Lines{generations[1], "reload", "np.txt"}));
}

// The log line of each publication names the data file's size, modification time and digest as
// the file now holds them: after the start-up load, a delta load (the merged file it rewrote,
// and the delta file read) and a reload through the probe (written by the log's own thread).
TEST_F(AuditTrail, EachPublicationLogsTheSizeTimeAndDigestOfItsData) {
  const std::string loaded = readFile("np.txt");
  const Lines atLoad = fileFacts(folderM / "np.txt", loaded);
  const std::string delta = "030999  20240101000000  DLT\n";
  writeFile("delta.txt", delta);
  Nphost script(folderM, {"script", "reg.toml", "--log", "log.json", "--log-format", "json"});
  script.write("status\nupdate AdditionalNumPortData=delta.txt\nprobe reload FALSE\nawait INF_NPHOST_GENERATION 3\n"
               "update Reload ReuseOnFailure=TRUE\nstatus\n");
  ASSERT_EQ(script.finish(), 0) << script.errors();
  const Lines atEnd = fileFacts(folderM / "np.txt", readFile("np.txt"));
  const std::string deltaDigest = fileFacts(folderM / "delta.txt", delta)[2];

  const auto logged = publications(folderM / "log.json");
  ASSERT_EQ(logged.size(), 4u) << readFile("log.json");
  const auto expect = [](const std::string& operation, const Lines& facts, Lines more = {}) {
    Lines arguments{operation, "np.txt"};
    arguments.insert(arguments.end(), facts.begin(), facts.end());
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  };
  const std::vector<Lines> expected = {expect("load", atLoad), expect("delta", atEnd, {"delta.txt", deltaDigest}),
                                       expect("reload", atEnd), expect("reload", atEnd)};
  for (std::size_t i = 0; i < logged.size(); ++i) {
    SCOPED_TRACE("publication " + std::to_string(i + 1));
    EXPECT_TRUE(isGeneration(logged[i][0], static_cast<int>(i) + 1)) << logged[i][0];
    EXPECT_EQ(Lines(logged[i].begin() + 1, logged[i].end()), expected[i]);
  }
  EXPECT_THAT(script.rest()[2], EndsWith(" generation=" + logged[0][0]));
  EXPECT_THAT(script.rest().back(), EndsWith(" generation=" + logged[3][0]));
}

// --fields refused at start with the known names, before anything is loaded or opened.
TEST_F(AuditTrail, FieldListsThatNameNothingKnownAreRefused) {
  const std::string known = "; the known fields are operator, valid_from, match and generation, separated by commas.\n";
  const std::vector<std::pair<std::string, std::string>> refusals = {
      {"", "nphost: --fields names no field"},
      {"operator,carrier", "nphost: --fields names the unknown field 'carrier'"},
      {"Operator", "nphost: --fields names the unknown field 'Operator'"},
      {"match,generation,match", "nphost: --fields names the field 'match' twice"},
      {"operator,,match", "nphost: --fields holds an empty field name in 'operator,,match'"},
      {"operator,", "nphost: --fields holds an empty field name in 'operator,'"},
  };
  for (const auto& [list, sentence] : refusals) {
    Nphost run(folderM, {"run", "reg.toml", "--output", "out.txt", "--fields", list});
    EXPECT_EQ(run.finish(), 1) << list;
    EXPECT_EQ(run.errors(), sentence + known) << list;
    EXPECT_FALSE(fs::exists(folderM / "out.txt")) << list;
  }
  Nphost help(folderM, {"run", "--help"});
  EXPECT_EQ(help.finish(), 0);
  std::string text;
  for (const std::string& line : help.rest()) text += line + " ";
  EXPECT_THAT(text, HasSubstr("operator, valid_from, match and generation"));
}

}  // namespace
