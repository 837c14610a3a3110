// Runs `nphost run` and `nphost ctl` as a user would: event records through files and pipes,
// signals, and the control socket, by `nphost ctl` and by a raw socket client.
#include "NphostProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <csignal>
#include <cstring>
#include <memory>
#include <regex>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using NphostTest::Lines;
using NphostTest::Nphost;
using NphostTest::ProgramFolderTest;
using NphostTest::LineReader;

const char* const dataCM =
    "+4930123456  20200101000000  OPA\n"
    "030123456  20230301000000  OPB\n"
    "0049151  20000101000000  BLK\n"
    "01511234567  20220101000000  OPC\n";

const char* const registryCM =
    "[Framework]\nEventHandler = \"EventHandler\"\n"
    "[NumberPortability]\nLibrary = \"DAT_NumberPortability\"\nFileName = \"np.txt\"\n"
    "CountryCode = \"49\"\nNationalAccessCode = \"0\"\n";

// One record each: a number, a date-time and the operator that the data above gives.
struct Case {
  const char* number;
  const char* dateTime;
  const char* op;
};
const Case casesCM[] = {
    {"004930123456", "20240101000000", "OPB"},   // the newer record of the number
    {"004930123456", "20210101000000", "OPA"},   // the older one
    {"004930123456", "20100101000000", ""},      // before any record
    {"00491519999999", "20210101000000", "BLK"}, // the block's record
    {"00491511234567", "20230101000000", "OPC"}, // own record
    {"00491511234567", "20210101000000", "BLK"}, // before it: the block's
    {"0033123456", "20240101000000", ""},        // unknown
};

struct Summary {
  unsigned long long records = 0, found = 0, notFound = 0, rejected = 0;
  bool present = false;
};

Summary summaryOf(const std::string& err) {
  static const std::regex pattern(R"((\d+) records: (\d+) found, (\d+) not found, (\d+) rejected in [0-9.]+ s \()");
  std::smatch match;
  Summary summary;
  if (!std::regex_search(err, match, pattern)) return summary;
  summary = {std::stoull(match[1]), std::stoull(match[2]), std::stoull(match[3]), std::stoull(match[4]), true};
  return summary;
}

