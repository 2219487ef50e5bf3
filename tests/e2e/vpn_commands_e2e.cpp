// Start, TUN start, stop and status as the client uses them, against the real
// helper, the core double and the Wine registry: the answers byte for byte,
// the per-user proxy values with their types, the notification order, what
// the core was started with, and what is left behind after each refusal;
// and the same commands sent by a web page in the host's real browser.
#include <gtest/gtest.h>
#include <ws2tcpip.h>

#include <chrono>
#include <filesystem>
#include <system_error>
#include <thread>

#include "support/helper_process.h"
#include "support/http_client.h"
#include "support/proxy_registry.h"
#include "support/urltest_client.h"
#include "urltest/urltest_body.h"

namespace orvel::test {
namespace {

namespace fs = std::filesystem;

// What the user had before the helper touched anything.
const ProxyValues kUserProxy{Dword(1), Text(L"corp-proxy.example:8080"),
                             Text(L"*.corp.example;<local>")};
const ProxyValues kNothingSet{Absent(), Absent(), Absent()};

// A configuration shaped like the client's, with bytes that any re-encoding
// would change (CRLF, tab, UTF-8, a NUL and a 0xFF at the end).
std::string Config(std::string_view behaviour = {}, std::string_view portMember = "2080") {
  std::string config =
      "{\"log\":{\"level\":\"info\"},\r\n"
      " \"inbounds\":[{\"type\":\"mixed\",\"tag\":\"orvel-vpn-mixed\",\"listen\":\"127.0.0.1\"";
  if (!portMember.empty()) config += ",\"listen_port\":" + std::string(portMember);
  config += "}],\r\n\t\"outbounds\":[{\"type\":\"direct\",\"tag\":\"\xE6\x97\xA5\xE6\x9C\xAC\"}]";
  if (!behaviour.empty()) config += ",\"x-test-double\":\"" + std::string(behaviour) + "\"";
  config += "}\n";
  config += std::string("\0\xFF", 2);
  return config;
}

std::string JsonAnswer(std::string_view body) {
  return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + std::string(body);
}

std::string StatusBody(std::string_view status, std::string_view message) {
  return "{\"status\":\"" + std::string(status) + "\",\"platform\":\"windows\",\"message\":\"" +
         std::string(message) + "\"}";
}

const std::string kConnected = StatusBody("connected", "Windows helper connected");
const std::string kTunConnected = StatusBody("connected", "Windows TUN helper connected");
const std::string kDisconnected = StatusBody("disconnected", "Windows helper disconnected");
const std::string kRunning = StatusBody("connected", "Windows helper running");
const std::string kIdle = StatusBody("disconnected", "Windows helper idle");
const std::string kEmptyBody =
    StatusBody("disconnected", "Empty subscription config or runtime config");

std::string Logs() { return Request("GET", "/logs").body; }
std::string Post(std::string_view path, std::string_view body = {}) {
  std::string raw = ExchangeRaw(BuildRequest("POST", path, body)).raw;
  // Every command answers; silence means the helper is stuck, and its log
  // tells how far it got.
  if (raw.empty()) ADD_FAILURE() << "no answer to POST " << path << "; log:\n" << Logs();
  return raw;
}
std::string Status() { return Request("GET", "/status").raw; }
bool LogHasLine(std::string_view message) {
  return Logs().find("] " + std::string(message) + "\r\n") != std::string::npos;
}
int Cores() { return CountProcessesNamed(L"sing-box.exe"); }
std::wstring ProxyStateFile() { return HelperDataDirectory() + L"\\proxy-state.txt"; }
// The processes of a killed helper end with it, but not at the same instant.
int CoresLeftAfterAWhile() {
  for (int i = 0; i < 400 && Cores() > 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  return Cores();
}

class VpnCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetTestRecords();
    WriteProxyValues(kNothingSet);
    ASSERT_TRUE(helper.Start(CorePlacement::kBesideExe)) << helper.error;
  }
  void TearDown() override {
    helper.Stop();
    ResetTestRecords();
    WriteProxyValues(kNothingSet);
  }
  ScopedHelper helper;
};

TEST_F(VpnCommands, ProxyStartPointsTheSystemProxyAtTheCore) {
  const std::string config = Config();
  // Raw exchange: the answer must end with end-of-stream although the core
  // keeps running, i.e. the core holds no copy of the client's socket.
  SOCKET s = ConnectLoopback(kHelperPort, 10000);
  ASSERT_NE(s, INVALID_SOCKET);
  ASSERT_TRUE(SendAll(s, BuildRequest("POST", "/start", config)));
  bool closedByPeer = false;
  EXPECT_EQ(ReadToEnd(s, &closedByPeer), JsonAnswer(kConnected));
  closesocket(s);
  EXPECT_TRUE(closedByPeer) << "the connection stayed open after the answer";
  EXPECT_EQ(Cores(), 1);

  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n");  // settings changed, then refresh
  const std::wstring configPath = HelperDataDirectory() + L"\\sing-box.json";
  EXPECT_EQ(ReadFileBytes(configPath), config);

  auto invocation = ReadCoreInvocation();
  std::string commandLine = "\"";
  commandLine += ToUtf8(helper.directory) + "\\sing-box.exe\" run -c \"";
  commandLine += ToUtf8(configPath) + "\"";
  EXPECT_EQ(invocation["commandLine"], commandLine);
  EXPECT_EQ(invocation["workingDirectory"], ToUtf8(HelperDataDirectory()));
  EXPECT_EQ(invocation["ENABLE_DEPRECATED_LEGACY_DNS_SERVERS"], "true");
  EXPECT_EQ(invocation["ENABLE_DEPRECATED_OUTBOUND_DNS_RULE_ITEM"], "true");
  EXPECT_EQ(invocation["ENABLE_DEPRECATED_MISSING_DOMAIN_RESOLVER"], "true");

  EXPECT_TRUE(LogHasLine("VPN started through OrvelVpnHelper"));
  EXPECT_EQ(Status(), JsonAnswer(kRunning));
}

TEST_F(VpnCommands, StopPutsBackExactlyWhatTheUserHad) {
  struct Case {
    const char* name;
    ProxyValues before;
    ProxyValues after;
  } cases[] = {
      // An absent ProxyEnable comes back as 0; absent strings stay absent.
      {"nothing set", kNothingSet, {Dword(0), Absent(), Absent()}},
      {"user proxy and bypass list", kUserProxy, kUserProxy},
      // An expandable string returns as a plain one; an empty one is deleted.
      {"expandable server, empty bypass",
       {Dword(0), Text(L"%PROXYHOST%:3128", REG_EXPAND_SZ), Text(L"")},
       {Dword(0), Text(L"%PROXYHOST%:3128"), Absent()}},
      {"values that are not strings",
       {Dword(7), Dword(5), Dword(6)},
       {Dword(7), Absent(), Absent()}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ResetTestRecords();
    WriteProxyValues(c.before);
    ASSERT_EQ(Post("/start", Config()), JsonAnswer(kConnected));
    EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
    EXPECT_EQ(Post("/stop"), JsonAnswer(kDisconnected));
    EXPECT_EQ(ReadProxyValues(), c.after);
    EXPECT_EQ(ReadWininetCalls(), "39\n37\n39\n37\n");
    EXPECT_EQ(Cores(), 0);
    EXPECT_EQ(Status(), JsonAnswer(kIdle));
  }
}

TEST_F(VpnCommands, StartOverARunningProxyStartRestoresFirst) {
  WriteProxyValues(kUserProxy);
  ASSERT_EQ(Post("/start", Config()), JsonAnswer(kConnected));
  // No listen_port: the default mixed port. The snapshot taken now must be
  // the user's values (put back first), not those of the previous run.
  ASSERT_EQ(Post("/start", Config({}, {})), JsonAnswer(kConnected));
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(7897));
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n39\n37\n39\n37\n");
  EXPECT_EQ(Cores(), 1);
  EXPECT_EQ(Post("/stop"), JsonAnswer(kDisconnected));
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
}

TEST_F(VpnCommands, StopWithNothingRunningStillAnswersAndLogs) {
  WriteProxyValues(kUserProxy);
  EXPECT_EQ(Status(), JsonAnswer(kIdle));
  EXPECT_EQ(Post("/stop"), JsonAnswer(kDisconnected));
  EXPECT_EQ(Post("/stop"), JsonAnswer(kDisconnected));
  EXPECT_TRUE(LogHasLine("VPN stopped through OrvelVpnHelper"));
  // Nothing was saved, so the registry was neither written nor announced.
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(ReadWininetCalls(), "");
}

TEST_F(VpnCommands, TunStartLeavesTheSystemProxyAlone) {
  WriteProxyValues(kUserProxy);
  EXPECT_EQ(Post("/start-tun", Config()), JsonAnswer(kTunConnected));
  EXPECT_EQ(Cores(), 1);
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(ReadWininetCalls(), "");
  EXPECT_EQ(ReadFileBytes(HelperDataDirectory() + L"\\sing-box.json"), Config());
  EXPECT_TRUE(LogHasLine("TUN VPN started through OrvelVpnHelperService"));
  EXPECT_EQ(Status(), JsonAnswer(kRunning));
  EXPECT_EQ(Post("/stop"), JsonAnswer(kDisconnected));
  EXPECT_EQ(Cores(), 0);
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(ReadWininetCalls(), "");
}

TEST_F(VpnCommands, TunStartAfterProxyModePutsTheUserSettingsBack) {
  WriteProxyValues(kUserProxy);
  ASSERT_EQ(Post("/start", Config()), JsonAnswer(kConnected));
  EXPECT_EQ(Post("/start-tun", Config()), JsonAnswer(kTunConnected));
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n39\n37\n");
  EXPECT_EQ(Cores(), 1);
  EXPECT_EQ(Status(), JsonAnswer(kRunning));
}

TEST_F(VpnCommands, EmptyBodyIsRefusedAndTheRunningCoreKeepsRunning) {
  ASSERT_EQ(Post("/start", Config()), JsonAnswer(kConnected));
  EXPECT_EQ(Post("/start"), JsonAnswer(kEmptyBody));
  EXPECT_EQ(Post("/start-tun"), JsonAnswer(kEmptyBody));
  EXPECT_EQ(Cores(), 1);
  EXPECT_EQ(Status(), JsonAnswer(kRunning));
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n");
}

TEST_F(VpnCommands, CoreThatDiesAtOnceIsExplainedByItsOutput) {
  const std::string fatal1 = "FATAL[0000] decode config: json: unknown field \"x-test-double\"";
  const std::string fatal2 =
      "FATAL[0000] start service: start inbound/mixed[mixed-in]: listen tcp 127.0.0.1:2080";
  const std::string fatal3 = "FATAL[0000] exit status 1";
  const std::string red = "\x1b[31mFATAL\x1b[0m";
  struct Case {
    std::string_view behaviour;
    std::string_view path;
    std::string summary;  // as logged, before JSON escaping
  } cases[] = {
      {"fatal3", "/start",
       red + fatal1.substr(5) + " " + red + fatal2.substr(5) + " " + red + fatal3.substr(5) + " "},
      {"fatal3-plain", "/start-tun", fatal1 + " " + fatal2 + " " + fatal3 + " "},
      {"silent", "/start", "<empty>"},
      {"flood", "/start", std::string(900, 'F') + "..."},
  };
  WriteProxyValues(kUserProxy);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.behaviour);
    const std::string message = "sing-box.exe exited immediately: " + c.summary;
    std::string escaped = message;
    for (std::size_t at = escaped.find('"'); at != std::string::npos;
         at = escaped.find('"', at + 2)) {
      escaped.insert(at, 1, '\\');
    }
    EXPECT_EQ(Post(c.path, Config(c.behaviour)), JsonAnswer(StatusBody("disconnected", escaped)));
    EXPECT_TRUE(LogHasLine(message));
    EXPECT_EQ(Cores(), 0);
    EXPECT_EQ(Status(), JsonAnswer(kIdle));
    EXPECT_EQ(ReadProxyValues(), kUserProxy);
  }
  EXPECT_EQ(ReadWininetCalls(), "");
}

