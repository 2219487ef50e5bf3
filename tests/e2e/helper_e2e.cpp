// The helper as its clients use it, against one running helper, the core
// double and the Wine registry: the control API, the core search, the VPN
// commands, URL tests, traffic snapshots, the service and orvelctl. Answers
// byte for byte, the per-user proxy values with their types, the notification
// order, what each core process was started with, and what is left behind
// after each refusal.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <memory>
#include <thread>
#include <tuple>
#include <type_traits>

#include "entry/service_host.h"
#include "support/harness.h"
#include "urltest/urltest_body.h"
// After windows.h, which the harness brings in.
#include <sddl.h>
#include <tlhelp32.h>
#include <ws2tcpip.h>

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

std::string Post(std::string_view path, std::string_view body = {}) {
  return ExchangeRaw(BuildRequest("POST", path, body));
}
std::string Status() { return ExchangeRaw(BuildRequest("GET", "/status")); }
int Cores() { return CountProcessesNamed(L"sing-box.exe"); }
// What a step left: the per-user proxy values, the notifications sent since
// the records were cleared, and the core processes running.
void ExpectLeft(const ProxyValues& proxy, std::string_view wininetCalls, int cores) {
  EXPECT_EQ(ReadProxyValues(), proxy);
  EXPECT_EQ(ReadWininetCalls(), wininetCalls);
  EXPECT_EQ(Cores(), cores);
}
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

// The three variables the helper sets for every core process it starts.
void ExpectCoreVariables(const std::map<std::string, std::string>& record) {
  for (const char* name :
       {"ENABLE_DEPRECATED_LEGACY_DNS_SERVERS", "ENABLE_DEPRECATED_OUTBOUND_DNS_RULE_ITEM",
        "ENABLE_DEPRECATED_MISSING_DOMAIN_RESOLVER"}) {
    EXPECT_EQ(record.contains(name) ? record.at(name) : "", "true") << name;
  }
}

// Runs `exePath arguments` and waits up to 30 s: its exit code (0xFFFFFFFF
// when it did not start), stdout and stderr. With `interruptAfterFetches`,
// presses Ctrl-C once that many test processes have started: the program runs
// in a process group of its own on this process's console, the way a
// person's Ctrl-C reaches it.
auto RunProgram(const std::wstring& exePath, const std::wstring& arguments,
                std::size_t interruptAfterFetches = 0) {
  SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  const auto create = [&](const wchar_t* name) {
    return CreateFileW((BinDirectory() + name).c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                       &inheritable, CREATE_ALWAYS, 0, nullptr);
  };
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = create(L"\\run-out.txt");
  startup.hStdError = create(L"\\run-err.txt");
  std::wstring commandLine = L"\"" + exePath + L"\" " + arguments;
  PROCESS_INFORMATION info{};
  DWORD exitCode = 0xFFFFFFFF;
  if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_NEW_PROCESS_GROUP,
                     nullptr, nullptr, &startup, &info)) {
    // Wine delivers Ctrl-C to a named group (Ctrl-Break ends the thread
    // instead of calling the handler), and Windows does for a group that
    // has taken Ctrl-C back, as orvelctl does.
    if (interruptAfterFetches > 0 && WaitForFetchRecords(interruptAfterFetches, 15000).size() > 0)
      GenerateConsoleCtrlEvent(CTRL_C_EVENT, info.dwProcessId);
    if (WaitForSingleObject(info.hProcess, 30000) != WAIT_OBJECT_0)
      TerminateProcess(info.hProcess, 99);
    GetExitCodeProcess(info.hProcess, &exitCode);
  }
  for (HANDLE handle : {startup.hStdOutput, startup.hStdError, info.hProcess, info.hThread})
    CloseHandle(handle);
  return std::tuple{exitCode, ReadFileBytes(BinDirectory() + L"\\run-out.txt"),
                    ReadFileBytes(BinDirectory() + L"\\run-err.txt")};
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

std::wstring SessionFile(const ScopedHelper& helper, int sequence) {
  return HelperDataDirectory() + L"\\sing-box-urltest-" +
         std::to_wstring(helper.process.dwProcessId) + L"-" + std::to_wstring(sequence) + L".json";
}

