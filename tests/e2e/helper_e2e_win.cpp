// What only the Windows build has, against the same helper and Wine's
// registry: the per-user proxy values with their types and the notification
// order, the crash recovery of a killed helper and its job object, and the
// service under Wine's Service Control Manager.
#include "e2e/helper_e2e.h"
// After windows.h, which the harness brings in.
#include <sddl.h>
#include <winver.h>

#include <algorithm>
#include <memory>
#include <type_traits>

#include "entry/service_host.h"
#include "version.h"

namespace orvel::test {

const ProxyValues kUserProxy{Dword(1), Text(L"corp-proxy.example:8080"),
                             Text(L"*.corp.example;<local>")};
const ProxyValues kNothingSet{Absent(), Absent(), Absent()};

void ResetUserProxy() { WriteProxyValues(kNothingSet); }
void SetUserProxy() { WriteProxyValues(kUserProxy); }
void ExpectUserProxyUntouched() {
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(ReadWininetCalls(), "");
}
// Wine gives every endpoint to process 0; the entries are still listed.
const bool kListsSocketOwners = true;

std::thread ServeOneAnswer(unsigned short port, std::string answer) {
  // The harness has started Winsock.
  const SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  const sockaddr_in address{AF_INET, htons(port), {}, {}};
  bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  listen(listener, 1);
  return std::thread([listener, answer] {
    fd_set waiting;
    FD_ZERO(&waiting);
    FD_SET(listener, &waiting);
    timeval bound{30, 0};
    const SOCKET peer = select(0, &waiting, nullptr, nullptr, &bound) == 1
                            ? accept(listener, nullptr, nullptr)
                            : INVALID_SOCKET;
    const DWORD boundMs = 30000;
    setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&boundMs),
               sizeof(boundMs));
    char request[4096];
    recv(peer, request, sizeof(request), 0);
    send(peer, answer.data(), static_cast<int>(answer.size()), 0);
    closesocket(peer);
    closesocket(listener);
  });
}

// A private console: Ctrl-C must reach the program only, never the test
// runner that shares ours; this process ignores it.
void PrepareToInterruptChildren() {
  FreeConsole();
  AllocConsole();
  SetConsoleCtrlHandler(nullptr, TRUE);
}