TEST_F(VpnCommands, ProxyThatCannotBeSetStopsTheCoreAndRestores) {
  WriteProxyValues(kUserProxy);
  SetWininetFailing(true);
  // The enable fails at its notification, and so does the restore after it,
  // whose message replaces the enable's.
  const std::string message = "Failed to restore Windows system proxy";
  EXPECT_EQ(Post("/start", Config()), JsonAnswer(StatusBody("disconnected", message)));
  EXPECT_TRUE(LogHasLine(message));
  EXPECT_EQ(Cores(), 0);
  EXPECT_EQ(Status(), JsonAnswer(kIdle));
  // The values were written back even though the announcement failed...
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(ReadWininetCalls(), "39\n39\n");
  // ...and the snapshot is kept, so the next stop restores and announces.
  SetWininetFailing(false);
  EXPECT_EQ(Post("/stop"), JsonAnswer(kDisconnected));
  EXPECT_EQ(ReadWininetCalls(), "39\n39\n39\n37\n");
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(Post("/stop"), JsonAnswer(kDisconnected));
  EXPECT_EQ(ReadWininetCalls(), "39\n39\n39\n37\n");
}

TEST_F(VpnCommands, FileSystemRefusalsComeBeforeTheCoreAndAreNotLogged) {
  WriteProxyValues(kUserProxy);
  const std::wstring data = HelperDataDirectory();
  std::error_code ec;

  // A folder where the configuration file goes.
  fs::create_directories(data + L"\\sing-box.json");
  const std::string writeFailed = "Failed to write sing-box config";
  EXPECT_EQ(Post("/start", Config()), JsonAnswer(StatusBody("disconnected", writeFailed)));
  EXPECT_FALSE(LogHasLine(writeFailed));

  // A file where the data directory goes: the system's text for the code.
  fs::remove_all(data, ec);
  ASSERT_TRUE(WriteFileText(data, "in the way"));
  const std::string exists = std::system_category().message(ERROR_ALREADY_EXISTS);
  ASSERT_FALSE(exists.empty());
  EXPECT_EQ(Post("/start-tun", Config()), JsonAnswer(StatusBody("disconnected", exists)));
  EXPECT_FALSE(LogHasLine(exists));
  fs::remove(data, ec);

  EXPECT_EQ(ReadCoreInvocation().size(), 0u);
  EXPECT_EQ(Cores(), 0);
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(ReadWininetCalls(), "");
}