// One helper for the whole executable; the cases that need another start
// (core placement, a kill, a saved file, the service) restart it.
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
  }
  static bool Restart(CorePlacement core = CorePlacement::kBesideExe, std::wstring path = {},
                      bool keepDataDirectory = false) {
    helper.Stop();
    return helper.Start({core, path, keepDataDirectory});
  }
  static ScopedHelper helper;
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
      // What Chromium sends for a page's fetch with mode "no-cors".
      {"POST /stop HTTP/1.1\r\nHost: 127.0.0.1:17891\r\nContent-Type: text/plain\r\n"
       "Origin: http://127.0.0.5:8000\r\nSec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: no-cors\r\n"
       "Sec-Fetch-Dest: empty\r\nReferer: http://127.0.0.5:8000/\r\n\r\n",
       kForbidden},
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
  EXPECT_TRUE(LogHasLine("Refused POST /stop: Origin \"http://127.0.0.5:8000\""));

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
  EXPECT_EQ(std::get<0>(RunProgram(helper.ExePath(), L"")), 0u);
  EXPECT_EQ(ExchangeRaw("GET /ping HTTP/1.1\r\n\r\n"), kPong);
}

TEST_F(Helper, CoreIsSearchedBesideTheExeThenInDataThenOnPath) {
  // Searched anew at each start: each copy found is removed for the next.
  ASSERT_TRUE(Restart(CorePlacement::kBesideExe, DoublesDirectory())) << helper.error;
  fs::create_directories(helper.directory + L"\\data");
  fs::copy_file(DoublesDirectory() + L"\\sing-box.exe", helper.directory + L"\\data\\sing-box.exe");
  for (const std::wstring& exe :
       {helper.directory + L"\\sing-box.exe", helper.directory + L"\\data\\sing-box.exe",
        DoublesDirectory() + L"\\sing-box.exe"}) {
    ResetTestRecords();
    EXPECT_EQ(Post("/start-tun", Config()), kTunConnected);
    EXPECT_EQ(CoreRun()["commandLine"].substr(0, exe.size() + 2),
              std::string("\"") + ToUtf8(exe) + "\"");
    EXPECT_EQ(Post("/stop"), kDisconnected);
    if (!exe.starts_with(DoublesDirectory())) {
      EXPECT_TRUE(fs::remove(exe));
    }
  }

  ASSERT_TRUE(Restart(CorePlacement::kNone)) << helper.error;
  WriteProxyValues(kUserProxy);
  const std::string missing =
      "sing-box.exe not found; place it next to the app exe or in the data directory";
  EXPECT_EQ(Post("/start-tun", Config()), Answer("disconnected", missing));
  EXPECT_TRUE(LogHasLine(missing));
  EXPECT_EQ(ReadFileBytes(DataFile(L"sing-box.json")), Config());  // written before the search
  ExpectLeft(kUserProxy, "", 0);
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
  client::ClientSocket socket;
  ASSERT_TRUE(ConnectToHelper(socket) &&
              client::SendAllBytes(socket, BuildRequest("POST", "/start", Config())));
  bool closed = false;
  EXPECT_EQ(ReadToEnd(socket, &closed, 10000), kConnected);
  EXPECT_TRUE(closed);
  ExpectLeft(HelperProxyValues(2080), "39\n37\n", 1);  // settings changed, then refresh
  EXPECT_EQ(ReadFileBytes(DataFile(L"sing-box.json")), Config());
  auto run = CoreRun();
  EXPECT_EQ(run["commandLine"], std::string("\"") + ToUtf8(helper.directory) +
                                    "\\sing-box.exe\" run -c \"" +
                                    ToUtf8(DataFile(L"sing-box.json")) + "\"");
  EXPECT_EQ(run["workingDirectory"], ToUtf8(HelperDataDirectory()));
  ExpectCoreVariables(run);
  EXPECT_TRUE(LogHasLine("VPN started through OrvelVpnHelper"));
  // An empty body is refused and the running core keeps running.
  const std::string empty = Answer("disconnected", "Empty subscription config or runtime config");
  EXPECT_EQ(Post("/start-tun"), empty);
  EXPECT_EQ(Cores(), 1);
  EXPECT_EQ(Status(), kRunning);
  // A start over a running one puts the user's values back first; without a
  // listen_port the default mixed port is used.
  EXPECT_EQ(Post("/start", Config({}, {})), kConnected);
  EXPECT_EQ(ReadFileBytes(DataFile(L"sing-box.json")), Config({}, {}));  // shorter: replaced whole
  ExpectLeft(HelperProxyValues(7897), "39\n37\n39\n37\n39\n37\n", 1);
  // TUN mode after proxy mode puts the user's settings back and sets none.
  EXPECT_EQ(Post("/start-tun", Config()), kTunConnected);
  ExpectLeft({Dword(0), Absent(), Absent()}, "39\n37\n39\n37\n39\n37\n39\n37\n", 1);
  EXPECT_TRUE(LogHasLine("TUN VPN started through OrvelVpnHelperService"));
  EXPECT_EQ(Post("/stop"), kDisconnected);
  ExpectLeft({Dword(0), Absent(), Absent()}, "39\n37\n39\n37\n39\n37\n39\n37\n", 0);
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
    ExpectLeft(c.after, "39\n37\n39\n37\n", 0);
    EXPECT_EQ(Status(), kIdle);
  }
  // With nothing saved a stop still answers and logs, and touches nothing.
  ResetTestRecords();
  WriteProxyValues(kUserProxy);
  const std::size_t mark = Logs().size();
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_NE(Logs().find("] VPN stopped through OrvelVpnHelper\r\n", mark), std::string::npos);
  ExpectLeft(kUserProxy, "", 0);
}

