// The control API, the core search and the VPN commands as the client uses
// them, against one running helper, the core double and the Wine registry:
// answers byte for byte, the per-user proxy values with their types, the
// notification order, what the core was started with, what is left behind
// after each refusal, and the same commands sent by a page in a real browser.
#include <gtest/gtest.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <thread>

#include "support/harness.h"
#include "urltest/urltest_body.h"

namespace orvel::test {
namespace {

namespace fs = std::filesystem;

const ProxyValues kUserProxy{Dword(1), Text(L"corp-proxy.example:8080"),
                             Text(L"*.corp.example;<local>")};
const ProxyValues kNothingSet{Absent(), Absent(), Absent()};
const std::string kNotFound =
    "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 9\r\n"
    "Connection: close\r\n\r\nnot found";
const std::string kPong = OkAnswer("text/plain", "pong");
const std::string kForbidden =
    "HTTP/1.1 403 Forbidden\r\nContent-Type: text/plain\r\nContent-Length: 9\r\n"
    "Connection: close\r\n\r\nforbidden";

// A configuration shaped like the client's, with bytes that any re-encoding
// would change (CRLF, tab, UTF-8, a NUL and a 0xFF at the end).
std::string Config(std::string_view behaviour = {}, std::string_view port = "2080") {
  std::string config =
      "{\"log\":{\"level\":\"info\"},\r\n"
      " \"inbounds\":[{\"type\":\"mixed\",\"tag\":\"orvel-vpn-mixed\",\"listen\":\"127.0.0.1\"";
  if (!port.empty()) config += ",\"listen_port\":" + std::string(port);
  config += "}],\r\n\t\"outbounds\":[{\"type\":\"direct\",\"tag\":\"\xE6\x97\xA5\xE6\x9C\xAC\"}]";
  if (!behaviour.empty()) config += ",\"x-test-double\":\"" + std::string(behaviour) + "\"";
  return config + "}\n" + std::string("\0\xFF", 2);
}

std::string Answer(std::string_view status, std::string_view message) {
  return OkAnswer("application/json", "{\"status\":\"" + std::string(status) +
                                          "\",\"platform\":\"windows\",\"message\":\"" +
                                          std::string(message) + "\"}");
}
const std::string kConnected = Answer("connected", "Windows helper connected");
const std::string kTunConnected = Answer("connected", "Windows TUN helper connected");
const std::string kDisconnected = Answer("disconnected", "Windows helper disconnected");
const std::string kRunning = Answer("connected", "Windows helper running");
const std::string kIdle = Answer("disconnected", "Windows helper idle");

std::string Send(std::string_view method, std::string_view path, std::string_view body = {}) {
  return ExchangeRaw(BuildRequest(method, path, body));
}
std::string Post(std::string_view path, std::string_view body = {}) {
  return Send("POST", path, body);
}
std::string Status() { return Send("GET", "/status"); }
int Cores() { return CountProcessesNamed(L"sing-box.exe"); }
std::wstring DataFile(std::wstring_view name) {
  return HelperDataDirectory() + L"\\" + std::wstring(name);
}
// What the core double was started with; it writes that once it runs, which
// on a loaded machine can come after the helper's answer.
std::map<std::string, std::string> CoreRun() {
  for (int i = 0; i < 200 && !fs::exists(RecordPath(L"core-run.txt")); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return ReadKeyValues(RecordPath(L"core-run.txt"));
}

const std::string kEmptyAnswer = OkAnswer("application/x-ndjson", "");
const std::string kCanceled = OkAnswer("application/json", "{\"status\":\"canceled\"}");
const std::string kIgnored = OkAnswer("application/json", "{\"status\":\"ignored\"}");
constexpr std::string_view kUrl = "http://cp.example.test/generate_204";
const std::string kUrlTestConfig = "{\"outbounds\":[{\"type\":\"direct\",\"tag\":\"d\"}]}\n";

std::string Body(const std::string& id, const std::vector<std::string>& tags, int version = 2) {
  return EncodeUrlTestBody({id, std::string(kUrl), tags, kUrlTestConfig}, version);
}

// tag -> (delay, tick the line arrived); every line must parse.
std::map<std::string, std::pair<std::int64_t, std::uint64_t>> Results(const UrlTestStream& s) {
  std::map<std::string, std::pair<std::int64_t, std::uint64_t>> results;
  for (const auto& [line, tick] : s.lines) {
    client::UrlTestResult result;
    EXPECT_TRUE(client::ParseUrlTestResultLine(line, result)) << line;
    results[result.nodeTag] = {result.delayMs, tick};
  }
  return results;
}
const FetchRecord& RecordOf(const std::vector<FetchRecord>& records, const std::string& tag) {
  static const FetchRecord kNone;
  const auto found = std::find_if(records.begin(), records.end(),
                                  [&](const FetchRecord& r) { return r.at("tag") == tag; });
  return found == records.end() ? kNone : *found;
}
std::uint64_t Tick(const FetchRecord& record) {
  return record.contains("startTick") ? std::stoull(record.at("startTick")) : 0;
}

std::wstring SessionFile(const ScopedHelper& helper, int sequence) {
  return HelperDataDirectory() + L"\\sing-box-urltest-" +
         std::to_wstring(helper.process.dwProcessId) + L"-" + std::to_wstring(sequence) + L".json";
}

// One helper for the whole executable; the cases that need another start
// (core placement, a kill, a saved file) restart it.
class Helper : public ::testing::Test {
 protected:
  static void TearDownTestSuite() { helper.Stop(); }
  void SetUp() override {
    if (!helper.Running()) {
      ASSERT_TRUE(Restart()) << helper.error;
    }
    Post("/stop");
    ResetTestRecords();
    WriteProxyValues(kNothingSet);
    logMark = Logs().size();
  }
  void TearDown() override { WriteProxyValues(kNothingSet); }
  static bool Restart(CorePlacement core = CorePlacement::kBesideExe, std::wstring path = {},
                      bool keepDataDirectory = false) {
    helper.Stop();
    return helper.Start({core, path, keepDataDirectory});
  }
  // The log written since the test began.
  std::string NewLog() const {
    const std::string all = Logs();
    return all.substr(std::min(logMark, all.size()));
  }
  static ScopedHelper helper;
  std::size_t logMark = 0;
};
ScopedHelper Helper::helper;

TEST_F(Helper, FramingAndRoutesGiveExactAnswers) {
  std::string oversized = "GET /ping HTTP/1.1\r\nX: ";
  oversized += std::string(1048577 - oversized.size(), 'a');  // one past the limit, no blank line
  const std::pair<std::string, std::string> cases[] = {
      {"GET /ping HTTP/1.1\r\n\r\n", kPong},
      {"GET /ping HTTP/1.0\r\n\r\n", kPong},
      {"GET /nothing HTTP/1.1\r\n\r\n", kNotFound},
      {"get /ping HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /ping?x=1 HTTP/1.1\r\n\r\n", kNotFound},
      {"POST /ping HTTP/1.1\r\n\r\n", kNotFound},
      {"GET\r\n\r\n", kNotFound},
      {"POST /start-tun/ HTTP/1.1\r\n\r\n", kNotFound},
      {BuildRequest("GET", "/status", "x"), kIdle},  // bodies of status and stop are ignored
      {BuildRequest("POST", "/stop", "x"), kDisconnected},
      // "/ping" ignores its body: a whole answer shows it was read to its length.
      {"GET /ping HTTP/1.1\r\ncontent-length:   5\r\n\r\nhello", kPong},
      {"GET /ping HTTP/1.1\r\n\r\nstray bytes", kPong},
      // A foreign Host is a page reached through DNS rebinding; "null" is a
      // sandboxed page's Origin.
      {"GET /logs HTTP/1.1\r\nHost: rebind.example:17891\r\n\r\n", kForbidden},
      {"POST /stop HTTP/1.1\r\nHost: 127.0.0.1:17891\r\nOrigin: null\r\n\r\n", kForbidden},
      {oversized,
       "HTTP/1.1 413 Payload Too Large\r\nContent-Type: text/plain\r\nContent-Length: 17\r\n"
       "Connection: close\r\n\r\nrequest too large"},
      // The exact header sets of curl, Node's fetch and a desktop framework.
      {"POST /start HTTP/1.1\r\nHost: 127.0.0.1:17891\r\nUser-Agent: curl/7.88.1\r\n"
       "Accept: */*\r\nContent-Length: " +
           std::to_string(Config().size()) +
           "\r\nContent-Type: application/x-www-form-urlencoded\r\n\r\n" + Config(),
       kConnected},
      {"GET /status HTTP/1.1\r\nhost: 127.0.0.1:17891\r\nconnection: keep-alive\r\naccept: */*\r\n"
       "accept-language: *\r\nsec-fetch-mode: cors\r\nuser-agent: node\r\n\r\n",
       kRunning},
      {"POST /stop HTTP/1.1\r\norigin: http://tauri.localhost\r\nuser-agent: OrvelVPN/2.4.0\r\n"
       "accept: */*\r\nhost: 127.0.0.1:17891\r\ncontent-length: 0\r\n\r\n",
       kDisconnected},
  };
  for (const auto& [request, answer] : cases) {
    EXPECT_EQ(ExchangeRaw(request), answer) << request.substr(0, 40);
  }
  EXPECT_TRUE(LogHasLine("Refused GET /logs: Host \"rebind.example:17891\""));
  EXPECT_TRUE(LogHasLine("Refused POST /stop: Origin \"null\""));

  // A silent client holds no one up; a head sent byte by byte is assembled;
  // a body that ends short gets no answer, only the close.
  SOCKET silent = ConnectLoopback(kHelperPort);
  SOCKET slow = ConnectLoopback(kHelperPort, 10000);
  SOCKET shortBody = ConnectLoopback(kHelperPort, 10000);
  for (char c : std::string("GET /ping HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")) {
    SendAll(slow, std::string_view(&c, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  EXPECT_EQ(ReadToEnd(slow), kPong);
  SendAll(shortBody, "GET /ping HTTP/1.1\r\nContent-Length: 10\r\n\r\n12345");
  shutdown(shortBody, SD_SEND);
  bool closed = false;
  EXPECT_EQ(ReadToEnd(shortBody, &closed), "");
  EXPECT_TRUE(closed);
  for (SOCKET s : {silent, slow, shortBody}) closesocket(s);

  const client::HttpAnswer logs = Request("GET", "/logs");
  EXPECT_EQ(logs.contentType, "text/plain");
  EXPECT_EQ(logs.body.substr(0, 1), "[");
  EXPECT_TRUE(LogHasLine("OrvelVpnHelper started")) << logs.body;
  // A second instance ends at once and the first keeps serving.
  EXPECT_EQ(RunAndWait(helper.ExePath(), L"", 30000), 0u);
  EXPECT_EQ(ExchangeRaw("GET /ping HTTP/1.1\r\n\r\n"), kPong);
}

TEST_F(Helper, CoreIsSearchedBesideTheExeThenInDataThenOnPath) {
  struct Case {
    CorePlacement placement;
    bool alsoInData, alsoOnPath;
    std::wstring found;  // relative to the helper's folder; "" is the PATH copy
  } cases[] = {{CorePlacement::kBesideExe, true, true, L"\\sing-box.exe"},
               {CorePlacement::kDataSubfolder, false, true, L"\\data\\sing-box.exe"},
               {CorePlacement::kNone, false, true, L""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(ToUtf8(c.found));
    ResetTestRecords();
    ASSERT_TRUE(Restart(c.placement, c.alsoOnPath ? DoublesDirectory() : L"")) << helper.error;
    if (c.alsoInData) {
      fs::create_directories(helper.directory + L"\\data");
      fs::copy_file(DoublesDirectory() + L"\\sing-box.exe",
                    helper.directory + L"\\data\\sing-box.exe");
    }
    EXPECT_EQ(Post("/start-tun", Config()), kTunConnected);
    const std::wstring exe =
        c.found.empty() ? DoublesDirectory() + L"\\sing-box.exe" : helper.directory + c.found;
    EXPECT_EQ(CoreRun()["commandLine"].substr(0, exe.size() + 2),
              std::string("\"") + ToUtf8(exe) + "\"");
  }

  ASSERT_TRUE(Restart(CorePlacement::kNone)) << helper.error;
  WriteProxyValues(kUserProxy);
  const std::string missing =
      "sing-box.exe not found; place it next to the app exe or in the data directory";
  EXPECT_EQ(Post("/start-tun", Config()), Answer("disconnected", missing));
  EXPECT_EQ(Post("/start", Config()), Answer("disconnected", missing));
  EXPECT_TRUE(LogHasLine(missing));
  EXPECT_EQ(ReadFileBytes(DataFile(L"sing-box.json")), Config());  // written before the search
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(ReadWininetCalls(), "");
  // A folder named like the core is found but cannot run.
  fs::create_directories(helper.directory + L"\\sing-box.exe");
  EXPECT_EQ(Post("/start-tun", Config()),
            Answer("disconnected", "Failed to start sing-box.exe: 5"));
  EXPECT_EQ(Cores(), 0);
  helper.Stop();
}

TEST_F(Helper, ProxyStartPointsTheSystemProxyAtTheCore) {
  // The answer must end with end-of-stream although the core keeps running:
  // the core holds no copy of the client's socket.
  SOCKET s = ConnectLoopback(kHelperPort, 10000);
  SendAll(s, BuildRequest("POST", "/start", Config()));
  bool closed = false;
  EXPECT_EQ(ReadToEnd(s, &closed), kConnected);
  closesocket(s);
  EXPECT_TRUE(closed);
  EXPECT_EQ(Cores(), 1);
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n");  // settings changed, then refresh
  EXPECT_EQ(ReadFileBytes(DataFile(L"sing-box.json")), Config());
  auto run = CoreRun();
  EXPECT_EQ(run["commandLine"], std::string("\"") + ToUtf8(helper.directory) +
                                    "\\sing-box.exe\" run -c \"" +
                                    ToUtf8(DataFile(L"sing-box.json")) + "\"");
  EXPECT_EQ(run["workingDirectory"], ToUtf8(HelperDataDirectory()));
  for (const char* name :
       {"ENABLE_DEPRECATED_LEGACY_DNS_SERVERS", "ENABLE_DEPRECATED_OUTBOUND_DNS_RULE_ITEM",
        "ENABLE_DEPRECATED_MISSING_DOMAIN_RESOLVER"}) {
    EXPECT_EQ(run[name], "true") << name;
  }
  EXPECT_TRUE(LogHasLine("VPN started through OrvelVpnHelper"));
  EXPECT_EQ(Status(), kRunning);
  // An empty body is refused and the running core keeps running.
  const std::string empty = Answer("disconnected", "Empty subscription config or runtime config");
  EXPECT_EQ(Post("/start"), empty);
  EXPECT_EQ(Post("/start-tun"), empty);
  EXPECT_EQ(Cores(), 1);
  EXPECT_EQ(Status(), kRunning);
  // A start over a running one puts the user's values back first; without a
  // listen_port the default mixed port is used.
  EXPECT_EQ(Post("/start", Config({}, {})), kConnected);
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(7897));
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n39\n37\n39\n37\n");
  EXPECT_EQ(Cores(), 1);
  // TUN mode after proxy mode puts the user's settings back and sets none.
  EXPECT_EQ(Post("/start-tun", Config()), kTunConnected);
  EXPECT_EQ(ReadProxyValues(), (ProxyValues{Dword(0), Absent(), Absent()}));
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n39\n37\n39\n37\n39\n37\n");
  EXPECT_EQ(Cores(), 1);
  EXPECT_TRUE(LogHasLine("TUN VPN started through OrvelVpnHelperService"));
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_EQ(Cores(), 0);
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n39\n37\n39\n37\n39\n37\n");
}

TEST_F(Helper, StopPutsBackExactlyWhatTheUserHad) {
  const struct {
    ProxyValues before, after;
  } cases[] = {
      // An absent ProxyEnable comes back as 0; absent strings stay absent.
      {kNothingSet, {Dword(0), Absent(), Absent()}},
      {kUserProxy, kUserProxy},
      // An expandable string returns as a plain one; an empty one is deleted.
      {{Dword(0), Text(L"%PROXYHOST%:3128", REG_EXPAND_SZ), Text(L"")},
       {Dword(0), Text(L"%PROXYHOST%:3128"), Absent()}},
      {{Dword(7), Dword(5), Dword(6)}, {Dword(7), Absent(), Absent()}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.before));
    ResetTestRecords();
    WriteProxyValues(c.before);
    ASSERT_EQ(Post("/start", Config()), kConnected);
    EXPECT_EQ(Post("/stop"), kDisconnected);
    EXPECT_EQ(ReadProxyValues(), c.after);
    EXPECT_EQ(ReadWininetCalls(), "39\n37\n39\n37\n");
    EXPECT_EQ(Cores(), 0);
    EXPECT_EQ(Status(), kIdle);
  }
  // With nothing saved a stop still answers and logs, and touches nothing.
  ResetTestRecords();
  WriteProxyValues(kUserProxy);
  const std::size_t mark = Logs().size();
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_NE(Logs().find("] VPN stopped through OrvelVpnHelper\r\n", mark), std::string::npos);
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(ReadWininetCalls(), "");
}

TEST_F(Helper, FailedStartsLeaveNothingBehind) {
  // The double's three lines, as they appear in the JSON answer.
  std::string plain, red;
  for (const char* line : {"[0000] decode config: json: unknown field \\\"x-test-double\\\"",
                           "[0000] start service: start inbound/mixed[mixed-in]: listen tcp "
                           "127.0.0.1:2080",
                           "[0000] exit status 1"}) {
    plain += "FATAL" + std::string(line) + " ";
    red += "\x1b[31mFATAL\x1b[0m" + std::string(line) + " ";
  }
  const std::pair<std::string, std::string> cases[] = {
      {"fatal3-plain", plain}, {"fatal3", red}, {"silent", "<empty>"}};
  WriteProxyValues(kUserProxy);
  for (const auto& [behaviour, summary] : cases) {
    SCOPED_TRACE(behaviour);
    const std::string message = "sing-box.exe exited immediately: " + summary;
    EXPECT_EQ(Post(behaviour == "silent" ? "/start-tun" : "/start", Config(behaviour)),
              Answer("disconnected", message));
    EXPECT_EQ(Cores(), 0);
    EXPECT_EQ(Status(), kIdle);
  }
  EXPECT_NE(NewLog().find("] sing-box.exe exited immediately: <empty>\r\n"), std::string::npos);

  // Refusals of the file system come before the core and are not logged: a
  // folder where the configuration goes, a file where the data directory goes.
  std::error_code ec;
  fs::remove(DataFile(L"sing-box.json"), ec);
  fs::create_directories(DataFile(L"sing-box.json"));
  EXPECT_EQ(Post("/start", Config()), Answer("disconnected", "Failed to write sing-box config"));
  fs::remove_all(HelperDataDirectory(), ec);
  ASSERT_TRUE(WriteFileText(HelperDataDirectory(), "in the way"));
  const std::string exists = std::system_category().message(ERROR_ALREADY_EXISTS);
  EXPECT_EQ(Post("/start-tun", Config()), Answer("disconnected", exists));
  fs::remove(HelperDataDirectory(), ec);
  EXPECT_EQ(NewLog().find("Failed to write"), std::string::npos);
  EXPECT_EQ(NewLog().find(exists), std::string::npos);
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(ReadWininetCalls(), "");

  // The enable fails at its announcement, and so does the restore after it,
  // whose message wins; the values are back and the saved copy is kept, so
  // the next stop restores and announces once more.
  SetWininetFailing(true);
  const std::string restoreFailed = "Failed to restore Windows system proxy";
  EXPECT_EQ(Post("/start", Config()), Answer("disconnected", restoreFailed));
  EXPECT_TRUE(LogHasLine(restoreFailed));
  EXPECT_EQ(Cores(), 0);
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(ReadWininetCalls(), "39\n39\n");
  SetWininetFailing(false);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_EQ(ReadWininetCalls(), "39\n39\n39\n37\n");
  EXPECT_EQ(ReadProxyValues(), kUserProxy);

  // Nobody watches a core that dies later: status turns idle, the system
  // proxy stays set until a stop.
  ASSERT_EQ(Post("/start", Config("die-after-1000")), kConnected);
  EXPECT_EQ(WaitUntilNoProcessNamed(L"sing-box.exe", 20000), 0);
  EXPECT_EQ(Status(), kIdle);
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
}

TEST_F(Helper, KilledHelperTakesItsProcessesAlongAndTheNextPutsTheProxyBack) {
  const ProxyValues userOwn{Dword(0), Text(L"home-proxy:3128"), Absent()};
  const struct {
    const ProxyValues* changedMeanwhile;
    const ProxyValues& after;
    const char* wininetCalls;
    const char* logLine;
  } cases[] = {
      {nullptr, kUserProxy, "39\n37\n39\n37\n",
       "Restored the proxy settings saved before the helper last ended"},
      {&userOwn, userOwn, "39\n37\n",
       "System proxy changed since the helper last set it; kept it and removed the saved proxy "
       "settings"},
  };
  UrlTestRequest urltest{"crash", "http://cp.example.test/", {}, "{}"};
  for (int i = 1; i <= 12; ++i) urltest.nodeTags.push_back(std::to_string(i) + "-hang");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.logLine);
    ResetTestRecords();
    WriteProxyValues(kUserProxy);
    ASSERT_EQ(Post("/start", Config()), kConnected);
    const SOCKET stream = StartUrlTest(EncodeUrlTestBody(urltest, 2));
    ASSERT_EQ(WaitForFetchRecords(12, 15000).size(), 12u);
    ASSERT_GT(Cores(), 1);  // the first may have reached their 3 s limit on a loaded machine
    // The harness's own job stays open: only the helper's job can end them.
    helper.Kill();
    closesocket(stream);
    EXPECT_EQ(WaitUntilNoProcessNamed(L"sing-box.exe", 10000), 0);
    EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
    EXPECT_TRUE(fs::exists(DataFile(L"proxy-state.txt")));
    if (c.changedMeanwhile != nullptr) WriteProxyValues(*c.changedMeanwhile);
    ASSERT_TRUE(Restart(CorePlacement::kBesideExe, {}, true)) << helper.error;
    EXPECT_EQ(ReadProxyValues(), c.after);
    EXPECT_FALSE(fs::exists(DataFile(L"proxy-state.txt")));
    EXPECT_TRUE(LogHasLine(c.logLine)) << Logs();
    EXPECT_EQ(ReadWininetCalls(), c.wininetCalls);
  }
  // A saved file cut short is removed and the registry left as it is.
  ResetTestRecords();
  WriteProxyValues(HelperProxyValues(2080));  // as a helper leaves it: only the file can tell
  ASSERT_TRUE(WriteFileText(DataFile(L"proxy-state.txt"),
                            "orvel-proxy-state 1\nProxyEnable=0\nProxyServer=\nProxyOverride=\n"));
  ASSERT_TRUE(Restart(CorePlacement::kBesideExe, {}, true)) << helper.error;
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
  EXPECT_EQ(ReadWininetCalls(), "");
  EXPECT_FALSE(fs::exists(DataFile(L"proxy-state.txt")));
  EXPECT_TRUE(
      LogHasLine("Removed an unreadable saved proxy settings file; system proxy left as it is"));
}

TEST_F(Helper, UrlTestBadBodiesAndFailedSetUpsAnswerEmptyAndStartNothing) {
  ASSERT_TRUE(Restart()) << helper.error;  // session numbers count from the start
  const std::string good = Body("r1", {"a"});
  // A directory where the first session's file goes: access denied, logged;
  // the next session takes the next number and runs.
  ASSERT_TRUE(fs::create_directories(SessionFile(helper, 1)));
  EXPECT_EQ(Post("/urltest", good), kEmptyAnswer);
  EXPECT_TRUE(LogHasLine("URLTest failed to write config: CreateFile failed: 5"));
  EXPECT_TRUE(ReadFetchRecords().empty());
  EXPECT_EQ(Results(RunUrlTest(good)).size(), 1u);
  fs::remove(SessionFile(helper, 1));
  EXPECT_EQ(ReadFetchRecords().at(0).at("config"), ToUtf8(SessionFile(helper, 2)));
  const std::size_t logMark = Logs().size();
  // Bad bodies (their rules are the parser's unit table) start nothing.
  for (const std::string& body : {std::string(), good.substr(0, good.size() - 3)}) {
    EXPECT_EQ(Post("/urltest", body), kEmptyAnswer) << body;
  }
  EXPECT_EQ(Logs().find("URLTest", logMark), std::string::npos);
  // A file where the data directory goes.
  std::error_code ec;
  fs::remove_all(HelperDataDirectory(), ec);
  ASSERT_TRUE(WriteFileText(HelperDataDirectory(), "in the way"));
  EXPECT_EQ(Post("/urltest", good), kEmptyAnswer);
  fs::remove(HelperDataDirectory(), ec);
  EXPECT_TRUE(LogHasLine("URLTest failed to create runtime directory"));
  EXPECT_EQ(ReadFetchRecords().size(), 1u);
}

TEST_F(Helper, UrlTestStreamsEachNodeAsItFinishesAndEndsEveryProcess) {
  const std::string utf8Tag = "\xE6\x9D\xB1\xE4\xBA\xAC-\xC3\xA9-delay-50";  // 東京-é-delay-50
  const std::vector<std::string> tags = {"fast-delay-100", "exit-2",        "hang",
                                         utf8Tag,          "flood-1048576", "slow-delay-400"};
  const UrlTestStream stream = RunUrlTest(Body("r7", tags));
  // Head exactly as sent, no Content-Length; nothing after the last line.
  EXPECT_EQ(stream.head, kUrlTestStreamHead);
  EXPECT_TRUE(stream.closedByPeer);
  EXPECT_EQ(stream.rest, "");
  auto results = Results(stream);
  ASSERT_EQ(stream.lines.size(), tags.size());
  const std::vector<FetchRecord> records = ReadFetchRecords();
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
    EXPECT_LE(results[tag].second - Tick(RecordOf(records, tag)), 4800u) << tag;
    const auto line = std::find_if(stream.lines.begin(), stream.lines.end(), [&](const auto& l) {
      return l.first.find(tag) != l.first.npos;
    });
    EXPECT_GE(line - stream.lines.begin(), 4) << tag;
  }
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  // What each test process was given: the exact command line with the UTF-8
  // tag intact, the data directory as working directory, the three variables,
  // and the configuration in the session's temporary file.
  const FetchRecord& record = RecordOf(records, utf8Tag);
  const std::string file = record.at("config");
  EXPECT_EQ(record.at("commandLine"), std::string("\"") + ToUtf8(helper.directory) +
                                          "\\sing-box.exe\" --disable-color -c \"" + file +
                                          "\" tools -o \"" + utf8Tag + "\" fetch \"" +
                                          std::string(kUrl) + "\"");
  EXPECT_EQ(file.substr(0, file.rfind('-')), ToUtf8(HelperDataDirectory() + L"\\sing-box-urltest-" +
                                                    std::to_wstring(helper.process.dwProcessId)));
  EXPECT_EQ(record.at("workingDirectory"), ToUtf8(HelperDataDirectory()));
  for (const char* name :
       {"ENABLE_DEPRECATED_LEGACY_DNS_SERVERS", "ENABLE_DEPRECATED_OUTBOUND_DNS_RULE_ITEM",
        "ENABLE_DEPRECATED_MISSING_DOMAIN_RESOLVER"}) {
    EXPECT_EQ(record.at(name), "true") << name;
  }
  EXPECT_EQ(record.at("configText"), kUrlTestConfig);
  EXPECT_TRUE(UrlTestConfigFiles().empty());
  const std::string logs = Logs();
  const std::size_t begun = logs.find("] URLTest stream started for 6 nodes, requestId=r7\r\n");
  EXPECT_NE(begun, std::string::npos);
  EXPECT_GT(logs.find("] URLTest stream completed for 6 nodes\r\n", begun), begun);
}

TEST_F(Helper, UrlTestThirteenNodesRunOnTwelveProcessesAtMost) {
  // The first twelve each wait until twelve fetches run at once, then 300 ms
  // more; the thirteenth can only start when one of them has ended.
  std::vector<std::string> tags;
  for (int i = 1; i <= 12; ++i) tags.push_back(std::to_string(i) + "-gather-12-delay-300");
  tags.push_back("13-delay-10");
  auto results = Results(RunUrlTest(Body("thirteen", tags)));
  for (const std::string& tag : tags) EXPECT_GT(results[tag].first, 0) << tag;
  const std::vector<FetchRecord> records = ReadFetchRecords();
  ASSERT_EQ(records.size(), 13u);
  std::uint64_t lastGatherStart = 0;
  int most = 0;
  for (const FetchRecord& record : records) {
    most = std::max(most, std::stoi(record.at("runningAtStart")));
    if (record.at("tag") != "13-delay-10")
      lastGatherStart = std::max(lastGatherStart, Tick(record));
  }
  EXPECT_EQ(most, 12);
  EXPECT_GE(Tick(RecordOf(records, "13-delay-10")), lastGatherStart + 300);
}

TEST_F(Helper, UrlTestRepeatedTagsAndVersionOne) {
  // A repeated tag is tested and reported twice, in one session's file.
  EXPECT_EQ(RunUrlTest(Body("s1", {"twice-delay-10", "twice-delay-10"})).lines.size(), 2u);
  const std::vector<FetchRecord> records = ReadFetchRecords();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].at("config"), records[1].at("config"));
  // Version 1 has no request id; an empty tag is dropped from the count.
  auto results = Results(RunUrlTest(Body("", {"v1-delay-10", ""}, 1)));
  ASSERT_EQ(results.size(), 1u);
  EXPECT_GT(results["v1-delay-10"].first, 10);
  EXPECT_TRUE(LogHasLine("URLTest stream started for 1 nodes, requestId="));
  EXPECT_TRUE(LogHasLine("URLTest stream completed for 1 nodes"));
}