TEST_F(VpnCommands, CoreThatDiesLaterMakesStatusIdle) {
  ASSERT_EQ(Post("/start", Config("die-after-1000")), JsonAnswer(kConnected));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (Cores() > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ASSERT_EQ(Cores(), 0);
  EXPECT_EQ(Status(), JsonAnswer(kIdle));
  // Nobody watches the core: the system proxy stays set until a stop.
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
  EXPECT_EQ(Post("/stop"), JsonAnswer(kDisconnected));
  EXPECT_EQ(ReadProxyValues(), (ProxyValues{Dword(0), Absent(), Absent()}));
}

TEST_F(VpnCommands, CommandsAnswerOnlyTheirOwnMethod) {
  const std::string notFound =
      "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 9\r\n"
      "Connection: close\r\n\r\nnot found";
  EXPECT_EQ(ExchangeRaw(BuildRequest("GET", "/start")).raw, notFound);
  EXPECT_EQ(ExchangeRaw(BuildRequest("GET", "/stop")).raw, notFound);
  EXPECT_EQ(ExchangeRaw(BuildRequest("POST", "/status")).raw, notFound);
  EXPECT_EQ(ExchangeRaw(BuildRequest("POST", "/start-tun/")).raw, notFound);
  // Bodies of stop and status are ignored.
  EXPECT_EQ(ExchangeRaw(BuildRequest("GET", "/status", "x")).raw, JsonAnswer(kIdle));
  EXPECT_EQ(Post("/stop", "x"), JsonAnswer(kDisconnected));
}

TEST_F(VpnCommands, KilledHelperTakesItsProcessesAlongAndTheNextPutsTheProxyBack) {
  const ProxyValues userOwn{Dword(0), Text(L"home-proxy:3128"), Absent()};
  struct Case {
    const char* name;
    const ProxyValues* changedMeanwhile;
    const ProxyValues& after;
    const char* wininetCalls;
    const char* logLine;
  } cases[] = {
      {"registry as the helper left it", nullptr, kUserProxy, "39\n37\n39\n37\n",
       "Restored the proxy settings saved before the helper last ended"},
      {"user set their own proxy meanwhile", &userOwn, userOwn, "39\n37\n",
       "System proxy changed since the helper last set it; kept it and removed the saved proxy "
       "settings"},
  };
  UrlTestRequest urltest{"crash", "http://cp.example.test/", {}, "{}"};
  for (int i = 1; i <= 12; ++i) urltest.nodeTags.push_back(std::to_string(i) + "-hang");
  HelperOptions keepData;
  keepData.keepDataDirectory = true;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ResetTestRecords();
    ClearFetchRecords();
    WriteProxyValues(kUserProxy);
    ASSERT_EQ(Post("/start", Config()), JsonAnswer(kConnected));
    const SOCKET stream = StartUrlTest(EncodeUrlTestBody(urltest, 2));
    ASSERT_EQ(WaitForFetchRecords(12, 15000).size(), 12u);
    ASSERT_EQ(Cores(), 13);
    // The harness's own job stays open: only the helper's job can end them.
    helper.Kill();
    closesocket(stream);
    EXPECT_EQ(CoresLeftAfterAWhile(), 0);
    EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
    EXPECT_TRUE(fs::exists(ProxyStateFile()));

    if (c.changedMeanwhile != nullptr) WriteProxyValues(*c.changedMeanwhile);
    helper.Stop();
    ASSERT_TRUE(helper.Start(keepData)) << helper.error;
    EXPECT_EQ(ReadProxyValues(), c.after);
    EXPECT_FALSE(fs::exists(ProxyStateFile()));
    EXPECT_TRUE(LogHasLine(c.logLine)) << Logs();
    EXPECT_EQ(ReadWininetCalls(), c.wininetCalls);
  }
}