namespace {

int Cores() { return CountCores(); }
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

TEST_F(Helper, ProxyStartPointsTheSystemProxyAtTheCore) {
  ASSERT_EQ(Post("/start", Config()), kConnected);
  ExpectLeft(HelperProxyValues(2080), "39\n37\n", 1);  // settings changed, then refresh
  EXPECT_EQ(ReadFileBytes(DataFile(L"sing-box.json")), Config());
  auto run = CoreRun();
  EXPECT_EQ(run["commandLine"],
            CoreRunCommandLine(helper.directory + L"\\sing-box.exe", DataFile(L"sing-box.json")));
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

TEST_F(Helper, FailedProxyAnnouncementsLeaveTheUsersValues) {
  WriteProxyValues(kUserProxy);
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
    // Once the first test process runs, the others get 2 s more: under a
    // loaded Wine a late one may reach its 3 s limit before it writes its
    // record, and waiting longer for it would let the early ones reach theirs.
    ASSERT_FALSE(WaitForFetchRecords(1, 15000).empty());
    WaitForFetchRecords(12, 2000);
    ASSERT_GT(Cores(), 1);
    // The harness's own job stays open: only the helper's job can end them.
    helper.Kill();
    EXPECT_EQ(WaitUntilNoCore(10000), 0);
    EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
    EXPECT_TRUE(fs::exists(DataFile(L"proxy-state.txt")));
    if (c.after != kUserProxy) WriteProxyValues(c.after);
    ASSERT_TRUE(Restart(CorePlacement::kBesideExe, {}, true)) << helper.error;
    EXPECT_EQ(ReadProxyValues(), c.after);
    EXPECT_FALSE(fs::exists(DataFile(L"proxy-state.txt")));
    EXPECT_TRUE(LogHasLine(c.logLine)) << Logs();
    EXPECT_EQ(ReadWininetCalls(), c.wininetCalls);
  }
  // A restore at start-up that fails is logged and left, file and all, to
  // the next stop.
  WriteProxyValues(kUserProxy);
  ASSERT_EQ(Post("/start", Config()), kConnected);
  helper.Kill();
  SetWininetFailing(true);
  ASSERT_TRUE(Restart(CorePlacement::kBesideExe, {}, true)) << helper.error;
  EXPECT_TRUE(
      LogHasLine("Proxy settings saved before the helper last ended not restored yet: "
                 "Failed to restore Windows system proxy"));
  EXPECT_TRUE(fs::exists(DataFile(L"proxy-state.txt")));
  SetWininetFailing(false);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_FALSE(fs::exists(DataFile(L"proxy-state.txt")));
  // A state file that cannot be written costs the crash recovery, not the
  // start: the values still go back at the stop.
  fs::create_directories(DataFile(L"proxy-state.txt"));
  EXPECT_EQ(Post("/start", Config()), kConnected);
  EXPECT_NE(Logs().find("] Crash recovery is off for this start: the saved proxy settings could "
                        "not be written: "),
            std::string::npos);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  fs::remove_all(DataFile(L"proxy-state.txt"));
}

// The user's values come back when the session ends under a running helper,
// and at the next logon after a helper killed while they were set: Wine's
// wineboot sends the session-end messages (-e) and runs HKCU's Run entries
// (plain). Wine waits for ever on a window that never answers, so the
// session end runs under RunProgram's time limit.
TEST_F(Helper, SessionEndAndTheNextLogonPutTheUsersProxyBack) {
  const auto runEntry = [] {
    wchar_t text[1024] = {};
    DWORD bytes = sizeof(text);
    return RegGetValueW(HKEY_CURRENT_USER, L"Software\\Microsoft\\Windows\\CurrentVersion\\Run",
                        L"OrvelVpnHelperRestoreProxy", RRF_RT_REG_SZ, nullptr, text,
                        &bytes) == ERROR_SUCCESS
               ? std::wstring(text)
               : std::wstring();
  };
  wchar_t system[MAX_PATH] = {};
  GetSystemDirectoryW(system, MAX_PATH);
  const fs::path wineboot = fs::path(system) / L"wineboot.exe";
  WriteProxyValues(kUserProxy);
  ASSERT_EQ(Post("/start", Config()), kConnected);
  EXPECT_EQ(runEntry(), L"\"" + helper.ExePath().wstring() + L"\" --restore-proxy");
  EXPECT_EQ(std::get<0>(RunProgram(wineboot, {"--end-session"})), 0u);
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(CountCores(), 0);
  EXPECT_EQ(runEntry(), L"");

  ASSERT_TRUE(Restart()) << helper.error;
  ASSERT_EQ(Post("/start", Config()), kConnected);
  helper.Kill();
  EXPECT_EQ(std::get<0>(RunProgram(wineboot, {})), 0u);
  // Run entries start without being waited for; the one started ends by
  // itself without serving.
  for (int i = 0; i < 400 && (!runEntry().empty() || CountProcessesNamed(L"OrvelVpnHelper.exe"));
       ++i) {
    Sleep(25);
  }
  EXPECT_EQ(CountProcessesNamed(L"OrvelVpnHelper.exe"), 0);
  EXPECT_EQ(runEntry(), L"");
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
}

// --- The service --------------------------------------------------------------

using ScHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, decltype(&CloseServiceHandle)>;

ScHandle OpenOurService() {
  const ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS),
                         CloseServiceHandle);
  return ScHandle(OpenServiceW(manager.get(), L"OrvelVpnHelperService", SERVICE_ALL_ACCESS),
                  CloseServiceHandle);
}

