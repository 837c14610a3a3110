// `nphost run --metrics` as a scraper sees it: each family's value after known work, the
// refusal of addresses it cannot serve, answers while a delta load waits, a prompt end with a
// scrape in flight, and the exposition checked by promtool and read by a real Prometheus.
#include "Nphost.h"
#include "ProcessWatch.h"
#include "ProgramFolderTest.h"
#include "SocketClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <future>
#include <map>
#include <regex>

namespace {

using namespace NphostTest;
using namespace testing;

// A TCP connection to 127.0.0.1:port; -1 when refused.
int connectTo(int port) {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_port = htons(static_cast<std::uint16_t>(port));
  where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(descriptor, reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0) return descriptor;
  close(descriptor);
  return -1;
}

// The whole answer to `GET path` (status line, headers, body), or "<no answer>".
std::string get(int port, const std::string& path) {
  const int descriptor = connectTo(port);
  if (descriptor < 0) return "<no answer>";
  // HTTP/1.0: the answer comes whole, never in chunks.
  writeAll(descriptor, "GET " + path + " HTTP/1.0\r\nHost: localhost\r\n\r\n");
  std::string answer, buffer;
  for (std::string line; (line = nextLine(descriptor, buffer)) != "<end>" && line != "<no answer>";) answer += line + "\n";
  close(descriptor);
  return answer;
}

// Every sample of an exposition, by its name and labels.
std::map<std::string, std::string> samples(const std::string& answer) {
  std::map<std::string, std::string> values;
  std::istringstream in(answer.substr(answer.find("\r\n\r\n") + 4));
  for (std::string line; std::getline(in, line);)
    if (!line.empty() && line[0] != '#') values[line.substr(0, line.rfind(' '))] = line.substr(line.rfind(' ') + 1);
  return values;
}

class Metrics : public ProgramFolderTest {
protected:
  void TearDown() override {
    if (mountedM) std::system(("umount -l " + (folderM / "data").string()).c_str());
    ProgramFolderTest::TearDown();
  }
  // Starts nphost run on standard input with the metrics on a free port; the port, once logged.
  int start(std::unique_ptr<Nphost>& nphost, const std::string& registryFile = "reg.toml") {
    nphost = std::make_unique<Nphost>(
        folderM, Lines{"run", registryFile, "--control", "np.sock", "--metrics", "127.0.0.1:0", "--log", "log.txt"});
    const std::regex logged(R"re(INF_NPHOST_METRICS \["127\.0\.0\.1:(\d+)"\])re");
    std::smatch port;
    std::string log;
    const bool found = eventually([&] { return std::regex_search(log = readFile("log.txt"), port, logged); },
                                  std::chrono::seconds(30));
    EXPECT_TRUE(found) << nphost->errors();
    EXPECT_TRUE(SocketClient(folderM / "np.sock").connected()) << nphost->errors();
    return found ? std::stoi(port[1]) : 0;
  }
  std::map<std::string, std::string> scrape() const { return samples(get(portM, "/metrics")); }