TEST_F(VpnCommands, UnreadableSavedProxyFileIsRemovedAndTheRegistryLeftAlone) {
  const std::string whole =
      "orvel-proxy-state 1\nProxyEnable=0\nProxyServer=\nProxyOverride=\nHelperProxyServer="
      "http=127.0.0.1:2080;https=127.0.0.1:2080;socks=127.0.0.1:2080\nend\n";
  const std::string cases[] = {
      whole.substr(0, whole.size() - 4),                                        // truncated
      std::string(whole).replace(whole.find("Server=\n"), 8, "Server=\x01\n"),  // garbled
      "",
  };
  HelperOptions keepData;
  keepData.keepDataDirectory = true;
  helper.Stop();
  for (const std::string& bytes : cases) {
    SCOPED_TRACE(bytes);
    ResetTestRecords();
    // Just as a helper leaves the registry: only the file can tell.
    WriteProxyValues(HelperProxyValues(2080));
    fs::create_directories(HelperDataDirectory());
    ASSERT_TRUE(WriteFileText(ProxyStateFile(), bytes));
    ASSERT_TRUE(helper.Start(keepData)) << helper.error;
    EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
    EXPECT_EQ(ReadWininetCalls(), "");
    EXPECT_FALSE(fs::exists(ProxyStateFile()));
    EXPECT_TRUE(
        LogHasLine("Removed an unreadable saved proxy settings file; system proxy left as it is"));
    EXPECT_EQ(Status(), JsonAnswer(kIdle));
    helper.Stop();
  }
}