// Polls `check` for up to `seconds`.
template <typename Check>
bool WaitFor(Check check, int seconds = 10) {
  for (int i = 0; i < seconds * 40 && !check(); ++i) Sleep(25);
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
  // A core where only a search finds it: the system folder, which the search
  // path of every Windows holds and which is the service's current directory.
  wchar_t system[MAX_PATH] = {};
  const fs::path searchedCore =
      fs::path(std::wstring(system, GetSystemDirectoryW(system, MAX_PATH))) / kCoreFileName;
  struct Cleanup {
    const fs::path& searchedCore;
    ~Cleanup() {
      RemoveService();
      KillProcessesNamed(L"OrvelVpnHelper.exe");
      ForgetLastStartedService();
      fs::remove(searchedCore);
    }
  } cleanup{searchedCore};
  RemoveService();
  // The stand-alone helper runs what the service refuses below.
  const std::string tor =
      R"({"outbounds":[{"type":"tor","tag":"t","executable_path":"C:\\Windows\\System32\\calc.exe"}]})";
  EXPECT_EQ(Post("/start-tun", tor), kTunConnected);
  // Beside a running helper: installer mode takes no mutex.
  ASSERT_EQ(
      std::get<0>(RunProgram(helper.ExePath(), {"xx--install-serviceyy", "and", "more", "words"})),
      0u);
  ASSERT_NE(OpenOurService(), nullptr);
  // Installer mode starts no server of its own.
  helper.Stop();
  ASSERT_EQ(std::get<0>(RunProgram(helper.ExePath(), {"before", "--install-service"})), 0u);
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
      L"\"" + helper.ExePath().wstring() +
          L"\"|Orvel VPN Helper Service|Runs sing-box TUN mode for Orvel VPN.|LocalSystem|2161");
  // Wine's SCM keeps neither failure actions nor service security, so only
  // the security text is checked: one that does not convert makes the
  // installer skip the step silently.
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(
      kServiceSecurityDescriptor, SDDL_REVISION_1, &descriptor, nullptr));
  // The last entry: interactive users may query, start and stop, no more.
  BOOL present = FALSE, defaulted = FALSE;
  PACL dacl = nullptr;
  ACCESS_ALLOWED_ACE* ace = nullptr;
  EXPECT_TRUE(GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted) &&
              GetAce(dacl, dacl->AceCount - 1, reinterpret_cast<void**>(&ace)) &&
              IsWellKnownSid(&ace->SidStart, WinInteractiveSid) &&
              ace->Mask == (SERVICE_QUERY_STATUS | SERVICE_START | SERVICE_STOP));
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
  EXPECT_EQ(WaitUntilNoCore(10000), 0);
  ASSERT_EQ(StartThroughScm().dwCurrentState, DWORD{SERVICE_RUNNING});
  const fs::path orvelctl = fs::path(BinDirectory()) / kOrvelctlFileName;
  EXPECT_EQ(std::get<1>(RunProgram(orvelctl, {"--address", "[::1]:17891", "ping"})), "pong\n");

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
  EXPECT_EQ(Post("/start", R"({"experimental":{"clash_api":{"external_controller":":9090"}}})"),
            Answer("disconnected", refused + "experimental.clash_api.external_controller listens "
                                             "beyond the loopback address"));
  const UrlTestStream stream = RunUrlTest(EncodeUrlTestBody(
      {"guarded", "http://cp.example.test/generate_204", {"delay-10", "delay-20"}, tor}, 2));
  EXPECT_EQ(stream.lines.at(0).first + stream.lines.at(1).first,
            R"({"nodeTag":"delay-10","delayMs":0}{"nodeTag":"delay-20","delayMs":0})");
  EXPECT_TRUE(LogHasLine("URLTest " + refused + "outbounds[0].type is tor, which runs a program"));
  EXPECT_EQ(ReadFileBytes(DataFile(L"sing-box.json")), kPlainConfig);
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 1);
  EXPECT_EQ(ReadFileBytes(RecordPath("core-run.txt")) + ReadWininetCalls(), "");
  // A URL test the service refuses starts nothing. In one it runs, quotes, a
  // trailing backslash and spaces stay inside their own argument of the core.
  const UrlTestStream scheme =
      RunUrlTest(EncodeUrlTestBody({"scheme", "file:///C:/windows/win.ini", {"a"}, "{}"}, 2));
  EXPECT_EQ(scheme.lines.at(0).first, R"({"nodeTag":"a","delayMs":0})");
  EXPECT_TRUE(ReadFetchRecords().empty());
  EXPECT_TRUE(LogHasLine(
      "URLTest refused by the service: the test URL is not an http:// or https:// address"));
  const std::string injected = R"(proxy" -c "C:\users\Public\evil.json" -D "C:\windows\system32)";
  const std::string trailing = R"(trail\)", spaced = "http://cp.example.test/a b";
  RunUrlTest(EncodeUrlTestBody({"quoted", spaced, {injected, trailing}, "{}"}, 2));
  std::vector<std::string> arguments;
  for (const FetchRecord& r : ReadFetchRecords())
    arguments.push_back(r.at("tag") + "|" + r.at("url"));
  std::ranges::sort(arguments);
  EXPECT_EQ(arguments,
            (std::vector<std::string>{injected + "|" + spaced, trailing + "|" + spaced}));

  // Stopped through the SCM: the user's proxy is put back and the
  // notifications sent while the core still ran, then the core ends and the
  // port is closed.
  EXPECT_TRUE(StopThroughScm(OpenOurService()));
  EXPECT_EQ(ReadProxyValues(), user);
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  EXPECT_EQ(ReadWininetCalls() + ReadFileBytes(RecordPath("wininet-cores.txt")), "39\n37\n1\n1\n");
  EXPECT_FALSE(Pong());

  // Without a core of its own the service runs none that a search finds.
  ASSERT_TRUE(fs::remove(fs::path(helper.directory) / kCoreFileName));
  fs::copy_file(fs::path(DoublesDirectory()) / kCoreFileName, searchedCore);
  ASSERT_EQ(StartThroughScm().dwCurrentState, DWORD{SERVICE_RUNNING});
  EXPECT_EQ(Post("/start-tun", Config()), Answer("disconnected", ThisPlatform().coreNotFound));
  EXPECT_EQ(CountCores(), 0);
}