// A raw client of the control socket.
class SocketClient {
public:
  explicit SocketClient(const fs::path& path) {
    descriptorM = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    std::strncpy(where.sun_path, path.c_str(), sizeof(where.sun_path) - 1);
    connectedM = connect(descriptorM, reinterpret_cast<const sockaddr*>(&where), sizeof(where)) == 0;
    answersM.setDescriptor(descriptorM);
  }
  ~SocketClient() { close(descriptorM); }
  bool connected() const { return connectedM; }
  void send(const std::string& bytes) const {
    for (std::size_t done = 0; done < bytes.size();) {
      const ssize_t n = ::send(descriptorM, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n <= 0) return;
      done += static_cast<std::size_t>(n);
    }
  }
  // The next answer line; "<end>" when the server closed, "<no answer>" after ten seconds.
  std::string readLine() { return answersM.next(); }
  std::string ask(const std::string& line) {
    send(line + "\n");
    return readLine();
  }

private:
  int descriptorM = -1;
  bool connectedM = false;
  LineReader answersM{-1, 10'000};
};

class RunMode : public ProgramFolderTest {
protected:
  void SetUp() override {
    ProgramFolderTest::SetUp();
    writeFile("np.txt", dataCM);
    writeFile("reg.toml", registryCM);
  }
  // `nphost ctl SOCKET words...`: its exit status, and its answer line or error text.
  std::pair<int, std::string> ctl(const Lines& words) const {
    Lines arguments{"ctl", "np.sock"};
    arguments.insert(arguments.end(), words.begin(), words.end());
    Nphost client(folderM, arguments, "ctl-stderr.txt");
    const int status = client.finish();
    return {status, client.rest().empty() ? client.errors() : client.rest().front()};
  }
  // Waits until the control socket answers, so that a test does not race the program's start.
  bool controlReady() const {
    for (int i = 0; i < 500; ++i) {
      if (SocketClient(folderM / "np.sock").connected()) return true;
      usleep(20'000);
    }
    return false;
  }

};

std::string eventLine(std::size_t i) {
  const Case& c = casesCM[i % std::size(casesCM)];
  return std::string(c.number) + ";" + c.dateTime + ";CALL" + std::to_string(i) + ";" + std::to_string(i % 97);
}

TEST_F(RunMode, KeepsInputOrderWhateverTheThreadCount) {
  // Enough records for many batches, so that the workers finish them out of order.
  constexpr std::size_t count = 60'000;
  std::string input;
  for (std::size_t i = 0; i < count; ++i) input += eventLine(i) + "\n";
  writeFile("events.txt", input);

  std::string outputs[2];
  const char* threads[2] = {"1", "4"};
  for (int run = 0; run < 2; ++run) {
    Nphost nphost(folderM, {"run", "reg.toml", "--input", "events.txt", "--output", "out.txt", "--threads", threads[run]});
    ASSERT_EQ(nphost.finish(), 0) << nphost.errors();
    EXPECT_TRUE(nphost.rest().empty()) << "records go to the output file only";
    const Summary summary = summaryOf(nphost.errors());
    ASSERT_TRUE(summary.present) << nphost.errors();
    EXPECT_EQ(summary.records, count);
    EXPECT_EQ(summary.rejected, 0u);
    // Five of every seven cases find an operator; the three after the last full round, two.
    EXPECT_EQ(summary.found, count / 7 * 5 + 2);
    outputs[run] = readFile("out.txt");
  }
  EXPECT_EQ(outputs[0], outputs[1]);

  std::istringstream lines(outputs[1]);
  std::size_t i = 0;
  for (std::string line; std::getline(lines, line); ++i) {
    ASSERT_EQ(line, eventLine(i) + ";" + casesCM[i % std::size(casesCM)].op) << "line " << i + 1;
  }
  EXPECT_EQ(i, count);
}

TEST_F(RunMode, RejectedLinesPassThroughAndAreReportedOnceWithTheirLineNumber) {
  Nphost nphost(folderM, {"run", "reg.toml", "--log", "log.json", "--log-format", "json", "--threads", "2"});
  nphost.write("004930123456;20240101000000;a;b\n"
               "\n"
               "just-one-field\n"
               "004930123456;2024-01-01;x\n"
               "004930123456|20240101000000\n"
               "004930123456;20241301000000\n"
               "004930123456;20210101000000\r\n"
               "00491519999999;20210101000000");
  ASSERT_EQ(nphost.finish(), 0) << nphost.errors();
  EXPECT_EQ(nphost.rest(), (Lines{"004930123456;20240101000000;a;b;OPB", ";", "just-one-field;",
                                  "004930123456;2024-01-01;x;", "004930123456|20240101000000;",
                                  "004930123456;20241301000000;", "004930123456;20210101000000;OPA\r",
                                  "00491519999999;20210101000000;BLK"}));
  const Summary summary = summaryOf(nphost.errors());
  EXPECT_TRUE(summary.present) << nphost.errors();
  EXPECT_EQ(summary.records, 8u);
  EXPECT_EQ(summary.found, 3u);
  EXPECT_EQ(summary.notFound, 0u);
  EXPECT_EQ(summary.rejected, 5u);

  std::vector<nlohmann::json> rejected;
  std::istringstream log(readFile("log.json"));
  for (std::string line; std::getline(log, line);) {
    const auto entry = nlohmann::json::parse(line, nullptr, false);
    ASSERT_FALSE(entry.is_discarded()) << line;
    if (entry["object"] == "nphost") rejected.push_back(entry);
  }
  const std::vector<std::pair<std::string, nlohmann::json>> expected = {
      {"ERR_EVENT_RECORD_FIELDS", {"2", "-", ""}},
      {"ERR_EVENT_RECORD_FIELDS", {"3", "-", "just-one-field"}},
      {"ERR_EVENT_RECORD_DATETIME", {"4", "-", "2024-01-01"}},
      {"ERR_EVENT_RECORD_FIELDS", {"5", "-", "004930123456|20240101000000"}},
      {"ERR_EVENT_RECORD_DATETIME", {"6", "-", "20241301000000"}},
  };
  ASSERT_EQ(rejected.size(), expected.size()) << readFile("log.json");
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(rejected[i]["id"], expected[i].first) << i;
    EXPECT_EQ(rejected[i]["args"], expected[i].second) << i;
    EXPECT_EQ(rejected[i]["severity"], 2) << i;
  }
}

TEST_F(RunMode, DeltaLoadThroughTheControlSocketChangesLaterRecordsOnly) {
  writeFile("delta.txt", "030123456  20240601000000  NEW\n0033123456  20000101000000  FRA\n");
  Nphost nphost(folderM, {"run", "reg.toml", "--control", "np.sock", "--threads", "2"});
  ASSERT_TRUE(controlReady()) << nphost.errors();
  const std::string records = "004930123456;20250101000000;1\n0033123456;20250101000000;2\n";
  // A pipe that stays open: the answers must come without the end of the input.
  nphost.write(records);
  EXPECT_EQ(nphost.readLine(), "004930123456;20250101000000;1;OPB");
  EXPECT_EQ(nphost.readLine(), "0033123456;20250101000000;2;");

  EXPECT_EQ(ctl({"update", "AdditionalNumPortData=delta.txt"}), std::make_pair(0, std::string("update result=true taken=true")));
  EXPECT_EQ(ctl({"await", "INF_NUM_NPORT_ADDED"}), std::make_pair(0, std::string("await INF_NUM_NPORT_ADDED ok")));
  EXPECT_EQ(ctl({"search", "004930123456", "20250101000000"}), std::make_pair(0, std::string("found NEW 20240601000000")));

  nphost.write(records);
  EXPECT_EQ(nphost.readLine(), "004930123456;20250101000000;1;NEW");
  EXPECT_EQ(nphost.readLine(), "0033123456;20250101000000;2;FRA");
  EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
  const Summary summary = summaryOf(nphost.errors());
  EXPECT_EQ(summary.records, 4u);
  EXPECT_EQ(summary.found, 3u);
  EXPECT_FALSE(fs::exists(folderM / "np.sock")) << "the socket is removed at the end";
}

TEST_F(RunMode, TerminationSignalEndsCleanlyWithEveryReadRecordWritten) {
  Nphost nphost(folderM, {"run", "reg.toml", "--threads", "3"});
  std::string records;
  // Fewer bytes than a pipe holds, so that writing them never waits for the test to read.
  for (std::size_t i = 0; i < 1'000; ++i) records += eventLine(i) + "\n";
  nphost.write(records);
  ASSERT_EQ(nphost.readLine(), eventLine(0) + ";" + casesCM[0].op);
  nphost.write(records.substr(0, 20));  // a line cut short: not a record
  nphost.signal(SIGTERM);
  // Standard input stays open: the signal alone ends the run.
  EXPECT_EQ(nphost.collect(), 0) << nphost.errors();
  const Summary summary = summaryOf(nphost.errors());
  ASSERT_TRUE(summary.present) << nphost.errors();
  EXPECT_EQ(summary.records, nphost.rest().size() + 1);
  for (std::size_t i = 0; i < nphost.rest().size(); ++i)
    ASSERT_EQ(nphost.rest()[i], eventLine(i + 1) + ";" + casesCM[(i + 1) % std::size(casesCM)].op) << i;
}

TEST_F(RunMode, ControlSocketAnswersEveryLineAndRefusesWhatDoesNotBelong) {
  Nphost nphost(folderM, {"run", "reg.toml", "--control", "np.sock", "--threads", "1"});
  ASSERT_TRUE(controlReady()) << nphost.errors();
  struct stat status {};
  ASSERT_EQ(lstat((folderM / "np.sock").c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777, 0600u);

  SocketClient client(folderM / "np.sock");
  ASSERT_TRUE(client.connected());
  const std::vector<std::pair<std::string, std::string>> exchanges = {
      {"search 004930123456 20240101000000", "found OPB 20230301000000"},
      {"usable", "usable true"},
      {std::string("\x01\xff\x00zz", 5), std::string("error unknown command \x01\xff\x00zz", 27)},
      {"update \"PrintData=x", "error malformed quoting"},
      {"sleep 1", "error sleep is not available on the control socket"},
      {"shutdown", "error shutdown is not available on the control socket"},
      {"update PrintData=", "error printing to standard output is not available on the control socket; name a file"},
      {"probe printData NULL", "error printing to standard output is not available on the control socket; name a file"},
      {"await X 1 60001", "error TIMEOUT_MS must be a whole number of milliseconds up to 60000"},
      {std::string(70'000, 'a'), "error line longer than 65536 bytes"},
      {"await INF_NUM_NPORT_LOADED 1 10", "await INF_NUM_NPORT_LOADED ok"},
  };
  for (const auto& [request, answer] : exchanges) EXPECT_EQ(client.ask(request), answer) << request.substr(0, 40);
  // An over-long line split across sends is skipped up to its end, and the next line answered.
  client.send(std::string(40'000, 'b'));
  client.send(std::string(40'000, 'b') + "\nusable\n");
  EXPECT_EQ(client.readLine(), "error line longer than 65536 bytes");
  EXPECT_EQ(client.readLine(), "usable true");

  // A plug-in shut down over the socket would leave the run without data: it still works.
  nphost.write("004930123456;20240101000000\n");
  EXPECT_EQ(nphost.readLine(), "004930123456;20240101000000;OPB");
  EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
}

TEST_F(RunMode, ConnectionsBeyondTheBoundAreRefusedWhileRecordsFlow) {
  Nphost nphost(folderM, {"run", "reg.toml", "--control", "np.sock"});
  ASSERT_TRUE(controlReady()) << nphost.errors();
  std::vector<std::unique_ptr<SocketClient>> clients;
  for (int i = 0; i < 16; ++i) {
    clients.push_back(std::make_unique<SocketClient>(folderM / "np.sock"));
    // An answer shows the connection taken (and the readiness probe's gone).
    ASSERT_EQ(clients.back()->ask("usable"), "usable true") << i;
    clients.back()->send("sea");  // a partial line that never ends
  }
  SocketClient extra(folderM / "np.sock");
  EXPECT_EQ(extra.readLine(), "error too many connections");
  EXPECT_EQ(extra.readLine(), "<end>");

  nphost.write("00491519999999;20210101000000;x\n");
  EXPECT_EQ(nphost.readLine(), "00491519999999;20210101000000;x;BLK");
  EXPECT_EQ(clients.front()->ask("rch 0033123456 20240101000000"), "not-found");

  clients.clear();
  EXPECT_EQ(ctl({"usable"}), std::make_pair(0, std::string("usable true")));
  EXPECT_EQ(nphost.finish(), 0) << nphost.errors();
}

TEST_F(RunMode, SocketPathIsTakenOverOnlyFromADeadProcess) {
  {
    // A socket file whose process has gone: bound, never unlinked.
    const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    std::strncpy(where.sun_path, (folderM / "np.sock").c_str(), sizeof(where.sun_path) - 1);
    ASSERT_EQ(bind(stale, reinterpret_cast<const sockaddr*>(&where), sizeof(where)), 0);
    close(stale);
  }
  Nphost live(folderM, {"run", "reg.toml", "--control", "np.sock"});
  ASSERT_TRUE(controlReady()) << live.errors();
  EXPECT_EQ(ctl({"usable"}), std::make_pair(0, std::string("usable true")));

  Nphost second(folderM, {"run", "reg.toml", "--control", "np.sock"}, "second-stderr.txt");
  EXPECT_EQ(second.finish(), 1);
  EXPECT_NE(second.errors().find("nphost: another process is listening on the control socket 'np.sock'."),
            std::string::npos)
      << second.errors();
  EXPECT_EQ(ctl({"usable"}), std::make_pair(0, std::string("usable true"))) << "the live socket stays";
  EXPECT_EQ(live.finish(), 0) << live.errors();

  writeFile("plain.txt", "not a socket");
  Nphost plain(folderM, {"run", "reg.toml", "--control", "plain.txt"});
  EXPECT_EQ(plain.finish(), 1);
  EXPECT_NE(plain.errors().find("nphost: 'plain.txt' exists and is not a socket"), std::string::npos) << plain.errors();
  EXPECT_EQ(readFile("plain.txt"), "not a socket");
}

TEST_F(RunMode, CtlQuotesWordsAndReportsFailures) {
  Nphost nphost(folderM, {"run", "reg.toml", "--control", "np.sock"});
  ASSERT_TRUE(controlReady()) << nphost.errors();
  const struct {
    Lines words;
    int status;
    std::string answer;
  } table[] = {
      {{"usable"}, 0, "usable true"},
      {{"search", "004930123456", "20210101000000"}, 0, "found OPA 20200101000000"},
      // Quoted on the way, so the blank and the quote stay inside one word each.
      {{"frob", "a b", "\"q"}, 1, "error unknown command frob"},
      {{"search", "0049 30123456", "20210101000000"}, 0, "found OPA 20200101000000"},
      {{"#search"}, 1, "error unknown command #search"},
      {{"search", "004930123456"}, 1, "error usage: search NUMBER DATETIME"},
      {{"probe", "deltaLoad", "no such file.txt"}, 0, "probe deltaLoad result=true"},
  };
  for (const auto& row : table) EXPECT_EQ(ctl(row.words), std::make_pair(row.status, row.answer)) << row.words[0];
  EXPECT_EQ(nphost.finish(), 0) << nphost.errors();

  const auto [status, text] = ctl({"usable"});
  EXPECT_EQ(status, 1);
  EXPECT_EQ(text, "nphost: cannot reach the control socket 'np.sock': No such file or directory.\n");
}

TEST_F(RunMode, BadOptionsAndUnusableFilesEndWithStatusOne) {
  const std::pair<Lines, std::string> mistakes[] = {
      {{"--delimiter", "ab"}, "nphost: --delimiter must be one character other than a line feed, not 'ab'.\n"},
      {{"--threads", "0"}, "nphost: --threads: Value 0 not in range 1 to 1024. Run 'nphost --help' for the usage.\n"},
      {{"--log-format", "xml"}, "nphost: --log-format must be 'text' or 'json', not 'xml'.\n"},
  };
  for (const auto& [options, message] : mistakes) {
    Lines arguments{"run", "reg.toml"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    Nphost nphost(folderM, arguments);
    EXPECT_EQ(nphost.finish(), 1) << options[0];
    EXPECT_EQ(nphost.errors(), message);
  }

  Nphost missing(folderM, {"run", "reg.toml", "--input", "absent.txt"});
  EXPECT_EQ(missing.finish(), 1);
  EXPECT_EQ(missing.errors(), "nphost: cannot open the input file 'absent.txt': No such file or directory.\n");

  Nphost folder(folderM, {"run", "reg.toml", "--output", "."});
  EXPECT_EQ(folder.finish(), 1);
  EXPECT_EQ(folder.errors(), "nphost: cannot open the output file '.' for writing: Is a directory.\n");

  // A reader that goes away: the write fails with EPIPE and the run says so.
  std::string input;
  for (std::size_t i = 0; i < 200'000; ++i) input += eventLine(i) + "\n";
  writeFile("events.txt", input);
  Nphost gone(folderM, {"run", "reg.toml", "--input", "events.txt"});
  EXPECT_EQ(gone.readLine(), eventLine(0) + ";" + casesCM[0].op);
  EXPECT_EQ(gone.abandonOutput(), 1);
  EXPECT_NE(gone.errors().find("nphost: cannot write the standard output: Broken pipe.\n"), std::string::npos)
      << gone.errors();
}

TEST_F(RunMode, ExampleEventsAgainstTheExampleData) {
  fs::create_directory(folderM / "examples");
  for (const char* name : {"registry.toml", "np_data.txt", "events.txt"})
    fs::copy_file(fs::path(NP_EXAMPLES_DIRECTORY) / name, folderM / "examples" / name);
  Nphost nphost(folderM, {"run", "examples/registry.toml", "--input", "examples/events.txt", "--log", "log.txt"});
  ASSERT_EQ(nphost.finish(), 0) << nphost.errors();
  const Lines& out = nphost.rest();
  ASSERT_EQ(out.size(), 3000u);
  EXPECT_EQ(out[0], "00492217228186;20171206004104;C0000001;414;D001");        // the block 0049221
  EXPECT_EQ(out[1], "0049176444555666;20081126011821;C0000002;1912;D003");     // the block, before its own record
  EXPECT_EQ(out[3], "0041225550101;20161021132546;C0000004;195;");             // before its first record
  EXPECT_EQ(out[9], "0041791234567;20120416064215;C0000010;1648;C060");        // its own record
  EXPECT_EQ(out[136], "0049301234567;2023-05-01 10:00:00;C0000137;61;");      // rejected
  const Summary summary = summaryOf(nphost.errors());
  EXPECT_EQ(summary.records, 3000u);
  EXPECT_EQ(summary.rejected, 5u);
  EXPECT_GT(summary.found, 1000u);
  EXPECT_GT(summary.notFound, 500u);
}

}  // namespace