  int portM = 0;
  bool mountedM = false;
};

constexpr const char* reloadOk = R"(nphost_data_operations_total{operation="reload",result="ok"})";
constexpr const char* reloadFailed = R"(nphost_data_operations_total{operation="reload",result="failed"})";
constexpr const char* deltaOk = R"(nphost_data_operations_total{operation="delta",result="ok"})";
constexpr const char* deltaUnsaved = R"(nphost_data_operations_total{operation="delta",result="unsaved"})";

// Each family after known work: records, lookups of events and of search, rejected event
// records, the data operations with their outcome and time, rejected data lines (each reported
// twice by the plug-in) and open connections.
TEST_F(Metrics, EachFamilyTellsWhatTheRunDid) {
  // Line 5 has two fields, line 6 repeats line 1's number and date: both rejected.
  writeFile("np.txt", readFile("np.txt") + "+4930123456  20200101000000  DUP\n");
  std::unique_ptr<Nphost> nphost;
  portM = start(nphost);
  const std::string answer = get(portM, "/metrics");
  EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n")) << answer;
  EXPECT_THAT(answer, HasSubstr("Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n"));
  for (const char* family : {"nphost_records gauge", "nphost_lookups_total counter", "nphost_event_records_total counter",
                             "nphost_data_operations_total counter", "nphost_data_last_success_timestamp_seconds gauge",
                             "nphost_data_load_duration_seconds gauge", "nphost_data_rejected_lines gauge",
                             "nphost_control_connections gauge", "process_resident_memory_bytes gauge",
                             "process_start_time_seconds gauge"})
    EXPECT_THAT(answer, HasSubstr(std::string("\n# TYPE ") + family + "\n"));
  for (const char* path : {"/", "/metricsx", "/other"}) EXPECT_THAT(get(portM, path), StartsWith("HTTP/1.1 404 "));

  auto values = scrape();
  EXPECT_EQ(values["nphost_records"], "4");
  EXPECT_EQ(values["nphost_data_rejected_lines"], "2");
  EXPECT_GT(std::stod(values[R"(nphost_data_last_success_timestamp_seconds{operation="load"})"]), 1e9);
  EXPECT_EQ(values[R"(nphost_data_last_success_timestamp_seconds{operation="reload"})"], "0");
  EXPECT_GT(std::stod(values["process_resident_memory_bytes"]), 1e6);
  const double started = std::stod(values["process_start_time_seconds"]);
  EXPECT_NEAR(started, static_cast<double>(std::time(nullptr)), 120.0) << "seconds since the epoch";

  // Two found, one not found, one without a valid date-time; then a search of each kind.
  nphost->write("004930123456;20240101000000\n00491511234567;20240101000000\n0033999;20240101000000\n004930123456;2024\n");
  for (int i = 0; i < 4; ++i) EXPECT_NE(nphost->readLine(), "<no answer>");
  // Counted once the batch is written, which its reader may see first.
  EXPECT_TRUE(eventually([&] { return scrape()[R"(nphost_event_records_total{result="enriched"})"] == "3"; },
                         std::chrono::seconds(30)));
  EXPECT_EQ(ctl(folderM, {"np.sock", "search", "004930123456", "20240101000000"}).second, "found OPB 20230301000000\n");
  EXPECT_EQ(ctl(folderM, {"np.sock", "search", "0033999", "20240101000000"}).second, "not-found\n");
  values = scrape();
  EXPECT_EQ(values[R"(nphost_lookups_total{result="found"})"], "3");
  EXPECT_EQ(values[R"(nphost_lookups_total{result="not_found"})"], "2");
  EXPECT_EQ(values[R"(nphost_event_records_total{result="enriched"})"], "3");
  EXPECT_EQ(values[R"(nphost_event_records_total{result="rejected"})"], "1");

  SocketClient first(folderM / "np.sock"), second(folderM / "np.sock");
  EXPECT_THAT(first.ask("status"), StartsWith("status ")) << "the connection is served";
  EXPECT_THAT(second.ask("status"), StartsWith("status "));
  // The connections of the ctl runs before end as their clients go.
  EXPECT_TRUE(eventually([&] { return scrape()["nphost_control_connections"] == "2"; }, std::chrono::seconds(30)));

  // Steps of data operations and what each leaves: records, outcome counts, rejected lines.
  struct Step {
    const char* name;
    std::function<void()> act;
    std::map<std::string, std::string> expected;
  };
  const Step steps[] = {
      {"a delta load with a bad line",
       [&] {
         writeFile("delta.txt", "only-one-field\n0033123456  20000101000000  FRA\n");
         EXPECT_EQ(ctl(folderM, {"np.sock", "delta", "delta.txt"}).first, 0);
       },
       {{"nphost_records", "5"}, {deltaOk, "1"}, {reloadOk, "0"}, {"nphost_data_rejected_lines", "1"}}},
      {"a reload of the rewritten file",
       [&] { EXPECT_EQ(ctl(folderM, {"np.sock", "reload"}).first, 0); },
       {{"nphost_records", "5"}, {reloadOk, "1"}, {reloadFailed, "0"}, {"nphost_data_rejected_lines", "0"}}},
      {"a reload of an emptied file without reuse",
       [&] {
         writeFile("np.txt", "");
         EXPECT_EQ(ctl(folderM, {"np.sock", "reload"}).first, 1);
       },
       {{"nphost_records", "5"}, {reloadOk, "1"}, {reloadFailed, "1"}, {deltaUnsaved, "0"}}},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.name);
    step.act();
    values = scrape();
    for (const auto& [series, value] : step.expected) EXPECT_EQ(values[series], value) << series;
  }
  EXPECT_GT(std::stod(values[R"(nphost_data_last_success_timestamp_seconds{operation="reload"})"]), 1e9);
  EXPECT_GT(std::stod(values[R"(nphost_data_last_success_timestamp_seconds{operation="delta"})"]), 1e9);
  EXPECT_GT(std::stod(values["nphost_data_load_duration_seconds"]), 0.0);

  nphost->signal(SIGTERM);
  EXPECT_EQ(nphost->waitForExit(), 0) << nphost->errors();
}