TEST_F(Helper, FailedStartsLeaveNothingBehind) {
  // The double's three lines, as they appear in the JSON answer.
  std::string red;
  for (const char* line : {"[0000] decode config: json: unknown field \\\"x-test-double\\\"",
                           "[0000] start service: start inbound/mixed[mixed-in]: listen tcp "
                           "127.0.0.1:2080",
                           "[0000] exit status 1"}) {
    red += "\x1b[31mFATAL\x1b[0m" + std::string(line) + " ";
  }
  const std::pair<std::string, std::string> cases[] = {{"fatal3", red}, {"silent", "<empty>"}};
  WriteProxyValues(kUserProxy);
  for (const auto& [behaviour, summary] : cases) {
    SCOPED_TRACE(behaviour);
    const std::string message = "sing-box.exe exited immediately: " + summary;
    EXPECT_EQ(Post(behaviour == "silent" ? "/start-tun" : "/start", Config(behaviour)),
              Answer("disconnected", message));
    EXPECT_EQ(Cores(), 0);
    EXPECT_EQ(Status(), kIdle);
  }
  EXPECT_TRUE(LogHasLine("sing-box.exe exited immediately: <empty>"));

  // The enable fails at its announcement, and so does the restore after it,
  // whose message wins; the values are back and the saved copy is kept, so
  // the next stop restores and announces once more.
  SetWininetFailing(true);
  const std::string restoreFailed = "Failed to restore Windows system proxy";
  EXPECT_EQ(Post("/start", Config()), Answer("disconnected", restoreFailed));
  EXPECT_TRUE(LogHasLine(restoreFailed));
  ExpectLeft(kUserProxy, "39\n39\n", 0);
  SetWininetFailing(false);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  ExpectLeft(kUserProxy, "39\n39\n39\n37\n", 0);

  // Nobody watches a core that dies later: status turns idle, the system
  // proxy stays set until a stop.
  ASSERT_EQ(Post("/start", Config("die-after-1000")), kConnected);
  EXPECT_EQ(WaitUntilNoProcessNamed(L"sing-box.exe", 20000), 0);
  EXPECT_EQ(Status(), kIdle);
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
}