TEST_F(VpnCommands, EndingTheHelperEndsItsCore) {
  // Guards the harness: a core left behind would disturb the next test.
  ASSERT_EQ(Post("/start-tun", Config()), JsonAnswer(kTunConnected));
  ASSERT_EQ(Cores(), 1);
  helper.Stop();
  EXPECT_EQ(Cores(), 0);
}

TEST_F(VpnCommands, BrowserMarksAreRefusedAndOtherClientsAnsweredAsBefore) {
  const std::string config = Config();
  const std::string length = "Content-Length: " + std::to_string(config.size()) + "\r\n";
  const std::string forbidden =
      "HTTP/1.1 403 Forbidden\r\nContent-Type: text/plain\r\nContent-Length: 9\r\n"
      "Connection: close\r\n\r\nforbidden";
  struct Case {
    const char* client;
    std::string request;
    std::string answer;
  } cases[] = {
      {"DNS rebinding", "GET /logs HTTP/1.1\r\nHost: rebind.example:17891\r\n\r\n", forbidden},
      {"sandboxed page",
       "POST /start HTTP/1.1\r\nHost: 127.0.0.1:17891\r\nOrigin: null\r\n" + length + "\r\n" +
           config,
       forbidden},
      // The exact header sets these clients send.
      {"curl",
       "POST /start HTTP/1.1\r\nHost: 127.0.0.1:17891\r\nUser-Agent: curl/7.88.1\r\nAccept: "
       "*/*\r\n" +
           length + "Content-Type: application/x-www-form-urlencoded\r\n\r\n" + config,
       JsonAnswer(kConnected)},
      {"Node fetch",
       "GET /status HTTP/1.1\r\nhost: 127.0.0.1:17891\r\nconnection: keep-alive\r\naccept: */*\r\n"
       "accept-language: *\r\nsec-fetch-mode: cors\r\nuser-agent: node\r\n"
       "accept-encoding: gzip, deflate\r\n\r\n",
       JsonAnswer(kRunning)},
      {"desktop framework",
       "POST /stop HTTP/1.1\r\norigin: http://tauri.localhost\r\nuser-agent: OrvelVPN/2.4.0\r\n"
       "accept: */*\r\nhost: 127.0.0.1:17891\r\ncontent-length: 0\r\n\r\n",
       JsonAnswer(kDisconnected)},
  };
  for (const Case& c : cases) EXPECT_EQ(ExchangeRaw(c.request).raw, c.answer) << c.client;
  EXPECT_TRUE(LogHasLine("Refused GET /logs: Host \"rebind.example:17891\""));
  EXPECT_TRUE(LogHasLine("Refused POST /start: Origin \"null\""));
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n39\n37\n");  // curl's start, the framework's stop
}