// A delta load whose rewrite of the data file fails is counted unsaved, as `status` says.
TEST_F(Metrics, ADeltaThatTheDataFileDoesNotHoldIsUnsaved) {
  fs::create_directory(folderM / "data");
  mountedM = std::system(("mount -t tmpfs -o size=512k tmpfs " + (folderM / "data").string() + " 2>/dev/null").c_str()) == 0;
  if (!mountedM) GTEST_SKIP() << "mounting a tmpfs is not permitted here (the test runs it as root)";
  fs::copy_file(folderM / "np.txt", folderM / "data/np.txt");
  writeFile("data.toml", std::regex_replace(readFile("reg.toml"), std::regex("\"np.txt\""), "\"data/np.txt\""));
  writeFile("delta.txt", "0033123456  20000101000000  FRA\n");
  std::unique_ptr<Nphost> nphost;
  portM = start(nphost, "data.toml");
  ASSERT_EQ(std::system(("mount -o remount,ro " + (folderM / "data").string()).c_str()), 0);
  EXPECT_EQ(ctl(folderM, {"np.sock", "delta", "delta.txt"}).first, 1);
  auto values = scrape();
  EXPECT_EQ(values[deltaUnsaved], "1");
  EXPECT_EQ(values[deltaOk], "0");
  EXPECT_EQ(values[R"(nphost_data_last_success_timestamp_seconds{operation="delta"})"], "0");
  nphost->signal(SIGTERM);
  EXPECT_EQ(nphost->waitForExit(), 0) << nphost->errors();
}

// Values that name no address to serve, and one whose port another process holds, end the run
// at its start with status 1 and a sentence.
TEST_F(Metrics, AnAddressThatCannotBeServedIsRefusedAtTheStart) {
  const int holder = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof where;
  ASSERT_EQ(bind(holder, reinterpret_cast<const sockaddr*>(&where), sizeof where) | listen(holder, 1) |
                getsockname(holder, reinterpret_cast<sockaddr*>(&where), &size), 0);
  const std::string taken = "127.0.0.1:" + std::to_string(ntohs(where.sin_port));
  const std::pair<std::string, std::string> cases[] = {
      {"", "the port must be a whole number"},
      {"9464x", "the port must be a whole number"},
      {"127.0.0.1:", "the port must be a whole number"},
      {"127.0.0.1:65536", "the port must be a whole number"},
      {":9464", "name the address to listen on"},
      {"::1:9464", "write an IPv6 address in brackets"},
      {"[::1]", "write an IPv6 address as [ADDRESS]:PORT"},
      {"no-such-host.invalid:9464", "cannot serve metrics at 'no-such-host.invalid:9464': the host is not known"},
      {"192.0.2.1:9464", "cannot serve metrics at '192.0.2.1:9464': Cannot assign requested address"},
      {taken, "cannot serve metrics at '" + taken + "': Address already in use"},
  };
  for (const auto& [value, sentence] : cases) {
    SCOPED_TRACE(value);
    Nphost nphost(folderM, {"run", "reg.toml", "--metrics", value, "--output", "out.txt", "--log", "log.txt"});
    EXPECT_EQ(nphost.finish(), 1);
    EXPECT_THAT(nphost.errors(), AllOf(StartsWith("nphost: "), HasSubstr(sentence)));
    EXPECT_FALSE(fs::exists(folderM / "out.txt")) << "refused before the output is opened";
  }
  close(holder);
}

// A scrape answers while a delta load waits for its file (a FIFO nobody writes yet) and holds
// the plug-in's data operation; the records change once it ends.
TEST_F(Metrics, AScrapeIsAnsweredWhileADeltaLoadWaits) {
  std::unique_ptr<Nphost> nphost;
  portM = start(nphost);
  ASSERT_EQ(mkfifo((folderM / "delta.fifo").c_str(), 0600), 0);
  auto delta = std::async(std::launch::async, [&] { return ctl(folderM, {"np.sock", "delta", "delta.fifo"}); });
  // The delta load has opened the FIFO once a writer can open it without waiting.
  int writer = -1;
  ASSERT_TRUE(eventually([&] { return (writer = open((folderM / "delta.fifo").c_str(), O_WRONLY | O_NONBLOCK)) >= 0; },
                         std::chrono::seconds(30)));
  auto values = scrape();
  EXPECT_EQ(values["nphost_records"], "4");
  EXPECT_EQ(values[deltaOk], "0");
  writeAll(writer, "0033123456  20000101000000  FRA\n");
  close(writer);
  EXPECT_EQ(delta.get().first, 0);
  values = scrape();
  EXPECT_EQ(values["nphost_records"], "5");
  EXPECT_EQ(values[deltaOk], "1");
  nphost->signal(SIGTERM);
  EXPECT_EQ(nphost->waitForExit(), 0) << nphost->errors();
}