TEST_F(Helper, UrlTestCancelEndsTheRunningProcessesAndStartsNoMore) {
  const std::size_t logMark = Logs().size();
  // Empty ids are ignored; any other is canceled, line feed and all.
  EXPECT_EQ(Post("/cancel-urltest"), kIgnored);
  EXPECT_EQ(Post("/cancel-urltest", "nobody\n"), kCanceled);
  EXPECT_EQ(ExchangeRaw(BuildRequest("GET", "/cancel-urltest", "x")).substr(0, 13),
            "HTTP/1.1 404 ");
  std::vector<std::string> tags;
  for (int i = 1; i <= 13; ++i) tags.push_back(std::to_string(i) + "-hang");
  const SOCKET socket = StartUrlTest(Body("cancel-me", tags));
  UrlTestStream stream;
  std::thread reader([&] { stream = ReadUrlTestStream(socket); });
  const std::vector<FetchRecord> records = WaitForFetchRecords(12, 15000);
  ASSERT_EQ(records.size(), 12u);
  std::vector<HANDLE> processes;
  for (const FetchRecord& record : records) {
    // On a loaded machine the first may have reached their 3 s limit already.
    if (HANDLE process = OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE,
                                     std::stoul(record.at("pid")))) {
      processes.push_back(process);
    }
  }
  // The helper registers a process just after creating it, long before the
  // process has written its record; a short pause covers a slow thread.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(Post("/cancel-urltest", "cancel-me\n"), kCanceled);
  const std::uint64_t cancelTick = GetTickCount64();
  EXPECT_EQ(Post("/cancel-urltest", "cancel-me"), kCanceled);
  for (HANDLE process : processes) {
    EXPECT_EQ(WaitForSingleObject(process, 2000), WAIT_OBJECT_0);
    DWORD code = 0;
    GetExitCodeProcess(process, &code);
    EXPECT_EQ(code, 1u);
    CloseHandle(process);
  }
  reader.join();
  closesocket(socket);
  // No lines for the ended nodes; the stream closes well before the limit.
  EXPECT_EQ(stream.head, kUrlTestStreamHead);
  EXPECT_TRUE(stream.lines.empty());
  EXPECT_TRUE(stream.closedByPeer);
  EXPECT_LT(stream.closedTick - cancelTick, 2000u);
  EXPECT_EQ(ReadFetchRecords().size(), 12u);  // the thirteenth never started
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  EXPECT_TRUE(UrlTestConfigFiles().empty());
  const std::string logs = Logs().substr(logMark);
  EXPECT_EQ(logs.find("URLTest cancel requested: \r\n"), std::string::npos);
  std::size_t at = 0;
  for (const char* line : {"] URLTest cancel requested: nobody\n, processes=0\r\n",
                           "] URLTest cancel requested: cancel-me\n, processes=0\r\n",
                           "] URLTest cancel requested: cancel-me, processes=12\r\n",
                           "] URLTest stream completed for 13 nodes\r\n"}) {
    at = logs.find(line, at);
    ASSERT_NE(at, std::string::npos) << line << logs;
  }
}