TEST_F(Helper, KilledHelperTakesItsProcessesAlongAndTheNextPutsTheProxyBack) {
  // Values other than the user's were set by hand while no helper ran.
  const struct {
    ProxyValues after;
    const char* wininetCalls;
    const char* logLine;
  } cases[] = {
      {kUserProxy, "39\n37\n39\n37\n",
       "Restored the proxy settings saved before the helper last ended"},
      {{Dword(0), Text(L"home-proxy:3128"), Absent()},
       "39\n37\n",
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
    client::ClientSocket stream;
    ASSERT_TRUE(StartUrlTest(EncodeUrlTestBody(urltest, 2), stream));
    ASSERT_EQ(WaitForFetchRecords(12, 15000).size(), 12u);
    ASSERT_GT(Cores(), 1);  // the first may have reached their 3 s limit on a loaded machine
    // The harness's own job stays open: only the helper's job can end them.
    helper.Kill();
    EXPECT_EQ(WaitUntilNoProcessNamed(L"sing-box.exe", 10000), 0);
    EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
    EXPECT_TRUE(fs::exists(DataFile(L"proxy-state.txt")));
    if (c.after != kUserProxy) WriteProxyValues(c.after);
    ASSERT_TRUE(Restart(CorePlacement::kBesideExe, {}, true)) << helper.error;
    EXPECT_EQ(ReadProxyValues(), c.after);
    EXPECT_FALSE(fs::exists(DataFile(L"proxy-state.txt")));
    EXPECT_TRUE(LogHasLine(c.logLine)) << Logs();
    EXPECT_EQ(ReadWininetCalls(), c.wininetCalls);
  }
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
    EXPECT_LE(results[tag].second - std::stoull(RecordOf(records, tag).at("startTick")), 4800u)
        << tag;
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
  EXPECT_EQ(record.at("workingDirectory"), ToUtf8(HelperDataDirectory()));
  ExpectCoreVariables(record);
  EXPECT_EQ(record.at("configText"), kUrlTestConfig);
  EXPECT_FALSE(fs::exists(records.at(0).at("config")));  // the session's file
  const std::string logs = Logs();
  const std::size_t begun = logs.find("] URLTest stream started for 6 nodes, requestId=r7\r\n");
  EXPECT_NE(begun, std::string::npos);
  EXPECT_GT(logs.find("] URLTest stream completed for 6 nodes\r\n", begun), begun);
}

TEST_F(Helper, UrlTestRepeatedTagsAndCancelsOutsideATest) {
  // A repeated tag is tested and reported twice, in one session's file.
  EXPECT_EQ(RunUrlTest(Body("s1", {"twice-delay-10", "twice-delay-10"})).lines.size(), 2u);
  const std::vector<FetchRecord> records = ReadFetchRecords();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].at("config"), records[1].at("config"));
  // Before a test starts, and after one with the id has ended, a cancel
  // leaves the next test with the id to run to its end.
  EXPECT_EQ(Post("/cancel-urltest", "early"), kCanceled);
  EXPECT_EQ(RunUrlTest(Body("early", {"x-delay-20", "y-delay-20"})).lines.size(), 2u);
  EXPECT_EQ(Post("/cancel-urltest", "early"), kCanceled);
  EXPECT_EQ(RunUrlTest(Body("early", {"z-delay-20"})).lines.size(), 1u);
}

TEST_F(Helper, UrlTestCancelEndsTheRunningProcessesAndStartsNoMore) {
  const std::size_t logMark = Logs().size();
  // Empty ids are ignored; any other is canceled, line feed and all.
  EXPECT_EQ(Post("/cancel-urltest"), kIgnored);
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
  EXPECT_EQ(Post("/cancel-urltest", "cancel-me\n"), kCanceled);
  const std::uint64_t cancelTick = GetTickCount64();
  EXPECT_EQ(Post("/cancel-urltest", "cancel-me"), kCanceled);
  reader.join();
  // No lines for the ended nodes; the stream closes well before the limit.
  EXPECT_EQ(stream.head, kUrlTestStreamHead);
  EXPECT_TRUE(stream.lines.empty());
  EXPECT_TRUE(stream.closedByPeer);
  EXPECT_LT(stream.closedTick - cancelTick, 2000u);
  // Twelve ran at once (the cancel ends all twelve, below) and the
  // thirteenth never started.
  EXPECT_EQ(ReadFetchRecords().size(), 12u);
  EXPECT_EQ(WaitUntilNoProcessNamed(L"sing-box.exe", 2000), 0);
  EXPECT_FALSE(fs::exists(records.at(0).at("config")));
  const std::string logs = Logs().substr(logMark);
  EXPECT_EQ(logs.find("URLTest cancel requested: \r\n"), std::string::npos);
  std::size_t at = 0;
  for (const char* line : {"] URLTest cancel requested: cancel-me\n, processes=0\r\n",
                           "] URLTest cancel requested: cancel-me, processes=12\r\n",
                           "] URLTest stream completed for 13 nodes\r\n"}) {
    at = logs.find(line, at);
    ASSERT_NE(at, std::string::npos) << line << logs;
  }
}

// --- Traffic snapshots ------------------------------------------------------
// Under Wine the socket tables are the Linux host's and carry owning pid 0,
// so every entry is named "pid-0" here, and a UDP socket bound to one IPv4
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
std::string ControllerConfig(std::string_view mode, std::string_view more = {}) {
  return "{\"inbounds\":[{\"type\":\"tun\",\"tag\":\"tun-in\",\"address\":[\"172.18.0.1/30\"]}],"
         "\"outbounds\":[{\"type\":\"direct\",\"tag\":\"direct\"}],\"experimental\":{\"clash_api\":"
         "{\"external_controller\":\"127.0.0.1:19090\"}},\"x-test-controller\":{\"mode\":\"" +
         std::string(mode) + "\"," + std::string(more) +
         "\"up\":-7,\"down\":12,\"uploadTotal\":9007199254740993,\"downloadTotal\":456}}";
}