// Serves the attacking page and notes when the page says it has finished.
// Runs until the listener is closed.
void ServePage(SOCKET listener, std::string_view page, HANDLE finished) {
  for (SOCKET s; (s = accept(listener, nullptr, nullptr)) != INVALID_SOCKET; closesocket(s)) {
    const DWORD timeoutMs = 10000;
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeoutMs),
               sizeof(timeoutMs));
    std::string head;
    char chunk[4096];
    for (int got; head.find("\r\n\r\n") == std::string::npos &&
                  (got = recv(s, chunk, sizeof(chunk), 0)) > 0;) {
      head.append(chunk, static_cast<std::size_t>(got));
    }
    std::string body;
    if (head.starts_with("GET / ")) body = page;
    if (head.starts_with("GET /finished ")) SetEvent(finished);
    SendAll(s, "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nContent-Length: " +
                   std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
  }
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

TEST_F(VpnCommands, WebPageInARealBrowserChangesNothing) {
  // The host's chromium is started through Wine: a Unix program given to
  // CreateProcessW runs as a host process, but Wine returns no handle for it
  // and passes on only its standard output, so `timeout` bounds its life, the
  // page reports its end to our server, and errors are sent to the output.
  if (GetProcAddress(GetModuleHandleW(L"ntdll"), "wine_get_version") == nullptr) {
    GTEST_SKIP() << "drives the host's chromium through Wine";
  }
  WriteProxyValues(kUserProxy);
  ASSERT_EQ(Post("/start", Config()), JsonAnswer(kConnected));

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
  std::thread server(ServePage, listener, kAttackingPage, finished);

  const std::wstring outputPath = BinDirectory() + L"\\browser-output.txt";
  SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
  HANDLE output = CreateFileW(outputPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit,
                              CREATE_ALWAYS, 0, nullptr);
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = startup.hStdError = output;
  std::wstring commandLine =
      L"sh -c \"exec 2>&1; profile=$(mktemp -d) && timeout -k 5 90 chromium --headless "
      L"--no-sandbox "
      L"--disable-gpu --disable-quic --no-first-run --disable-background-networking "
      L"--disable-component-update --disable-sync --user-data-dir=$profile "
      L"--virtual-time-budget=5000 --dump-dom " +
      FromUtf8(origin) + L"/; rm -rf $profile\"";
  PROCESS_INFORMATION browser{};
  const BOOL launched = CreateProcessW(L"Z:\\bin\\sh", commandLine.data(), nullptr, nullptr, TRUE,
                                       0, nullptr, nullptr, &startup, &browser);
  CloseHandle(output);
  const bool pageFinished = launched && WaitForSingleObject(finished, 120000) == WAIT_OBJECT_0;
  closesocket(listener);
  server.join();
  CloseHandle(finished);
  ASSERT_TRUE(pageFinished) << "chromium did not finish the page; its output:\n"
                            << ReadFileBytes(outputPath);

  for (std::string_view path : {"/stop", "/start", "/start-tun"}) {
    EXPECT_TRUE(LogHasLine("Refused POST " + std::string(path) + ": Origin \"" + origin + "\""));
  }
  EXPECT_TRUE(LogHasLine("Refused GET /status: Sec-Fetch-Site \"cross-site\""));
  EXPECT_FALSE(LogHasLine("VPN stopped through OrvelVpnHelper"));
  EXPECT_FALSE(LogHasLine("TUN VPN started through OrvelVpnHelperService"));
  EXPECT_EQ(ReadFileBytes(HelperDataDirectory() + L"\\sing-box.json"), Config());
  EXPECT_EQ(Cores(), 1);
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n");
  EXPECT_EQ(Status(), JsonAnswer(kRunning));
}

}  // namespace
}  // namespace orvel::test