// --- The installer ------------------------------------------------------------

constexpr const wchar_t* kUninstallKey =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\OrvelVpnHelper";

// What Explorer shows of the exe: FileVersion|ProductVersion|ProductName|
// FileDescription.
std::wstring VersionStrings(const fs::path& exe) {
  DWORD ignored = 0;
  std::vector<unsigned char> data(GetFileVersionInfoSizeW(exe.c_str(), &ignored));
  if (data.empty() ||
      !GetFileVersionInfoW(exe.c_str(), 0, static_cast<DWORD>(data.size()), data.data())) {
    return L"no version resource";
  }
  std::wstring shown;
  for (const wchar_t* name :
       {L"FileVersion", L"ProductVersion", L"ProductName", L"FileDescription"}) {
    wchar_t* value = nullptr;
    UINT length = 0;
    const std::wstring path = std::wstring(L"\\StringFileInfo\\040904B0\\") + name;
    shown += VerQueryValueW(data.data(), path.c_str(), reinterpret_cast<void**>(&value), &length)
                 ? std::wstring(value) + L"|"
                 : L"-|";
  }
  return shown;
}

// The Add/Remove Programs entry: name|version|publisher|uninstall string|
// whether a size is given, or "" when there is none.
std::wstring UninstallEntry() {
  std::wstring entry;
  for (const wchar_t* name :
       {L"DisplayName", L"DisplayVersion", L"Publisher", L"UninstallString"}) {
    wchar_t value[512] = {};
    DWORD size = sizeof(value);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, kUninstallKey, name, RRF_RT_REG_SZ, nullptr, value,
                     &size) != ERROR_SUCCESS) {
      return entry;
    }
    entry += std::wstring(value) + L"|";
  }
  DWORD kib = 0, size = sizeof(kib);
  RegGetValueW(HKEY_LOCAL_MACHINE, kUninstallKey, L"EstimatedSize", RRF_RT_REG_DWORD, nullptr, &kib,
               &size);
  return entry + (kib > 0 ? L"sized" : L"no size");
}

std::wstring ServiceBinaryPath() {
  const ScHandle service = OpenOurService();
  std::vector<unsigned char> buffer(8192);
  DWORD needed = 0;
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  return service && QueryServiceConfigW(service.get(), config, 4096, &needed)
             ? config->lpBinaryPathName
             : L"no service";
}

// Runs an installer with `arguments` and waits up to 60 s; its exit code.
// Nothing of this process is inherited: the first window in the prefix
// starts Wine's desktop process, which would keep for ever the output
// files that RunProgram hands its programs.
DWORD RunInstaller(const fs::path& exe, const std::wstring& arguments) {
  std::wstring commandLine = L"\"" + exe.wstring() + L"\" " + arguments;
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION info{};
  DWORD exitCode = 0xFFFFFFFF;
  if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                     &startup, &info)) {
    if (WaitForSingleObject(info.hProcess, 60000) != WAIT_OBJECT_0) {
      TerminateProcess(info.hProcess, 99);
      WaitForSingleObject(info.hProcess, 10000);
    }
    GetExitCodeProcess(info.hProcess, &exitCode);
    CloseHandle(info.hProcess);
    CloseHandle(info.hThread);
  }
  return exitCode;
}