// Asked from 127.0.0.2, so that the helper's end of this very connection is
// an established endpoint the snapshot must list (127.0.0.1 is dropped).
std::string TakeSnapshot() {
  client::ClientSocket s;
  s.handle = static_cast<client::SocketHandle>(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  sockaddr_in address{AF_INET, 0, {}, {}};
  address.sin_addr.s_addr = htonl(0x7F000002);  // 127.0.0.2
  auto* peer = reinterpret_cast<sockaddr*>(&address);
  const bool bound = bind(static_cast<SOCKET>(s.handle), peer, sizeof(address)) == 0;
  address.sin_port = htons(kHelperPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return bound && connect(static_cast<SOCKET>(s.handle), peer, sizeof(address)) == 0 &&
                 client::SendAllBytes(s, BuildRequest("GET", "/traffic-snapshot"))
             ? ReadToEnd(s)
             : "";
}

// Framing, figures and an entry of the asking connection (the entry text,
// the limit and the dropped addresses are the unit tests' business).
void ExpectSnapshot(const std::string& raw, std::string_view figures) {
  const std::string body = raw.substr(std::min(raw.size(), raw.find("\r\n\r\n") + 4));
  EXPECT_EQ(raw, OkAnswer("application/json", body));
  ASSERT_EQ(body.substr(0, figures.size()), figures) << body;
  // With the limit reached, ours may be among the endpoints left out.
  EXPECT_TRUE(std::count(body.begin(), body.end(), '{') > 80 ||  // no name here has one
              body.find("\"method\":\"TCP\",\"host\":\"127.0.0.2:") != std::string::npos);
}

// The fewest threads `processId` had while polling up to `polls` times, 100
// ms apart, until they are down to `target` (Wine keeps some of its own in
// every process).
int FewestThreads(DWORD processId, int target, int polls) {
  int fewest = 1 << 30;
  for (; fewest > target && polls-- > 0; Sleep(100)) {
    int count = 0;
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
      count += entry.th32OwnerProcessID == processId;
    CloseHandle(snapshot);
    fewest = std::min(fewest, count);
  }
  return fewest;
}

// One snapshot alone, then two at once in each step, as every connection
// builds its own; the double's controller is configured through the
// configuration sent.
TEST_F(Helper, TrafficSnapshotFollowsTheControllerAndItsReaderLivesAndDiesWithTheCore) {
  // The fewest over half a second: a connection thread may still be ending.
  const DWORD pid = helper.process.dwProcessId;
  const int idle = FewestThreads(pid, 0, 5);
  const std::string empty = OkAnswer("application/json", std::string(kZeros) + "]}");
  EXPECT_EQ(TakeSnapshot(), empty);  // no core: not even the tables are read
  const std::pair<std::string, std::string_view> cases[] = {
      {ControllerConfig("stream"), kReported},
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
  ASSERT_EQ(WaitUntilNoProcessNamed(L"sing-box.exe", 10000), 0);
  EXPECT_EQ(TakeSnapshot(), empty);
  EXPECT_LE(FewestThreads(pid, idle, 100), idle) << "a reader outlived its core";

  // A silent controller holds the reader's request for ever; a stop in the
  // middle of a snapshot still ends the reader (how long the stop takes is
  // load_fault_bench's figure).
  ASSERT_EQ(Post("/start-tun", ControllerConfig("silent")), kTunConnected);
  auto during = std::async(std::launch::async, TakeSnapshot);
  Sleep(300);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  ExpectSnapshot(during.get(), kZeros);
  EXPECT_LE(FewestThreads(pid, idle, 100), idle) << "a reader outlived its stop";
}

// --- The service --------------------------------------------------------------

using ScHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, decltype(&CloseServiceHandle)>;

ScHandle OpenOurService() {
  const ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS),
                         CloseServiceHandle);
  return ScHandle(OpenServiceW(manager.get(), L"OrvelVpnHelperService", SERVICE_ALL_ACCESS),
                  CloseServiceHandle);
}

// Polls `check` for up to 10 s.
template <typename Check>
bool WaitFor(Check check) {
  for (int i = 0; i < 400 && !check(); ++i) Sleep(25);
  return check();
}

bool Pong() { return Request("GET", "/ping", {}, 2000).body == "pong"; }

// The last status read while waiting up to 10 s for `state`.
SERVICE_STATUS WaitForState(const ScHandle& service, DWORD state) {
  SERVICE_STATUS status{};
  WaitFor(
      [&] { return QueryServiceStatus(service.get(), &status) && status.dwCurrentState == state; });
  return status;
}

// Sends the stop control and waits for the stopped state; true when the
// service ended with exit code 0. The helper ends its process from inside the
// stop handler, right after reporting "stopped", so the control call may see
// the pipe break (109) before its reply; what counts is the state it ends in.
bool StopThroughScm(const ScHandle& service) {
  SERVICE_STATUS status{};
  const bool sent = ControlService(service.get(), SERVICE_CONTROL_STOP, &status) ||
                    GetLastError() == ERROR_BROKEN_PIPE;
  status = WaitForState(service, SERVICE_STOPPED);
  return sent && status.dwCurrentState == SERVICE_STOPPED && status.dwWin32ExitCode == 0;
}

// Stops and deletes the service if it exists, and waits until it is gone: a
// service marked for deletion still answers OpenServiceW, and an install that
// meets it would update the dying registration instead of creating one.
void RemoveService() {
  if (const ScHandle service = OpenOurService()) {
    StopThroughScm(service);
    DeleteService(service.get());
  }
  WaitFor([] { return OpenOurService() == nullptr; });
}

// Starts the installed service and waits until it answers; its status then.
// Running is reported before the listener is bound. After a crash Windows
// restarts the service by itself 5 s later. Wine 8's SCM does not, nor does
// it notice the end: it goes on reporting "running", yet starts the service
// again when asked. So what counts is the answer, not the call's result.
SERVICE_STATUS StartThroughScm() {
  const ScHandle service = OpenOurService();
  StartServiceW(service.get(), 0, nullptr);
  const SERVICE_STATUS status = WaitForState(service, SERVICE_RUNNING);
  return WaitFor(Pong) ? status : SERVICE_STATUS{};
}

// The helper as a service under Wine's Service Control Manager: the
// installer's switch and registration, the service's life through the SCM
// (its core, the proxy put back on stop and after a crash), and the
// configurations the service refuses to run as LocalSystem.
TEST_F(Helper, ServiceIsInstalledRunsTheCoreAndRefusesUnsafeConfigurations) {
  struct Cleanup {
    ~Cleanup() {
      RemoveService();
      KillProcessesNamed(L"OrvelVpnHelper.exe");
      ForgetLastStartedService();
    }
  } cleanup;
  RemoveService();
  // The stand-alone helper runs what the service refuses below.
  const std::string tor =
      R"({"outbounds":[{"type":"tor","tag":"t","executable_path":"C:\\Windows\\System32\\calc.exe"}]})";
  EXPECT_EQ(Post("/start-tun", tor), kTunConnected);
  // Beside a running helper: installer mode takes no mutex.
  ASSERT_EQ(std::get<0>(RunProgram(helper.ExePath(), L"xx--install-serviceyy and more words")), 0u);
  ASSERT_NE(OpenOurService(), nullptr);
  // Installer mode starts no server of its own.
  helper.Stop();
  ASSERT_EQ(std::get<0>(RunProgram(helper.ExePath(), L"before --install-service")), 0u);
  EXPECT_FALSE(Pong());
  const ScHandle service = OpenOurService();
  std::vector<unsigned char> buffer(8192);
  DWORD needed = 0;
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  const auto* about = reinterpret_cast<SERVICE_DESCRIPTIONW*>(buffer.data() + 4096);
  ASSERT_TRUE(QueryServiceConfigW(service.get(), config, 4096, &needed));
  ASSERT_TRUE(QueryServiceConfig2W(service.get(), SERVICE_CONFIG_DESCRIPTION, buffer.data() + 4096,
                                   4096, &needed));
  // Auto start, own process, normal error control.
  EXPECT_EQ(
      std::wstring(config->lpBinaryPathName) + L"|" + config->lpDisplayName + L"|" +
          about->lpDescription + L"|" + config->lpServiceStartName + L"|" +
          std::to_wstring(config->dwStartType) + std::to_wstring(config->dwServiceType) +
          std::to_wstring(config->dwErrorControl),
      L"\"" + helper.ExePath() +
          L"\"|Orvel VPN Helper Service|Runs sing-box TUN mode for Orvel VPN.|LocalSystem|2161");
  // Wine's SCM keeps neither failure actions nor service security, so only
  // the security text is checked: one that does not convert makes the
  // installer skip the step silently.
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(
      kServiceSecurityDescriptor, SDDL_REVISION_1, &descriptor, nullptr));
  LocalFree(descriptor);
  const ProxyValues user{Dword(0), Text(L"user-proxy:8080"), Text(L"*.corp")};
  WriteProxyValues(user);
  const SERVICE_STATUS running = StartThroughScm();
  ASSERT_EQ(running.dwCurrentState, DWORD{SERVICE_RUNNING});
  EXPECT_EQ(running.dwControlsAccepted, DWORD{SERVICE_ACCEPT_STOP});
  // Killed with its core running: the core goes with it. What the next start
  // puts back shows in the proxy the stop leaves below.
  ASSERT_EQ(Post("/start", Config()), kConnected);
  KillProcessesNamed(L"OrvelVpnHelper.exe");
  EXPECT_EQ(WaitUntilNoProcessNamed(L"sing-box.exe", 10000), 0);
  ASSERT_EQ(StartThroughScm().dwCurrentState, DWORD{SERVICE_RUNNING});

  // One refusal per route: it changes nothing (the running core and its
  // file stay, no process starts, the proxy is not touched) and is logged.
  ASSERT_EQ(Post("/start", Config()), kConnected);
  ResetTestRecords();
  const std::string refused = "configuration refused by the service: ";
  EXPECT_EQ(Post("/start-tun", tor),
            Answer("disconnected", refused + "outbounds[0].type is tor, which runs a program"));
  EXPECT_EQ(
      Post("/start", R"({"log":{"output":"C:\\Windows\\evil.txt"}})"),
      Answer("disconnected", refused + "log.output contains ':' (a drive, stream or device)"));
  const UrlTestStream stream = RunUrlTest(EncodeUrlTestBody(
      {"guarded", "http://cp.example.test/generate_204", {"delay-10", "delay-20"}, tor}, 2));
  EXPECT_EQ(stream.lines.at(0).first + stream.lines.at(1).first,
            R"({"nodeTag":"delay-10","delayMs":0}{"nodeTag":"delay-20","delayMs":0})");
  EXPECT_TRUE(LogHasLine("URLTest " + refused + "outbounds[0].type is tor, which runs a program"));
  EXPECT_EQ(ReadFileBytes(DataFile(L"sing-box.json")), Config());
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 1);
  EXPECT_EQ(ReadFileBytes(RecordPath(L"core-run.txt")) + ReadWininetCalls(), "");

  // Stopped through the SCM: the user's proxy is put back and the
  // notifications sent while the core still ran, then the core ends and the
  // port is closed.
  EXPECT_TRUE(StopThroughScm(OpenOurService()));
  EXPECT_EQ(ReadProxyValues(), user);
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  EXPECT_EQ(ReadWininetCalls() + ReadFileBytes(RecordPath(L"wininet-cores.txt")), "39\n37\n1\n1\n");
  EXPECT_FALSE(Pong());
}