// SIGTERM ends the run although a scraper sent half a request and another keeps its
// connection open.
TEST_F(Metrics, TheRunEndsWithAScrapeInFlight) {
  std::unique_ptr<Nphost> nphost;
  portM = start(nphost);
  const int half = connectTo(portM);
  const int idle = connectTo(portM);
  writeAll(half, "GET /metr");
  writeAll(idle, "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  nphost->signal(SIGTERM);
  EXPECT_EQ(nphost->waitForExit(), 0) << nphost->errors();
  close(half);
  close(idle);
}

bool installed(const std::string& program) {
  return std::system(("command -v " + program + " >/dev/null 2>&1").c_str()) == 0;
}

// promtool, Prometheus's own checker, finds nothing to say about a scrape taken after work.
TEST_F(Metrics, PromtoolFindsNoFaultInTheExposition) {
  if (!installed("promtool")) GTEST_SKIP() << "promtool is not installed (Debian package prometheus: tools/install-deps.sh --tests)";
  std::unique_ptr<Nphost> nphost;
  portM = start(nphost);
  EXPECT_EQ(ctl(folderM, {"np.sock", "search", "004930123456", "20240101000000"}).first, 0);
  const std::string answer = get(portM, "/metrics");
  writeFile("scrape.txt", answer.substr(answer.find("\r\n\r\n") + 4));
  EXPECT_EQ(std::system(("cd " + folderM.string() + " && promtool check metrics < scrape.txt > promtool.txt 2>&1").c_str()), 0)
      << readFile("promtool.txt");
  EXPECT_EQ(readFile("promtool.txt"), "");
  nphost->signal(SIGTERM);
  EXPECT_EQ(nphost->waitForExit(), 0) << nphost->errors();
}

// A real Prometheus server scrapes nphost every second; after a reload of a data file of another
// size its query API gives the new record count.
TEST_F(Metrics, APrometheusServerSeesTheRecordsOfAReload) {
  if (!installed("prometheus")) GTEST_SKIP() << "prometheus is not installed (Debian package prometheus: tools/install-deps.sh --tests)";
  std::unique_ptr<Nphost> nphost;
  portM = start(nphost);
  // A port that was free a moment ago, for the server's own web interface.
  const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof where;
  ASSERT_EQ(bind(probe, reinterpret_cast<const sockaddr*>(&where), sizeof where) |
                getsockname(probe, reinterpret_cast<sockaddr*>(&where), &size), 0);
  const int webPort = ntohs(where.sin_port);
  close(probe);
  writeFile("prometheus.yml", "global:\n  scrape_interval: 1s\nscrape_configs:\n  - job_name: nphost\n    static_configs:\n"
                              "      - targets: ['127.0.0.1:" + std::to_string(portM) + "']\n");
  fs::create_directory(folderM / "tsdb");
  std::string command[] = {"prometheus", "--config.file=" + (folderM / "prometheus.yml").string(),
                           "--storage.tsdb.path=" + (folderM / "tsdb").string(),
                           "--web.listen-address=127.0.0.1:" + std::to_string(webPort)};
  char* argv[] = {command[0].data(), command[1].data(), command[2].data(), command[3].data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, (folderM / "prometheus.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  pid_t server = 0;
  ASSERT_EQ(posix_spawnp(&server, argv[0], &actions, nullptr, argv, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  const auto records = [&] {
    const std::string answer = get(webPort, "/api/v1/query?query=nphost_records");
    const auto json = nlohmann::json::parse(answer.substr(std::min(answer.size(), answer.find("\r\n\r\n") + 4)), nullptr, false);
    if (json.is_discarded() || !json.contains("data") || json["data"]["result"].empty()) return std::string("<none>");
    return json["data"]["result"][0]["value"][1].get<std::string>();
  };
  EXPECT_TRUE(eventually([&] { return records() == "4"; }, std::chrono::seconds(30))) << records() << readFile("prometheus.log");
  writeFile("np.txt", "0049301  20200101000000  A\n0049302  20200101000000  B\n0049303  20200101000000  C\n"
                      "0049304  20200101000000  D\n0049305  20200101000000  E\n0049306  20200101000000  F\n");
  EXPECT_EQ(ctl(folderM, {"np.sock", "reload"}).first, 0);
  EXPECT_TRUE(eventually([&] { return records() == "6"; }, std::chrono::seconds(30))) << records();
  kill(server, SIGKILL);
  waitpid(server, nullptr, 0);
  nphost->signal(SIGTERM);
  EXPECT_EQ(nphost->waitForExit(), 0) << nphost->errors();
}

}  // namespace
