// Runs `nphost run` and `nphost ctl` as a user would: event records through files and pipes,
// and the control socket, by `nphost ctl` and by a raw socket client.
#include "Nphost.h"
#include "ProgramFolderTest.h"
#include "SocketClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

namespace {

using namespace NphostTest;
using namespace testing;

// Standard error holding the summary line with these counts, and the time it took.
Matcher<const std::string&> summary(const std::string& counts) {
  return ContainsRegex(counts + R"( in [0-9.]+ s \([0-9]+ records/s\))");
}

using RunMode = ProgramFolderTest;

// The examples' records, twenty times over so that there are many batches and the workers finish
// them out of order: whatever the thread count, they come out in input order, each with its
// operator. The demonstration script runs without a failure, and its delta load rewrites the copy.
TEST_F(RunMode, ExamplesRunInInputOrderWhateverTheThreadCountAndEndWhenTheReaderGoesAway) {
  fs::copy(NP_EXAMPLES_DIRECTORY, folderM / "examples");
  std::string input;
  for (int i = 0; i < 20; ++i) input += readFile("examples/events.txt");
  writeFile("events.txt", input);
  std::string outputs[2];
  for (const int run : {0, 1}) {
    Nphost nphost(folderM, {"run", "examples/registry.toml", "--input", "events.txt", "--output", "out.txt", "--log",
                            "log.txt", "--threads", run == 0 ? "1" : "4"});
    EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
    EXPECT_TRUE(nphost.rest().empty()) << "records go to the output file only";
    EXPECT_THAT(nphost.errors(), summary("60000 records: 38200 found, 21700 not found, 100 rejected"));
    outputs[run] = readFile("out.txt");
  }
  EXPECT_TRUE(outputs[0] == outputs[1]) << "four threads wrote other records than one";
  const Lines in = linesOf(folderM / "events.txt"), out = linesOf(folderM / "out.txt");
  ASSERT_EQ(out.size(), in.size());
  for (std::size_t i = 0; i < in.size(); ++i) ASSERT_EQ(out[i].rfind(in[i] + ";", 0), 0u) << out[i];

  // A reader that goes away: the write fails with EPIPE and the run says so.
  Nphost gone(folderM, {"run", "examples/registry.toml", "--input", "events.txt", "--log", "log.txt"});
  EXPECT_EQ(gone.readLine(), out[0]);
  EXPECT_EQ(gone.abandonOutput(), 1);
  EXPECT_THAT(gone.errors(), HasSubstr("nphost: cannot write the standard output: Broken pipe.\n"));

  Nphost demo(folderM, {"script", "examples/registry.toml"});
  demo.write(readFile("examples/demo.script"));
  EXPECT_EQ(demo.finish(), 0) << demo.errors();
  EXPECT_THAT(demo.rest(), AllOf(Each(Not(ContainsRegex("^error|timeout|=false"))), Contains("found D052 20240301000000")));
  EXPECT_THAT(readFile("examples/np_data.txt"), HasSubstr("004930555000"));
}

// One run with a control socket: records flow through a pipe that stays open, rejected lines pass
// through, the socket answers raw clients and `nphost ctl`, a delta load changes the records
// enriched after it, and connections beyond the bound are refused.
TEST_F(RunMode, RecordsFlowWhileTheControlSocketAnswersAndChangesTheData) {
  // `nphost ctl np.sock words...`: its exit status, and its answer line or error text.
  const auto ctl = [this](Lines words) {
    words.insert(words.begin(), {"ctl", "np.sock"});
    Nphost client(folderM, words, "ctl-stderr.txt");
    return std::pair{client.finish(), client.rest().empty() ? client.errors() : client.rest().front()};  // in order
  };
  {  // the socket left behind by a run that was killed is taken over
    Nphost killed(folderM, {"run", "reg.toml", "--control", "np.sock"}, "killed-stderr.txt");
    ASSERT_TRUE(SocketClient(folderM / "np.sock").connected());
    killed.signal(SIGKILL);
    EXPECT_EQ(killed.waitForExit(), -1);
  }
  writeFile("delta.txt", "030123456  20240601000000  NEW\n0033123456  20000101000000  FRA\n");
  Nphost nphost(folderM, {"run", "reg.toml", "--control", "np.sock", "--threads", "2", "--log", "log.json",
                          "--log-format", "json"});
  SocketClient client(folderM / "np.sock");
  ASSERT_TRUE(client.connected()) << nphost.errors();
  const fs::file_status status = fs::symlink_status(folderM / "np.sock");
  EXPECT_EQ(status.type(), fs::file_type::socket);
  EXPECT_EQ(status.permissions(), fs::perms::owner_read | fs::perms::owner_write);
  Nphost second(folderM, {"run", "reg.toml", "--control", "np.sock"}, "second-stderr.txt");
  EXPECT_EQ(second.finish(), 1);
  EXPECT_THAT(second.errors(), HasSubstr("nphost: another process is listening on the control socket 'np.sock'."));

  // Answers come without the end of the input; rejected records pass with an empty operator.
  const auto expectRecords = [&](const std::string& input, const Lines& output) {
    nphost.write(input);
    for (const std::string& line : output) EXPECT_EQ(nphost.readLine(), line) << input;
  };
  expectRecords("004930123456;20240101000000;a;b\n\njust-one-field\n004930123456;2024-01-01;x\n"
                "004930123456|20240101000000\n004930123456;20241301000000\n004930123456;20210101000000\r\n"
                "0033123456;20250101000000;2\n",
                {"004930123456;20240101000000;a;b;OPB", ";", "just-one-field;", "004930123456;2024-01-01;x;",
                 "004930123456|20240101000000;", "004930123456;20241301000000;", "004930123456;20210101000000;OPA\r",
                 "0033123456;20250101000000;2;"});

  const std::pair<std::string, std::string> exchanges[] = {
      {std::string("\x01\xff\x00zz", 5), std::string("error unknown command \x01\xff\x00zz", 27)},
      {"sleep 1", "error sleep is not available on the control socket"},
      {"shutdown", "error shutdown is not available on the control socket"},
      {"update PrintData=", "error printing to standard output is not available on the control socket; name a file"},
      {"probe printData NULL", "error printing to standard output is not available on the control socket; name a file"},
      {"await X 1 60001", "error TIMEOUT_MS must be a whole number of milliseconds up to 60000"},
      {"await INF_NUM_NPORT_LOADED 1 10", "await INF_NUM_NPORT_LOADED ok"},
  };
  for (const auto& [request, answer] : exchanges) EXPECT_EQ(client.ask(request), answer) << request.substr(0, 40);
  // An over-long line is refused once its bound is passed, and skipped up to its end, however much
  // later that comes; the next line is answered.
  client.send(std::string(100'000, 'b'));
  EXPECT_EQ(client.ask("bbbb\nusable"), "error line longer than 65536 bytes");
  EXPECT_EQ(client.readLine(), "usable true");

  const std::tuple<Lines, int, std::string> commands[] = {
      {{"update", "AdditionalNumPortData=delta.txt"}, 0, "update result=true taken=true"},
      {{"await", "INF_NUM_NPORT_ADDED"}, 0, "await INF_NUM_NPORT_ADDED ok"},
      {{"search", "004930123456", "20250101000000"}, 0, "found NEW 20240601000000"},
      // Quoted on the way, so the blank and the quote stay inside one word each.
      {{"frob", "a b", "\"q"}, 1, "error unknown command frob"},
      {{"search", "0049 30123456", "20210101000000"}, 0, "found OPA 20200101000000"},
      {{"#search"}, 1, "error unknown command #search"},
      {{"probe", "deltaLoad", "no such file.txt"}, 0, "probe deltaLoad result=true"},
  };
  for (const auto& [words, code, answer] : commands) EXPECT_EQ(ctl(words), std::make_pair(code, answer)) << words[0];
  // Records enriched before the delta load kept their answers; these see the new data.
  expectRecords("004930123456;20250101000000;1\n0033123456;20250101000000;2\n",
                {"004930123456;20250101000000;1;NEW", "0033123456;20250101000000;2;FRA"});

  std::vector<std::unique_ptr<SocketClient>> clients;  // with the raw client above, sixteen: the bound
  for (int i = 0; i < 15; ++i) {
    clients.push_back(std::make_unique<SocketClient>(folderM / "np.sock"));
    ASSERT_EQ(clients.back()->ask("usable"), "usable true") << i;  // taken
    clients.back()->send("sea");                                     // a partial line that never ends
  }
  SocketClient extra(folderM / "np.sock");
  EXPECT_EQ(extra.readLine(), "error too many connections");
  EXPECT_EQ(extra.readLine(), "<end>");
  expectRecords("00491519999999;20210101000000;x\n", {"00491519999999;20210101000000;x;BLK"});
  EXPECT_EQ(clients.front()->ask("rch 0033123456 20240101000000"), "found FRA 20000101000000");
  clients.clear();
  EXPECT_EQ(ctl({"usable"}), std::make_pair(0, std::string("usable true")));

  nphost.write("00491519999999;20210101000000");  // a last line without a line end counts
  EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
  EXPECT_EQ(nphost.rest(), Lines{"00491519999999;20210101000000;BLK"});
  EXPECT_THAT(nphost.errors(), summary("12 records: 6 found, 1 not found, 5 rejected"));
  EXPECT_FALSE(fs::exists(folderM / "np.sock")) << "the socket is removed at the end";
  EXPECT_EQ(ctl({"usable"}), std::make_pair(1, std::string("nphost: cannot reach the control socket 'np.sock': "
                                                           "No such file or directory.\n")));
  // Each rejected record is reported once, with its line number.
  const Lines log = linesOf(folderM / "log.json");
  EXPECT_THAT(log, Contains(HasSubstr("ERR_EVENT_RECORD_")).Times(5));
  const std::pair<const char*, const char*> rejections[] = {
      {"FIELDS", R"("2","-","")"}, {"FIELDS", R"("3","-","just-one-field")"}, {"DATETIME", R"("4","-","2024-01-01")"},
      {"FIELDS", R"("5","-","004930123456|20240101000000")"}, {"DATETIME", R"("6","-","20241301000000")"}};
  for (const auto& [id, args] : rejections)
    EXPECT_THAT(log, Contains(HasSubstr(R"("kind":"status","object":"nphost","id":"ERR_EVENT_RECORD_)" +
                                                 std::string(id) + R"(","severity":2,"args":[)" + args + "]")));
}

}  // namespace