// --- orvelctl -----------------------------------------------------------------
// What each command prints and its exit code, a whole URL test, and Ctrl-C
// during one.

// True when `text` is `pattern` with each '*' standing for any run of bytes.
bool Matches(std::string_view text, std::string_view pattern) {
  const std::size_t star = pattern.find('*');
  if (star == std::string_view::npos) return text == pattern;
  if (!text.starts_with(pattern.substr(0, star))) return false;
  for (std::size_t at = star; at <= text.size(); ++at) {
    if (Matches(text.substr(at), pattern.substr(star + 1))) return true;
  }
  return false;
}

const char kOrvelctlConfig[] = R"({// test nodes; the tags tell the core double how to answer
  "inbounds":[{"type":"mixed","tag":"orvel-vpn-mixed","listen":"127.0.0.1","listen_port":2080}],
  "outbounds":[{"type":"trojan","tag":"jp-02-delay-10"},{"type":"vmess","tag":"sg-03-exit-1"}],
  "experimental":{"clash_api":{"external_controller":"127.0.0.1:19090"}},
  "x-test-controller":{"up":1536,"down":2048,"uploadTotal":123,"downloadTotal":456}})";

// The Ctrl-C comes last, as it changes this process's console.
TEST_F(Helper, OrvelctlPrintsTheHelpersAnswersWithItsExitCodesAndCancelsOnCtrlC) {
  // orvelctl runs in this process's current directory.
  SetCurrentDirectoryW(helper.directory.c_str());
  WriteWholeFile(L"config.json", kOrvelctlConfig);
  WriteWholeFile(L"direct.json", R"({"outbounds":[{"type":"direct"}]})");
  // A peer that is no helper, for the one answer only it gives: a 200 whose
  // body has a space and control bytes. The harness has started Winsock.
  const SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  const sockaddr_in address{AF_INET, htons(17998), {}, {}};
  bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  listen(listener, 1);
  std::thread stranger([listener] {
    const SOCKET peer = accept(listener, nullptr, nullptr);
    char request[4096];
    recv(peer, request, sizeof(request), 0);
    send(peer, "HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\npo ng\x01\x7F~", 46, 0);
    closesocket(peer);
  });
  // Arguments, exit code, stdout and stderr ('*': any bytes).
  const std::tuple<std::wstring, DWORD, std::string, std::string> steps[] = {
      {L"ping", 0, "pong\n", ""},
      {L"status", 1, "disconnected: Windows helper idle\n", ""},
      {L"start missing.json", 4, "", "orvelctl: cannot read the configuration missing.json: *\n"},
      {L"start config.json", 0, "connected: Windows helper connected\n", ""},
      // The snapshot's endpoints are the machine's own; its figures are exact.
      {L"snapshot", 0,
       "upload    1.5 KiB/s     total 123 B\ndownload  2.0 KiB/s     total 456 B\n*", ""},
      {L"--address 127.0.0.1:17998 ping", 7, "",
       "orvelctl: unexpected answer from 127.0.0.1:17998 to GET /ping: \"po ng\\x01\\x7f~\"\n"},
      {L"stop", 0, "disconnected: Windows helper disconnected\n", ""},
      // The nodes are the configuration's proxies, the failure last.
      {L"urltest --url=http://cp.example.test/ config.json", 0,
       " #  node *\n 1  jp-02-delay-10 * ms\n 2  sg-03-exit-1 * failed\n"
       "2 of 2 nodes reported, 1 failed\n",
       ""},
      {L"urltest direct.json", 5, "", "orvelctl: direct.json: *\n"},
      {L"--address 127.0.0.1:17999 status", 3, "",
       "orvelctl: no helper answers on 127.0.0.1:17999 \xE2\x80\x94 is OrvelVpnHelper running?\n"},
      {L"logs --tun", 2, "", "orvelctl: logs does not take --tun (orvelctl logs --help)\n"},
      // logs prints the helper's log as it is.
      {L"logs", 0, "*] OrvelVpnHelper started\r\n*", ""},
  };
  for (const auto& [arguments, wantedCode, wantedOut, wantedErr] : steps) {
    const auto [exitCode, out, err] = RunProgram(BinDirectory() + L"\\orvelctl.exe", arguments);
    EXPECT_TRUE(exitCode == wantedCode && Matches(out, wantedOut) && Matches(err, wantedErr))
        << ToUtf8(arguments) << " -> " << exitCode << "\n"
        << out << err;
  }
  closesocket(listener);
  stranger.join();
  EXPECT_EQ(ReadFetchRecords().at(0).at("url"), "http://cp.example.test/");

  // Ctrl-C on a private console: it must reach orvelctl only, never the test
  // runner that shares ours; this process ignores it.
  FreeConsole();
  AllocConsole();
  SetConsoleCtrlHandler(nullptr, TRUE);
  ResetTestRecords();
  // The quick nodes' results arrive while the hanging ones are started.
  std::wstring tags = L" --tag a-delay-1 --tag b-delay-1";
  for (int i = 1; i <= 12; ++i) tags += L" --tag " + std::to_wstring(i) + L"-hang";
  const auto [exitCode, out, err] =
      RunProgram(BinDirectory() + L"\\orvelctl.exe", L"urltest config.json" + tags, 14);
  EXPECT_EQ(exitCode, 130u);
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  // What arrived is printed as a table and counted in the message (on a
  // loaded machine a hanging node may reach its 3 s limit before the cancel).
  const auto rows = std::to_string(std::ranges::count(out, '\n') - 2);
  EXPECT_TRUE(Matches(err, "orvelctl: cancelled test orvelctl-* after " + rows + " of 14 nodes\n"))
      << out << err;
}

}  // namespace
}  // namespace orvel::test