// The installer a client ships, silently: a fresh install, an upgrade to a
// higher version while the service runs (Windows and Wine refuse to overwrite
// the exe of a running service, so an installer that did not stop it first
// fails here), the service removed by the helper alone in each state, and the
// uninstaller.
TEST_F(Helper, InstallerInstallsUpgradesTheRunningServiceAndRemovesIt) {
  const fs::path folder = fs::path(_wgetenv(L"ProgramFiles")) / L"OrvelVPN";
  const fs::path exe = folder / L"OrvelVpnHelper.exe";
  struct Cleanup {
    const fs::path& folder;
    ~Cleanup() {
      RemoveService();
      KillProcessesNamed(L"OrvelVpnHelper.exe");
      ForgetLastStartedService();
      std::error_code ec;
      fs::remove_all(folder, ec);
      RegDeleteTreeW(HKEY_LOCAL_MACHINE, kUninstallKey);
    }
  } cleanup{folder};
  // The service answers on the helper's port.
  helper.Stop();
  RemoveService();
  const std::wstring version = fs::u8path(kProductVersion).wstring();
  const std::wstring next = L"" ORVEL_NEXT_VERSION;
  const fs::path bin = BinDirectory();
  const std::wstring quotedUninstaller = L"\"" + (folder / L"uninstall.exe").wstring() + L"\"|";

  ASSERT_EQ(RunInstaller(bin.parent_path() / (L"OrvelVpnHelper-" + version + L"-setup.exe"), L"/S"),
            0u);
  EXPECT_EQ(ServiceBinaryPath(), L"\"" + exe.wstring() + L"\"");
  EXPECT_TRUE(WaitFor(Pong));
  EXPECT_EQ(VersionStrings(exe), version + L"|" + version + L"|Orvel VPN Helper|Orvel VPN Helper|");
  EXPECT_EQ(VersionStrings(bin / kOrvelctlFileName),
            version + L"|" + version + L"|Orvel VPN Helper|Orvel VPN Helper command-line client|");
  EXPECT_EQ(UninstallEntry(),
            L"Orvel VPN Helper|" + version + L"|Orvel VPN|" + quotedUninstaller + L"sized");

  ASSERT_EQ(
      RunInstaller(bin / L"next-version" / (L"OrvelVpnHelper-" + next + L"-setup.exe"), L"/S"), 0u);
  EXPECT_EQ(VersionStrings(exe), next + L"|" + next + L"|Orvel VPN Helper|Orvel VPN Helper|");
  EXPECT_TRUE(fs::exists(folder / kCoreFileName));
  EXPECT_EQ(WaitForState(OpenOurService(), SERVICE_RUNNING).dwCurrentState, DWORD{SERVICE_RUNNING});
  EXPECT_TRUE(WaitFor(Pong));
  EXPECT_EQ(UninstallEntry(),
            L"Orvel VPN Helper|" + next + L"|Orvel VPN|" + quotedUninstaller + L"sized");

  // --uninstall-service alone: each state it may meet ends with no service
  // and exit code 0.
  const struct {
    const char* state;
    bool install, start;
  } states[] = {{"running", true, true}, {"stopped", true, false}, {"not installed", false, false}};
  for (const auto& s : states) {
    if (s.install) {
      ASSERT_EQ(std::get<0>(RunProgram(exe, {"--install-service"})), 0u);
    }
    if (s.start) {
      ASSERT_EQ(StartThroughScm().dwCurrentState, DWORD{SERVICE_RUNNING});
    }
    EXPECT_EQ(std::get<0>(RunProgram(exe, {"--uninstall-service"})), 0u) << s.state;
    EXPECT_EQ(OpenOurService(), nullptr) << s.state;
    EXPECT_FALSE(Pong()) << s.state;
  }

  // The uninstaller removes a running service too. Run with /S it copies
  // itself away and returns at once, so its work is waited for.
  ASSERT_EQ(std::get<0>(RunProgram(exe, {"--install-service"})), 0u);
  ASSERT_EQ(StartThroughScm().dwCurrentState, DWORD{SERVICE_RUNNING});
  ASSERT_EQ(RunInstaller(folder / L"uninstall.exe", L"/S"), 0u);
  EXPECT_TRUE(WaitFor([&] { return !fs::exists(folder); }, 60));
  EXPECT_EQ(OpenOurService(), nullptr);
  EXPECT_EQ(UninstallEntry(), L"");
  EXPECT_FALSE(Pong());
}

}  // namespace
}  // namespace orvel::test