TEST_F(Helper, UrlTestCancelOutsideATestsLifeIsForgotten) {
  // A version 1 test cannot be canceled, by its tag or otherwise.
  const SOCKET socket = StartUrlTest(Body("", {"a-delay-300", "b-delay-300"}, 1));
  ASSERT_EQ(WaitForFetchRecords(2, 15000).size(), 2u);
  EXPECT_EQ(Post("/cancel-urltest"), kIgnored);
  EXPECT_EQ(Post("/cancel-urltest", "a-delay-300"), kCanceled);
  auto results = Results(ReadUrlTestStream(socket));
  closesocket(socket);
  EXPECT_GT(results["a-delay-300"].first, 300);
  EXPECT_GT(results["b-delay-300"].first, 300);
  // Before a test starts, and after one with the id has ended, a cancel
  // leaves the next test with the id to run to its end.
  EXPECT_EQ(Post("/cancel-urltest", "early"), kCanceled);
  EXPECT_EQ(RunUrlTest(Body("early", {"x-delay-20", "y-delay-20"})).lines.size(), 2u);
  EXPECT_EQ(Post("/cancel-urltest", "early"), kCanceled);
  EXPECT_EQ(RunUrlTest(Body("early", {"z-delay-20"})).lines.size(), 1u);
}

