// The helper as its clients use it, against one running helper and the core
// double, on both systems: the control API, the core search, failed starts,
// URL tests, traffic snapshots and orvelctl. Answers byte for byte, what each
// core process was started with, and what is left behind after each refusal.
// What only one system has is in helper_e2e_win.cpp and helper_e2e_linux.cpp.
#include "e2e/helper_e2e.h"

#include <algorithm>
#include <future>
#include <sstream>
#include <thread>
#include <tuple>

namespace orvel::test {
namespace {

TEST_F(Helper, FramingAndRoutesGiveExactAnswers) {
  const std::string notFound = OkAnswer("text/plain", "not found", "404 Not Found");
  std::string oversized = "GET /ping HTTP/1.1\r\nX: ";
  oversized += std::string(1048577 - oversized.size(), 'a');  // one past the limit, no blank line
  for (std::string_view line : {"GET /nothing", "get /ping", "GET /ping?x=1", "POST /start-tun/"})
    EXPECT_EQ(ExchangeRaw(std::string(line) + " HTTP/1.1\r\n\r\n"), notFound) << line;
  const std::pair<std::string, std::string> cases[] = {
      {"GET /ping HTTP/1.0\r\n\r\n", kPong},
      {BuildRequest("GET", "/status", "x"), kIdle},  // bodies of status and stop are ignored
      {BuildRequest("POST", "/stop", "x"), kDisconnected},
      // "/ping" ignores its body: a whole answer shows it was read to its length.
      {"GET /ping HTTP/1.1\r\ncontent-length:   5\r\n\r\nhello", kPong},
      {"GET /ping HTTP/1.1\r\n\r\nstray bytes", kPong},
      // A foreign Host is a page reached through DNS rebinding; "null" is a
      // sandboxed page's Origin.
      {"GET /logs HTTP/1.1\r\nHost: rebind.example:17891\r\n\r\n", kForbidden},
      {"POST /stop HTTP/1.1\r\nHost: 127.0.0.1:17891\r\nOrigin: null\r\n\r\n", kForbidden},
      {oversized, OkAnswer("text/plain", "request too large", "413 Payload Too Large")},
      // The exact header sets of curl, Node's fetch and a desktop framework.
      {"POST /start-tun HTTP/1.1\r\nHost: 127.0.0.1:17891\r\nUser-Agent: curl/7.88.1\r\n"
       "Accept: */*\r\nContent-Length: " +
           std::to_string(Config().size()) +
           "\r\nContent-Type: application/x-www-form-urlencoded\r\n\r\n" + Config(),
       kTunConnected},
      {"GET /status HTTP/1.1\r\nhost: 127.0.0.1:17891\r\nconnection: keep-alive\r\naccept: */*\r\n"
       "accept-language: *\r\nsec-fetch-mode: cors\r\nuser-agent: node\r\n\r\n",
       kRunning},
      {"POST /stop HTTP/1.1\r\norigin: http://tauri.localhost\r\nuser-agent: OrvelVPN/2.4.0\r\n"
       "accept: */*\r\nhost: 127.0.0.1:17891\r\ncontent-length: 0\r\n\r\n",
       kDisconnected},
  };
  for (const auto& [request, answer] : cases)
    EXPECT_EQ(ExchangeRaw(request), answer) << request.substr(0, 40);
  EXPECT_TRUE(LogHasLine("Refused GET /logs: Host \"rebind.example:17891\""));
  EXPECT_TRUE(LogHasLine("Refused POST /stop: Origin \"null\""));

  // A silent client holds no one up; a head sent byte by byte is assembled.
  client::ClientSocket silent, slow;
  ASSERT_TRUE(ConnectToHelper(silent) && ConnectToHelper(slow));
  for (char c : std::string("GET /ping HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")) {
    client::SendAllBytes(slow, std::string_view(&c, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  EXPECT_EQ(ReadToEnd(slow), kPong);

  const client::HttpAnswer logs = Request("GET", "/logs");
  EXPECT_EQ(logs.contentType, "text/plain");
  EXPECT_TRUE(LogHasLine("OrvelVpnHelper started")) << logs.body;
  // A second instance ends at once and the first keeps serving.
  EXPECT_EQ(std::get<0>(RunProgram(helper.ExePath(), {})), 0u);
  EXPECT_EQ(ExchangeRaw("GET /ping HTTP/1.1\r\n\r\n"), kPong);
}

TEST_F(Helper, CoreIsSearchedBesideTheExeThenInDataThenOnPath) {
  // Searched anew at each start: each copy found is removed for the next.
  ASSERT_TRUE(Restart(CorePlacement::kBesideExe, DoublesDirectory())) << helper.error;
  const fs::path directory = helper.directory;
  fs::create_directories(directory / "data");
  fs::copy_file(fs::path(DoublesDirectory()) / kCoreFileName, directory / "data" / kCoreFileName);
  for (const fs::path& exe : {directory / kCoreFileName, directory / "data" / kCoreFileName,
                              fs::path(DoublesDirectory()) / kCoreFileName}) {
    ResetTestRecords();
    EXPECT_EQ(Post("/start-tun", Config()), kTunConnected);
    EXPECT_EQ(CoreRun()["commandLine"], CoreRunCommandLine(exe, DataFile("sing-box.json")));
    EXPECT_EQ(Post("/stop"), kDisconnected);
    EXPECT_TRUE(exe.parent_path() == fs::path(DoublesDirectory()) || fs::remove(exe));
  }

  ASSERT_TRUE(Restart(CorePlacement::kNone)) << helper.error;
  SetUserProxy();
  const std::string missing(ThisPlatform().coreNotFound);
  EXPECT_EQ(Post("/start-tun", Config()), Answer("disconnected", missing));
  EXPECT_TRUE(LogHasLine(missing));
  EXPECT_EQ(ReadFileBytes(DataFile("sing-box.json")), Config());  // written before the search
  ExpectUserProxyUntouched();
  EXPECT_EQ(CountCores(), 0);
  // A folder named like the core is found but cannot run.
  fs::create_directories(directory / kCoreFileName);
  EXPECT_EQ(
      Post("/start-tun", Config()),
      Answer("disconnected", std::string(ThisPlatform().coreLaunchFailed) + kCoreIsDirectoryError));
  EXPECT_EQ(CountCores(), 0);
  helper.Stop();
}

TEST_F(Helper, FailedStartsAndCoresThatDieLeaveNothingBehind) {
  // The double's three lines, as they appear in the JSON answer.
  const std::string fatal = "\x1b[31mFATAL\x1b[0m[0000] ",
                    red = fatal + "decode config: json: unknown field \\\"x-test-double\\\" " +
                          fatal + "start service: start inbound/mixed[mixed-in]: listen tcp " +
                          "127.0.0.1:2080 " + fatal + "exit status 1 ";
  const std::pair<std::string, std::string> cases[] = {{"fatal3", red}, {"silent", "<empty>"}};
  SetUserProxy();
  const std::string exited(ThisPlatform().coreExitedImmediately);
  for (const auto& [behaviour, summary] : cases) {
    SCOPED_TRACE(behaviour);
    EXPECT_EQ(Post(behaviour == "silent" ? "/start-tun" : "/start", Config(behaviour)),
              Answer("disconnected", exited + summary));
    EXPECT_EQ(CountCores(), 0);
    EXPECT_EQ(Status(), kIdle);
  }
  EXPECT_TRUE(LogHasLine(exited + "<empty>"));
  ExpectUserProxyUntouched();

  // A core that dies later, killed from outside or by itself, is noticed at
  // once: its end and last output are logged, the user's proxy is back and
  // the next start works.
  const std::pair<std::string, std::string_view> ends[] = {{"exit3-after-60000", kKilledCoreEnd},
                                                           {"exit3-after-1000", "(exit code 3)"}};
  for (const auto& [behaviour, end] : ends) {
    SCOPED_TRACE(behaviour);
    ASSERT_EQ(Post("/start", Config(behaviour)), kConnected);
    if (end == kKilledCoreEnd) KillCores();
    const std::string line = std::string(ThisPlatform().coreExitedUnexpectedly) + std::string(end) +
                             ": FATAL[0001] out of memory FATAL[0001] runtime: cannot allocate ";
    const std::uint64_t deadline = NowMs() + 2000;
    while (!LogHasLine(line) && NowMs() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(LogHasLine(line)) << Logs();
    ResetTestRecords();  // the start's announcements are not the point here
    ExpectUserProxyUntouched();
    EXPECT_EQ(Status(), kIdle);
  }
  // The next start works, and its answer ends with end-of-stream although
  // the core lives on: the core holds no copy of the client's socket.
  client::ClientSocket socket;
  ASSERT_TRUE(ConnectToHelper(socket) &&
              client::SendAllBytes(socket, BuildRequest("POST", "/start", Config())));
  bool closed = false;
  EXPECT_EQ(ReadToEnd(socket, &closed, 10000), kConnected);
  EXPECT_TRUE(closed);
  EXPECT_EQ(Status(), kRunning);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  // A recovery file that cannot be written costs the crash recovery, not the
  // start: the user's values still come back at the stop. (Where an earlier
  // step left the file, the checks below fail, not an exception.)
  std::error_code ec;
  fs::create_directories(DataFile("proxy-state.txt"), ec);
  EXPECT_EQ(Post("/start", Config()), kConnected);
  EXPECT_NE(Logs().find("] Crash recovery is off for this start: the saved proxy settings could "
                        "not be written: "),
            std::string::npos);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  ResetTestRecords();
  ExpectUserProxyUntouched();
  fs::remove_all(DataFile("proxy-state.txt"), ec);
}

// Real clients overlap: a double click on "connect", a reconnect racing the
// user's click, orvelctl beside the client application. Eight clients send a
// mix of both starts, stops, statuses and snapshots at once, three rounds:
// every answer is whole, at most one core is left and the status agrees;
// after the last stop none is left and the user's proxy is as it was.
TEST_F(Helper, OverlappingCommandsLeaveAtMostOneCoreAndTheUsersProxy) {
  SetUserProxy();
  const std::string requests[] = {BuildRequest("POST", "/start", Config()),
                                  BuildRequest("GET", "/status"),
                                  BuildRequest("POST", "/start-tun", Config()),
                                  BuildRequest("GET", "/traffic-snapshot"),
                                  BuildRequest("POST", "/stop"),
                                  BuildRequest("GET", "/status")};
  // A whole answer: 200 and as many body bytes as its Content-Length says.
  const auto whole = [](const std::string& raw) {
    client::HttpAnswer answer;
    return client::ReadWholeAnswer(raw, answer) && answer.status == 200;
  };
  for (int round = 0; round < 3; ++round) {
    std::vector<std::future<std::string>> clients;
    for (std::size_t client = 0; client < 8; ++client) {
      clients.push_back(std::async(std::launch::async, [&, client] {
        std::string broken;
        for (std::size_t i = 0; i < 6; ++i) {
          const std::string& request = requests[(client + i) % 6];
          const std::string answer = ExchangeRaw(request);
          if (!whole(answer)) broken += request.substr(0, 24) + " -> " + answer + "\n";
        }
        return broken;
      }));
    }
    for (auto& client : clients) EXPECT_EQ(client.get(), "");
    const int cores = CountCores();
    EXPECT_LE(cores, 1) << "round " << round;
    EXPECT_EQ(Status(), cores == 1 ? kRunning : kIdle) << "round " << round;
  }
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_EQ(CountCores(), 0);
  EXPECT_EQ(ExchangeRaw(BuildRequest("GET", "/ping")), kPong);
  ResetTestRecords();  // the announcements of the starts are not the point here
  ExpectUserProxyUntouched();
}

TEST_F(Helper, UrlTestStreamsEachNodeAsItFinishesAndBadBodiesOrFailedSetUpsStartNothing) {
  ASSERT_TRUE(Restart()) << helper.error;  // session numbers count from the start
  const std::string good = Body("r1", {"a"}), empty = OkAnswer("application/x-ndjson", "");
  const auto session = [](int sequence) {
    return DataFile("sing-box-urltest-" + std::to_string(helper.Pid()) + "-" +
                    std::to_string(sequence) + ".json");
  };
  // A directory where the first session's file goes: access denied, logged;
  // the next session takes the next number and runs.
  ASSERT_TRUE(fs::create_directories(session(1)));
  EXPECT_EQ(Post("/urltest", good), empty);
  EXPECT_NE(Logs().find("] URLTest failed to write config: " + std::string(kWriteFileCall) + "(" +
                        PathText(session(1)) + ") failed: " + kFileIsDirectoryError),
            std::string::npos);
  EXPECT_TRUE(ReadFetchRecords().empty());
  EXPECT_EQ(RunUrlTest(good).lines.size(), 1u);
  fs::remove(session(1));
  EXPECT_EQ(ReadFetchRecords().at(0).at("config"), PathText(session(2)));
  const std::size_t logMark = Logs().size();
  // Bad bodies (their rules are the parser's unit table) start nothing.
  for (const std::string& body : {std::string(), good.substr(0, good.size() - 3)})
    EXPECT_EQ(Post("/urltest", body), empty) << body;
  EXPECT_EQ(Logs().find("URLTest", logMark), std::string::npos);
  ResetTestRecords();

  const std::string utf8Tag = "\xE6\x9D\xB1\xE4\xBA\xAC-\xC3\xA9-delay-50";  // 東京-é-delay-50
  const std::vector<std::string> tags = {"fast-delay-100", "exit-2",        "hang",
                                         utf8Tag,          "flood-1048576", "slow-delay-400"};
  const UrlTestStream stream = RunUrlTest(Body("r7", tags));
  // Head exactly as sent, no Content-Length; nothing after the last line.
  EXPECT_EQ(stream.head, kUrlTestStreamHead);
  EXPECT_TRUE(stream.closedByPeer);
  EXPECT_EQ(stream.rest, "");
  ASSERT_EQ(stream.lines.size(), tags.size());
  std::map<std::string, std::pair<std::int64_t, std::uint64_t>> results;  // (delay, arrival)
  for (const auto& [line, tick] : stream.lines) {
    client::UrlTestResult result;
    EXPECT_TRUE(client::ParseUrlTestResultLine(line, result)) << line;
    results[result.nodeTag] = {result.delayMs, tick};
  }
  std::map<std::string, FetchRecord> records;  // by tag
  for (const FetchRecord& record : ReadFetchRecords()) records[record.at("tag")] = record;
  ASSERT_EQ(records.size(), tags.size());
  // Good nodes report more than their delay, and their lines go out as they
  // finish: well before the line of the node that runs into the limit (all
  // started together, so this holds however slow the machine is).
  for (const auto& [tag, delay] : {std::pair<std::string, int>{"fast-delay-100", 100},
                                   {utf8Tag, 50},
                                   {"slow-delay-400", 400}}) {
    EXPECT_GT(results[tag].first, delay) << tag;
    EXPECT_LT(results[tag].second + 100, results["hang"].second) << tag;
  }
  // Failed nodes report 0; the hanging one and the one whose output fills its
  // pipe are ended by the 3 s limit (counted from the request: the process
  // cannot have started earlier) and reported last.
  EXPECT_EQ(results["exit-2"].first, 0);
  for (const std::string tag : {"hang", "flood-1048576"}) {
    EXPECT_EQ(results[tag].first, 0) << tag;
    EXPECT_GE(results[tag].second - stream.sentTick, 2950u) << tag;
    EXPECT_LE(results[tag].second - std::stoull(records[tag].at("startTick")), 4800u) << tag;
    EXPECT_NE((stream.lines[4].first + stream.lines[5].first).find(tag), std::string::npos) << tag;
  }
  EXPECT_EQ(CountCores(), 0);
  // What each test process was given: the exact command line with the UTF-8
  // tag intact, the data directory as working directory, the three variables,
  // and the configuration in the session's temporary file, gone afterwards.
  const FetchRecord& record = records[utf8Tag];
  EXPECT_EQ(record.at("commandLine"), FetchCommandLine(fs::path(helper.directory) / kCoreFileName,
                                                       record.at("config"), utf8Tag, kUrl));
  EXPECT_EQ(record.at("workingDirectory"), PathText(HelperDataDirectory()));
  ExpectCoreVariables(record);
  EXPECT_EQ(record.at("configText"), kUrlTestConfig);
  EXPECT_FALSE(fs::exists(record.at("config")));
  const std::string logs = Logs();
  const std::size_t begun = logs.find("] URLTest stream started for 6 nodes, requestId=r7\r\n");
  EXPECT_NE(begun, std::string::npos);
  EXPECT_GT(logs.find("] URLTest stream completed for 6 nodes\r\n", begun), begun);
}

TEST_F(Helper, UrlTestCancelEndsTheRunningProcessesAndStartsNoMore) {
  const std::string canceled = OkAnswer("application/json", "{\"status\":\"canceled\"}");
  // A repeated tag is tested and reported twice, in one session's file.
  EXPECT_EQ(RunUrlTest(Body("s1", {"twice-delay-10", "twice-delay-10"})).lines.size(), 2u);
  const std::vector<FetchRecord> twice = ReadFetchRecords();
  ASSERT_EQ(twice.size(), 2u);
  EXPECT_EQ(twice[0].at("config"), twice[1].at("config"));
  // Before a test starts, and after one with the id has ended, a cancel
  // leaves the next test with the id to run to its end.
  EXPECT_EQ(Post("/cancel-urltest", "early"), canceled);
  EXPECT_EQ(RunUrlTest(Body("early", {"x-delay-20", "y-delay-20"})).lines.size(), 2u);
  EXPECT_EQ(Post("/cancel-urltest", "early"), canceled);
  EXPECT_EQ(RunUrlTest(Body("early", {"z-delay-20"})).lines.size(), 1u);
  ResetTestRecords();
  const std::size_t logMark = Logs().size();
  // Empty ids are ignored; any other is canceled, line feed and all.
  EXPECT_EQ(Post("/cancel-urltest"), OkAnswer("application/json", "{\"status\":\"ignored\"}"));
  std::vector<std::string> tags;
  for (int i = 1; i <= 13; ++i) tags.push_back(std::to_string(i) + "-hang");
  client::ClientSocket socket;
  ASSERT_TRUE(StartUrlTest(Body("cancel-me", tags), socket));
  UrlTestStream stream;
  std::thread reader([&] { stream = ReadUrlTestStream(socket); });
  const std::vector<FetchRecord> records = WaitForFetchRecords(12, 15000);
  ASSERT_EQ(records.size(), 12u);
  // The helper registers a process just after creating it, long before the
  // process has written its record; a short pause covers a slow thread.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(Post("/cancel-urltest", "cancel-me\n"), canceled);
  const std::uint64_t cancelTick = NowMs();
  EXPECT_EQ(Post("/cancel-urltest", "cancel-me"), canceled);
  reader.join();
  // No lines for the ended nodes; the stream closes well before the limit.
  EXPECT_EQ(stream.head, kUrlTestStreamHead);
  EXPECT_TRUE(stream.lines.empty() && stream.closedByPeer);
  EXPECT_LT(stream.closedTick - cancelTick, 2000u);
  // Twelve ran at once (the cancel ends all twelve, below) and the
  // thirteenth never started.
  EXPECT_EQ(ReadFetchRecords().size(), 12u);
  EXPECT_EQ(WaitUntilNoCore(2000), 0);
  EXPECT_FALSE(fs::exists(records.at(0).at("config")));
  const std::string logs = Logs().substr(logMark);
  EXPECT_EQ(logs.find("URLTest cancel requested: \r\n"), std::string::npos);
  std::size_t at = 0;
  // The caller's line feed is escaped: one event, one line.
  for (const char* line : {"] URLTest cancel requested: cancel-me\\x0A, processes=0\r\n",
                           "] URLTest cancel requested: cancel-me, processes=12\r\n",
                           "] URLTest stream completed for 13 nodes\r\n"}) {
    at = logs.find(line, at);
    ASSERT_NE(at, std::string::npos) << line << logs;
  }
}

// --- Traffic snapshots ------------------------------------------------------
// Under Wine the socket tables are the Linux host's and carry owning pid 0,
// so every entry is named "pid-0" there, and a UDP socket bound to one IPv4
// address shows up as the wildcard address, which is dropped; so the test's
// own endpoint looked for is an established TCP connection.

constexpr std::string_view kZeros =
    "{\"uploadBytesPerSecond\":0,\"downloadBytesPerSecond\":0,\"uploadTotalBytes\":0,"
    "\"downloadTotalBytes\":0,\"processes\":[";
constexpr std::string_view kReported =
    "{\"uploadBytesPerSecond\":-7,\"downloadBytesPerSecond\":12,"
    "\"uploadTotalBytes\":9007199254740993,\"downloadTotalBytes\":456,\"processes\":[";

// A TUN configuration (only the core starts). The double's controller takes
// the first "up" and "down" after its marker, so `more` may override them;
// the run-mode marker "x-test-double" is found anywhere.
// `api` goes into clash_api after the address (a secret, which the double
// then asks for).
std::string ControllerConfig(std::string_view mode, std::string_view more = {},
                             std::string_view api = {}) {
  return "{\"inbounds\":[{\"type\":\"tun\",\"tag\":\"tun-in\",\"address\":[\"172.18.0.1/30\"]}],"
         "\"outbounds\":[{\"type\":\"direct\",\"tag\":\"direct\"}],\"experimental\":{\"clash_api\":"
         "{\"external_controller\":\"127.0.0.1:19090\"" +
         std::string(api) + "}},\"x-test-controller\":{\"mode\":\"" + std::string(mode) + "\"," +
         std::string(more) +
         "\"up\":-7,\"down\":12,\"uploadTotal\":9007199254740993,\"downloadTotal\":456}}";
}

// Framing, figures and an entry of the asking connection (the entry text,
// the limit and the dropped addresses are the unit tests' business).
void ExpectSnapshot(const std::string& raw, std::string_view figures) {
  const std::string body = raw.substr(std::min(raw.size(), raw.find("\r\n\r\n") + 4));
  EXPECT_EQ(raw, OkAnswer("application/json", body));
  ASSERT_EQ(body.substr(0, figures.size()), figures) << body;
  // With the limit reached, ours may be among the endpoints left out.
  EXPECT_TRUE(!kListsSocketOwners || std::count(body.begin(), body.end(), '{') > 80 ||
              body.find("\"method\":\"TCP\",\"host\":\"127.0.0.2:") != std::string::npos);
}

// The fewest threads `processId` had while polling up to `polls` times, 100
// ms apart, until they are down to `target` (Wine keeps some of its own in
// every process).
int FewestThreads(std::uint32_t processId, int target, int polls) {
  int fewest = 1 << 30;
  for (; fewest > target && polls-- > 0;
       std::this_thread::sleep_for(std::chrono::milliseconds(100)))
    fewest = std::min(fewest, CountThreads(processId));
  return fewest;
}

// One snapshot alone, then two at once in each step, as every connection
// builds its own; the double's controller is configured through the
// configuration sent.
TEST_F(Helper, TrafficSnapshotFollowsTheControllerAndItsReaderLivesAndDiesWithTheCore) {
  // The fewest over half a second: a connection thread may still be ending.
  const std::uint32_t pid = helper.Pid();
  const int idle = FewestThreads(pid, 0, 5);
  const std::string empty = OkAnswer("application/json", std::string(kZeros) + "]}");
  EXPECT_EQ(TakeSnapshot(), empty);  // no core: not even the tables are read
  const std::pair<std::string, std::string_view> cases[] = {
      {ControllerConfig("stream"), kReported},
      {ControllerConfig("stream", {}, ",\"secret\":\"s3 cr3t\""), kReported},  // as a bearer
      {ControllerConfig("silent"), kZeros},  // each read ends at its receive time-out
      // This stream ticks every 100 ms, so its reader holds a fresh sample
      // when the next core starts: that core's snapshots must still carry
      // its own figures.
      {ControllerConfig("stream", "\"tick\":100,\"up\":1,"), "{\"uploadBytesPerSecond\":1,"},
      {ControllerConfig("stream", "\"x-test-double\":\"die-after-4000\","), kReported},
  };
  for (const auto& [config, figures] : cases) {
    ASSERT_EQ(Post("/start-tun", config), kTunConnected);
    ExpectSnapshot(TakeSnapshot(), figures);
    // Under Wine the table scans of two snapshots at once keep its server
    // busy for seconds, long enough for a controller read to time out; so
    // these two are held to the figures of the reader's sample alone.
    auto a = std::async(std::launch::async, TakeSnapshot);
    auto b = std::async(std::launch::async, TakeSnapshot);
    for (const std::string& raw : {a.get(), b.get()})
      ExpectSnapshot(raw, figures.substr(0, figures.find("\"uploadTotalBytes\"")));
  }
  // The last core dies: the next snapshot is the empty text and the reader
  // is gone.
  ASSERT_EQ(WaitUntilNoCore(10000), 0);
  EXPECT_EQ(TakeSnapshot(), empty);
  EXPECT_LE(FewestThreads(pid, idle, 100), idle) << "a reader outlived its core";

  // A silent controller holds the reader's request for ever; a stop in the
  // middle of a snapshot still ends the reader (how long the stop takes is
  // load_fault_bench's figure).
  ASSERT_EQ(Post("/start-tun", ControllerConfig("silent")), kTunConnected);
  auto during = std::async(std::launch::async, TakeSnapshot);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(Post("/stop"), kDisconnected);
  ExpectSnapshot(during.get(), kZeros);
  EXPECT_LE(FewestThreads(pid, idle, 100), idle) << "a reader outlived its stop";
}

// --- orvelctl -----------------------------------------------------------------
// What each command prints and its exit code, a whole URL test, and Ctrl-C
// during one.

// True when `text` is `pattern` with each '*' standing for any run of bytes.
bool Matches(std::string_view text, std::string_view pattern) {
  const std::size_t star = pattern.find('*');
  if (star == std::string_view::npos) return text == pattern;
  if (!text.starts_with(pattern.substr(0, star))) return false;
  for (std::size_t at = star; at <= text.size(); ++at)
    if (Matches(text.substr(at), pattern.substr(star + 1))) return true;
  return false;
}

const char kOrvelctlConfig[] = R"({// test nodes; the tags tell the core double how to answer
  "inbounds":[{"type":"mixed","tag":"orvel-vpn-mixed","listen":"127.0.0.1","listen_port":2080}],
  "outbounds":[{"type":"trojan","tag":"jp-02-delay-10"},{"type":"vmess","tag":"sg-03-exit-1"}],
  "experimental":{"clash_api":{"external_controller":"127.0.0.1:19090"}},
  "x-test-controller":{"up":1536,"down":2048,"uploadTotal":123,"downloadTotal":456}})";

// The Ctrl-C comes last, as it changes this process's console on Windows.
TEST_F(Helper, OrvelctlPrintsTheHelpersAnswersWithItsExitCodesAndCancelsOnCtrlC) {
  // orvelctl runs in this process's current directory.
  fs::current_path(helper.directory);
  WriteWholeFile("config.json", kOrvelctlConfig);
  WriteWholeFile("direct.json", R"({"outbounds":[{"type":"direct"}]})");
  // A peer that is no helper, for the one answer only it gives: a 200 whose
  // body has a space and control bytes.
  std::thread stranger =
      ServeOneAnswer(17998, "HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\npo ng\x01\x7F~");
  // And a log whose control bytes must not reach the terminal, and an answer
  // one byte past the 16 MiB that no helper's answer comes near.
  std::thread strangeLog =
      ServeOneAnswer(17997, "HTTP/1.1 200 OK\r\nContent-Length: 13\r\n\r\nA\x1b]0;x\x07\r\nB\rC\n");
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 16777172\r\n\r\n";
  std::thread huge = ServeOneAnswer(17996, head + std::string((16 << 20) + 1 - head.size(), 'x'));
  const std::string idle(ThisPlatform().idle), tun(ThisPlatform().tunConnected),
      off(ThisPlatform().disconnected);
  // Arguments (split at spaces), then "exit code|stdout|stderr" ('*': any bytes).
  const std::pair<std::string, std::string> steps[] = {
      {"ping", "0|pong\n|"},
      {"status", "1|disconnected: " + idle + "\n|"},
      {"start missing.json", "4||orvelctl: cannot read the configuration missing.json: *\n"},
      {"start config.json --tun", "0|connected: " + tun + "\n|"},
      // The snapshot's endpoints are the machine's own; its figures are exact.
      {"snapshot",
       "0|upload    1.5 KiB/s     total 123 B\ndownload  2.0 KiB/s     total 456 B\n*|"},
      {"--address 127.0.0.1:17998 ping",
       "7||orvelctl: unexpected answer from 127.0.0.1:17998 to GET /ping: \"po ng\\x01\\x7F~\"\n"},
      {"--address 127.0.0.1:17997 logs", "0|A\\x1B]0;x\\x07\r\nB\\x0DC\n|"},
      {"--address 127.0.0.1:17996 ping",
       "7||orvelctl: unexpected answer from 127.0.0.1:17996 to GET /ping: no complete HTTP "
       "answer\n"},
      {"stop", "0|disconnected: " + off + "\n|"},
      // The nodes are the configuration's proxies, the failure last.
      {"urltest --url=http://cp.example.test/ config.json",
       "0| #  node *\n 1  jp-02-delay-10 * ms\n 2  sg-03-exit-1 * failed\n"
       "2 of 2 nodes reported, 1 failed\n|"},
      {"urltest direct.json", "5||orvelctl: direct.json: *\n"},
      {"--address 127.0.0.1:17999 status",
       "3||orvelctl: no helper answers on 127.0.0.1:17999 \xE2\x80\x94 is OrvelVpnHelper "
       "running?\n"},
      {"logs --tun", "2||orvelctl: logs does not take --tun (orvelctl logs --help)\n"},
      // logs prints the helper's log as it is.
      {"logs", "0|*] OrvelVpnHelper started\r\n*|"}};
  const fs::path orvelctl = fs::path(BinDirectory()) / kOrvelctlFileName;
  for (const auto& [line, wanted] : steps) {
    std::vector<std::string> arguments;
    std::istringstream words(line);
    for (std::string word; words >> word;) arguments.push_back(word);
    const auto [exitCode, out, err] = RunProgram(orvelctl, arguments);
    const std::string got = std::to_string(exitCode) + "|" + out + "|" + err;
    EXPECT_TRUE(Matches(got, wanted)) << line << " -> " << got;
  }
  stranger.join();
  strangeLog.join();
  huge.join();
  EXPECT_EQ(ReadFetchRecords().at(0).at("url"), "http://cp.example.test/");

  // Ctrl-C must reach orvelctl only, never the test runner.
  PrepareToInterruptChildren();
  ResetTestRecords();
  // The quick nodes' results arrive while the hanging ones are started.
  std::vector<std::string> arguments{"urltest",   "config.json", "--tag",
                                     "a-delay-1", "--tag",       "b-delay-1"};
  for (int i = 1; i <= 12; ++i)
    arguments.insert(arguments.end(), {"--tag", std::to_string(i) + "-hang"});
  const auto [exitCode, out, err] = RunProgram(orvelctl, arguments, 14);
  EXPECT_EQ(exitCode, 130u);
  EXPECT_EQ(CountCores(), 0);
  // What arrived is printed as a table and counted in the message (on a
  // loaded machine a hanging node may reach its 3 s limit before the cancel).
  const auto rows = std::to_string(std::ranges::count(out, '\n') - 2);
  EXPECT_TRUE(Matches(err, "orvelctl: cancelled test orvelctl-* after " + rows + " of 14 nodes\n"))
      << out << err;
}

}  // namespace
}  // namespace orvel::test