// Stops the user's VPN, starts the page's own configuration with the system
// proxy on its port 6666, tries TUN mode, and reads the status: what any web
// site could do with "simple" requests, which a browser sends without asking.
constexpr std::string_view kAttackingPage = R"(<!doctype html><script>
const helper = "http://127.0.0.1:17891";
const config = JSON.stringify({inbounds: [{type: "mixed", tag: "orvel-vpn-mixed",
                                           listen: "127.0.0.1", listen_port: 6666}]});
Promise.allSettled([
  fetch(helper + "/stop", {method: "POST", mode: "no-cors", body: ""}),
  fetch(helper + "/start", {method: "POST", mode: "no-cors", body: config}),
  fetch(helper + "/start-tun", {method: "POST", mode: "no-cors", body: config}),
  new Promise(done => { const image = new Image(); image.onload = image.onerror = done;
                        image.src = helper + "/status"; }),
]).then(() => fetch("/finished"));
</script>)";

TEST_F(Helper, WebPageInARealBrowserChangesNothing) {
  // The host's chromium is started through Wine: a Unix program given to
  // CreateProcessW runs as a host process, but Wine returns no handle for it
  // and passes on only its standard output (thrown away here), so
  // `timeout` bounds its life and the page reports its end to our server.
  if (GetProcAddress(GetModuleHandleW(L"ntdll"), "wine_get_version") == nullptr) {
    GTEST_SKIP() << "drives the host's chromium through Wine";
  }
  WriteProxyValues(kUserProxy);
  ASSERT_EQ(Post("/start", Config()), kConnected);
  // Another loopback address is another site to the browser.
  SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, "127.0.0.2", &address.sin_addr);
  int size = sizeof(address);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(listen(listener, 16), 0);
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
  const std::string origin = "http://127.0.0.2:" + std::to_string(ntohs(address.sin_port));
  HANDLE finished = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  std::thread server([&] {
    for (SOCKET s; (s = accept(listener, nullptr, nullptr)) != INVALID_SOCKET; closesocket(s)) {
      char head[4096] = {};
      recv(s, head, sizeof(head) - 1, 0);
      const std::string_view request(head);
      if (request.starts_with("GET /finished ")) SetEvent(finished);
      const std::string_view body = request.starts_with("GET / ") ? kAttackingPage : "";
      SendAll(s, "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nContent-Length: " +
                     std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
                     std::string(body));
    }
  });
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  std::wstring commandLine =
      L"sh -c \"profile=$(mktemp -d) && timeout -k 5 90 chromium --headless "
      L"--no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking "
      L"--disable-component-update --disable-sync --user-data-dir=$profile "
      L"--virtual-time-budget=5000 --dump-dom >/dev/null 2>&1 " +
      std::wstring(origin.begin(), origin.end()) + L"/; rm -rf $profile\"";
  PROCESS_INFORMATION browser{};
  const BOOL launched = CreateProcessW(L"Z:\\bin\\sh", commandLine.data(), nullptr, nullptr, FALSE,
                                       0, nullptr, nullptr, &startup, &browser);
  const bool pageFinished = launched && WaitForSingleObject(finished, 120000) == WAIT_OBJECT_0;
  closesocket(listener);
  server.join();
  CloseHandle(finished);
  ASSERT_TRUE(pageFinished) << "chromium did not finish the page within 120 s";

  for (std::string_view path : {"/stop", "/start", "/start-tun"}) {
    EXPECT_TRUE(LogHasLine("Refused POST " + std::string(path) + ": Origin \"" + origin + "\""));
  }
  EXPECT_TRUE(LogHasLine("Refused GET /status: Sec-Fetch-Site \"cross-site\""));
  EXPECT_EQ(NewLog().find("VPN stopped through"), std::string::npos);
  EXPECT_EQ(NewLog().find("TUN VPN started"), std::string::npos);
  EXPECT_EQ(ReadFileBytes(DataFile(L"sing-box.json")), Config());
  EXPECT_EQ(Cores(), 1);
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n");
}

}  // namespace
}  // namespace orvel::test
