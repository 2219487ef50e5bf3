// What only the Windows build has, against the same helper and Wine's
// registry: the per-user proxy values with their types and the notification
// order, the crash recovery of a killed helper and its job object, the
// session end, the service under Wine's Service Control Manager, and the
// installer.
#include "e2e/helper_e2e.h"
// After windows.h, which the harness brings in.
#include <sddl.h>
#include <winver.h>

#include <memory>
#include <type_traits>

#include "entry/service_host_win.h"
#include "version.h"

namespace orvel::test {

const ProxyValues kUserProxy{Dword(1), Text(L"corp-proxy.example:8080"),
                             Text(L"*.corp.example;<local>")};

void ResetUserProxy() { WriteProxyValues({}); }
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
    WSAPOLLFD waiting{listener, POLLRDNORM, 0};
    client::ClientSocket peer;
    if (WSAPoll(&waiting, 1, 30000) == 1) {
      peer.handle = static_cast<client::SocketHandle>(accept(listener, nullptr, nullptr));
      char request[4096];
      client::ReceiveSome(peer, request, sizeof(request), 30000);
      client::SendAllBytes(peer, answer);
    }
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

// What a step left: the per-user proxy values, the notifications sent since
// the records were cleared, and the core processes running.
void ExpectLeft(const ProxyValues& proxy, std::string_view wininetCalls, int cores) {
  EXPECT_EQ(ReadProxyValues(), proxy);
  EXPECT_EQ(ReadWininetCalls(), wininetCalls);
  EXPECT_EQ(CountCores(), cores);
}
bool ProxyStateSaved() { return fs::exists(DataFile("proxy-state.txt")); }

// A string value, "" when there is none.
std::wstring RegText(HKEY root, const wchar_t* key, const wchar_t* name) {
  wchar_t text[1024] = {};
  DWORD bytes = sizeof(text);
  RegGetValueW(root, key, name, RRF_RT_REG_SZ, nullptr, text, &bytes);
  return text;
}

// Polls `check` for up to `seconds`.
template <typename Check>
bool WaitFor(Check check, int seconds = 10) {
  for (int i = 0; i < seconds * 40 && !check(); ++i) Sleep(25);
  return check();
}

// Each start points the per-user proxy at the core (the settings changed,
// then a refresh: 39, 37), each stop puts back exactly what the user had.
TEST_F(Helper, StartsPointTheSystemProxyAtTheCoreAndStopsPutBackWhatTheUserHad) {
  const std::pair<ProxyValues, ProxyValues> cases[] = {
      // An absent ProxyEnable comes back as 0; absent strings stay absent.
      {{}, {Dword(0), Absent(), Absent()}},
      {kUserProxy, kUserProxy},
      // An expandable string returns as a plain one; an empty one is deleted.
      {{Dword(0), Text(L"%PROXYHOST%:3128", REG_EXPAND_SZ), Text(L"")},
       {Dword(0), Text(L"%PROXYHOST%:3128"), Absent()}},
      {{Dword(7), Dword(5), Dword(6)}, {Dword(7), Absent(), Absent()}},
  };
  for (const auto& [before, after] : cases) {
    SCOPED_TRACE(::testing::PrintToString(before));
    ResetTestRecords();
    WriteProxyValues(before);
    ASSERT_EQ(Post("/start", Config()), kConnected);
    ExpectLeft(HelperProxyValues(2080), "39\n37\n", 1);
    EXPECT_EQ(Post("/stop"), kDisconnected);
    ExpectLeft(after, "39\n37\n39\n37\n", 0);
  }
  EXPECT_TRUE(LogHasLine("VPN started through OrvelVpnHelper"));
  ResetTestRecords();
  ASSERT_EQ(Post("/start", Config()), kConnected);
  // An empty body is refused and the running core keeps running.
  EXPECT_EQ(Post("/start-tun"),
            Answer("disconnected", "Empty subscription config or runtime config"));
  EXPECT_EQ(Status(), kRunning);
  // A start over a running one puts the user's values back first; without a
  // listen_port the default mixed port is used.
  EXPECT_EQ(Post("/start", Config({}, {})), kConnected);
  EXPECT_EQ(ReadFileBytes(DataFile("sing-box.json")), Config({}, {}));  // shorter: replaced whole
  ExpectLeft(HelperProxyValues(7897), "39\n37\n39\n37\n39\n37\n", 1);
  // TUN mode after proxy mode puts the user's settings back and sets none.
  EXPECT_EQ(Post("/start-tun", Config()), kTunConnected);
  ExpectLeft({Dword(7), Absent(), Absent()}, "39\n37\n39\n37\n39\n37\n39\n37\n", 1);
  EXPECT_TRUE(LogHasLine("TUN VPN started through OrvelVpnHelperService"));

  // With nothing saved a stop still answers and logs, and touches nothing.
  ResetTestRecords();
  SetUserProxy();
  const std::size_t mark = Logs().size();
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_NE(Logs().find("] VPN stopped through OrvelVpnHelper\r\n", mark), std::string::npos);
  ExpectLeft(kUserProxy, "", 0);

  // The enable fails at its announcement, and so does the restore after it,
  // whose message wins; the values are back and the saved copy is kept, so
  // the next stop restores and announces once more.
  WriteWholeFile(kWininetFail, "fail");
  const std::string restoreFailed = "Failed to restore Windows system proxy";
  EXPECT_EQ(Post("/start", Config()), Answer("disconnected", restoreFailed));
  EXPECT_TRUE(LogHasLine(restoreFailed));
  ExpectLeft(kUserProxy, "39\n39\n", 0);
  fs::remove(kWininetFail);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  ExpectLeft(kUserProxy, "39\n39\n39\n37\n", 0);
}

// A killed helper's core goes with it: the harness holds no handle of the
// core, only the helper's job ends it. Values set by hand while no helper ran
// are kept at the next start and the saved copy removed (that the user's own
// come back after a kill is the next test's).
TEST_F(Helper, KilledHelperTakesItsCoreAlongAndTheNextKeepsValuesSetSince) {
  SetUserProxy();
  ASSERT_EQ(Post("/start", Config()), kConnected);
  helper.Kill();
  EXPECT_EQ(WaitUntilNoCore(10000), 0);
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
  EXPECT_TRUE(ProxyStateSaved());
  const ProxyValues byHand{Dword(0), Text(L"home-proxy:3128"), Absent()};
  WriteProxyValues(byHand);
  ResetTestRecords();
  ASSERT_TRUE(Restart(CorePlacement::kBesideExe, {}, true)) << helper.error;
  EXPECT_EQ(ReadProxyValues(), byHand);
  EXPECT_FALSE(ProxyStateSaved());
  EXPECT_TRUE(
      LogHasLine("System proxy changed since the helper last set it; kept it and removed "
                 "the saved proxy settings"));
  EXPECT_EQ(ReadWininetCalls(), "");
}

// The user's values come back when the session ends under a running helper,
// and at the next logon after a helper killed while they were set: Wine's
// wineboot sends the session-end messages (-e) and runs HKCU's Run entries
// (plain). Wine waits for ever on a window that never answers, so the
// session end runs under RunProgram's time limit.
TEST_F(Helper, SessionEndAndTheNextLogonPutTheUsersProxyBack) {
  const auto runEntry = [] {
    return RegText(HKEY_CURRENT_USER, L"Software\\Microsoft\\Windows\\CurrentVersion\\Run",
                   L"OrvelVpnHelperRestoreProxy");
  };
  const fs::path wineboot = fs::path(_wgetenv(L"SystemRoot")) / L"system32" / L"wineboot.exe";
  SetUserProxy();
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
  EXPECT_TRUE(WaitFor(
      [&] { return runEntry().empty() && CountProcessesNamed(L"OrvelVpnHelper.exe") == 0; }));
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

bool Pong() { return Request("GET", "/ping", {}, 2000).body == "pong"; }

// Deletes the service if it exists (stopping it first), and waits until it
// is gone: a service marked for deletion still answers OpenServiceW, and an
// install that meets it would update the dying registration instead of
// creating one.
void RemoveService() {
  RunProgram(BinDirectory() / L"OrvelVpnHelper.exe", {"--uninstall-service"});
  WaitFor([] { return OpenOurService() == nullptr; });
}

// Starts the installed service and waits until it answers; the controls it
// accepts then (0: it does not answer). Running is reported before the
// listener is bound. After a crash Windows restarts the service by itself 5 s
// later. Wine 8's SCM does not, nor does it notice the end: it goes on
// reporting "running", yet starts the service again when asked. So what
// counts is the answer, not the call's result.
DWORD StartThroughScm() {
  const ScHandle service = OpenOurService();
  StartServiceW(service.get(), 0, nullptr);
  SERVICE_STATUS status{};
  return WaitFor(Pong) && QueryServiceStatus(service.get(), &status) &&
                 status.dwCurrentState == SERVICE_RUNNING
             ? status.dwControlsAccepted
             : 0;
}

constexpr const wchar_t* kUninstallKey =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\OrvelVpnHelper";

// Leaves no service, no helper process, nothing at `path` and no
// Add/Remove Programs entry behind.
struct ServiceCleanup {
  fs::path path;
  ~ServiceCleanup() {
    RemoveService();
    KillProcessesNamed(L"OrvelVpnHelper.exe");
    ForgetLastStartedService();
    std::error_code ec;
    fs::remove_all(path, ec);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kUninstallKey);
  }
};

// What the SCM holds of the service: binary|display name|description|
// account|start type, type and error control; for the quoted exe that
// registered it, what follows it is kRegistration (auto start, own
// process, normal error control).
const std::wstring kRegistration =
    L"\"|Orvel VPN Helper Service|Runs sing-box TUN mode for Orvel VPN.|LocalSystem|2161";
std::wstring ServiceConfig() {
  const ScHandle service = OpenOurService();
  std::vector<unsigned char> buffer(8192);
  DWORD needed = 0;
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  const auto* about = reinterpret_cast<SERVICE_DESCRIPTIONW*>(buffer.data() + 4096);
  if (!service || !QueryServiceConfigW(service.get(), config, 4096, &needed) ||
      !QueryServiceConfig2W(service.get(), SERVICE_CONFIG_DESCRIPTION, buffer.data() + 4096, 4096,
                            &needed)) {
    return L"no service";
  }
  return std::wstring(config->lpBinaryPathName) + L"|" + config->lpDisplayName + L"|" +
         about->lpDescription + L"|" + config->lpServiceStartName + L"|" +
         std::to_wstring(config->dwStartType) + std::to_wstring(config->dwServiceType) +
         std::to_wstring(config->dwErrorControl);
}

// The helper as a service under Wine's Service Control Manager: the
// installer's switch and registration, the service's life through the SCM
// (its core, the proxy put back on stop and after a crash), and the
// configurations the service refuses to run as LocalSystem.
TEST_F(Helper, ServiceIsInstalledRunsTheCoreAndRefusesUnsafeConfigurations) {
  // A core where only a search finds it: the system folder, which the search
  // path of every Windows holds and which is the service's current directory.
  const ServiceCleanup cleanup{fs::path(_wgetenv(L"SystemRoot")) / L"system32" / kCoreFileName};
  RemoveService();
  // The stand-alone helper runs what the service refuses below.
  const std::string tor =
      R"({"outbounds":[{"type":"tor","tag":"t","executable_path":"C:\\Windows\\System32\\calc.exe"}]})";
  EXPECT_EQ(Post("/start-tun", tor), kTunConnected);
  // Beside a running helper: installer mode takes no mutex.
  ASSERT_EQ(std::get<0>(RunProgram(helper.ExePath(), {"xx--install-serviceyy", "more"})), 0u);
  ASSERT_NE(OpenOurService(), nullptr);
  // Installer mode starts no server of its own.
  helper.Stop();
  ASSERT_EQ(std::get<0>(RunProgram(helper.ExePath(), {"before", "--install-service"})), 0u);
  EXPECT_FALSE(Pong());
  EXPECT_EQ(ServiceConfig(), L"\"" + helper.ExePath().wstring() + kRegistration);
  // Wine's SCM keeps neither failure actions nor service security, so only
  // the security text is checked: one that does not convert makes the
  // installer skip the step silently. Its last entry: interactive users may
  // query, start and stop, no more.
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  BOOL present = FALSE, defaulted = FALSE;
  PACL dacl = nullptr;
  ACCESS_ALLOWED_ACE* ace = nullptr;
  ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(
      kServiceSecurityDescriptor, SDDL_REVISION_1, &descriptor, nullptr));
  EXPECT_TRUE(GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted) &&
              GetAce(dacl, dacl->AceCount - 1, reinterpret_cast<void**>(&ace)) &&
              IsWellKnownSid(&ace->SidStart, WinInteractiveSid) &&
              ace->Mask == (SERVICE_QUERY_STATUS | SERVICE_START | SERVICE_STOP));
  LocalFree(descriptor);
  SetUserProxy();
  ASSERT_EQ(StartThroughScm(), DWORD{SERVICE_ACCEPT_STOP});
  // Killed with its core running: the core goes with it. What the next start
  // puts back shows in the proxy the stop leaves below.
  ASSERT_EQ(Post("/start", Config()), kConnected);
  KillProcessesNamed(L"OrvelVpnHelper.exe");
  EXPECT_EQ(WaitUntilNoCore(10000), 0);
  ASSERT_EQ(StartThroughScm(), DWORD{SERVICE_ACCEPT_STOP});
  EXPECT_EQ(std::get<1>(RunProgram(BinDirectory() / kOrvelctlFileName,
                                   {"--address", "[::1]:17891", "ping"})),
            "pong\n");

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
  // A URL test the service refuses starts nothing: the node reports 0.
  const std::pair<std::string, std::string> urlTests[] = {
      {EncodeUrlTestBody({"guarded", std::string(kUrl), {"a-delay-10"}, tor}, 2),
       refused + "outbounds[0].type is tor, which runs a program"},
      {EncodeUrlTestBody({"scheme", "file:///C:/windows/win.ini", {"a-delay-10"}, "{}"}, 2),
       "refused by the service: the test URL is not an http:// or https:// address"}};
  for (const auto& [body, reason] : urlTests) {
    EXPECT_EQ(RunUrlTest(body).lines.at(0).first, R"({"nodeTag":"a-delay-10","delayMs":0})");
    EXPECT_TRUE(LogHasLine("URLTest " + reason));
  }
  EXPECT_EQ(ReadFileBytes(DataFile("sing-box.json")), kPlainConfig);
  EXPECT_EQ(CountCores(), 1);
  EXPECT_TRUE(ReadFetchRecords().empty());
  EXPECT_EQ(ReadFileBytes(RecordPath("core-run.txt")) + ReadWininetCalls(), "");

  // Stopped through the SCM: the user's proxy is put back and the
  // notifications sent while the core still ran, then the core ends and the
  // port is closed.
  // The helper ends its process from inside the stop handler, right after
  // reporting "stopped", so the control call may see the pipe break (109)
  // before its reply; what counts is the state it ends in, with exit code 0.
  const ScHandle service = OpenOurService();
  SERVICE_STATUS stopped{};
  EXPECT_TRUE(ControlService(service.get(), SERVICE_CONTROL_STOP, &stopped) ||
              GetLastError() == ERROR_BROKEN_PIPE);
  EXPECT_TRUE(WaitFor([&] {
    return QueryServiceStatus(service.get(), &stopped) && stopped.dwCurrentState == SERVICE_STOPPED;
  }));
  EXPECT_EQ(stopped.dwWin32ExitCode, 0u);
  EXPECT_EQ(ReadProxyValues(), kUserProxy);
  EXPECT_EQ(CountCores(), 0);
  EXPECT_EQ(ReadWininetCalls() + ReadFileBytes(RecordPath("wininet-cores.txt")), "39\n37\n1\n1\n");
  EXPECT_FALSE(Pong());

  // Without a core of its own the service runs none that a search finds.
  ASSERT_TRUE(fs::remove(helper.directory / kCoreFileName));
  fs::copy_file(DoublesDirectory() / kCoreFileName, cleanup.path);
  ASSERT_EQ(StartThroughScm(), DWORD{SERVICE_ACCEPT_STOP});
  EXPECT_EQ(Post("/start-tun", Config()), Answer("disconnected", ThisPlatform().coreNotFound));
  EXPECT_EQ(CountCores(), 0);
}

// --- The installer ------------------------------------------------------------

// What Explorer shows of the exe: FileVersion|ProductVersion|ProductName|
// FileDescription.
std::wstring VersionStrings(const fs::path& exe) {
  std::vector<unsigned char> data(GetFileVersionInfoSizeW(exe.c_str(), nullptr) + 1);
  if (!GetFileVersionInfoW(exe.c_str(), 0, static_cast<DWORD>(data.size()), data.data()))
    return L"no version resource";
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
// whether a size is given.
std::wstring UninstallEntry() {
  std::wstring entry;
  for (const wchar_t* name : {L"DisplayName", L"DisplayVersion", L"Publisher", L"UninstallString"})
    entry += RegText(HKEY_LOCAL_MACHINE, kUninstallKey, name) + L"|";
  DWORD kib = 0, size = sizeof(kib);
  RegGetValueW(HKEY_LOCAL_MACHINE, kUninstallKey, L"EstimatedSize", RRF_RT_REG_DWORD, nullptr, &kib,
               &size);
  return entry + (kib > 0 ? L"sized" : L"no size");
}

// The installer a client ships, silently: a fresh install, an upgrade to a
// higher version while the service runs (Windows and Wine refuse to overwrite
// the exe of a running service, so an installer that did not stop it first
// fails here), the service removed by the helper alone in each state, and the
// uninstaller.
TEST_F(Helper, InstallerInstallsUpgradesTheRunningServiceAndRemovesIt) {
  const ServiceCleanup cleanup{fs::path(_wgetenv(L"ProgramFiles")) / L"OrvelVPN"};
  const fs::path& folder = cleanup.path;
  const fs::path exe = folder / L"OrvelVpnHelper.exe", bin = BinDirectory();
  // The service answers on the helper's port.
  helper.Stop();
  RemoveService();
  const std::wstring version = fs::u8path(kProductVersion).wstring();
  const std::pair<fs::path, std::wstring> releases[] = {
      {bin.parent_path(), version}, {bin / L"next-version", L"" ORVEL_NEXT_VERSION}};
  for (const auto& [directory, shown] : releases) {
    SCOPED_TRACE(shown);
    const fs::path setup = directory / (L"OrvelVpnHelper-" + shown + L"-setup.exe");
    ASSERT_EQ(std::get<0>(RunProgram(setup, {"/S"}, 0, false)), 0u);
    EXPECT_EQ(ServiceConfig(), L"\"" + exe.wstring() + kRegistration);
    EXPECT_TRUE(WaitFor(Pong));
    EXPECT_EQ(VersionStrings(exe), shown + L"|" + shown + L"|Orvel VPN Helper|Orvel VPN Helper|");
    EXPECT_EQ(UninstallEntry(), L"Orvel VPN Helper|" + shown + L"|Orvel VPN|\"" +
                                    (folder / L"uninstall.exe").wstring() + L"\"|sized");
  }
  EXPECT_TRUE(fs::exists(folder / kCoreFileName));  // packed with the higher version
  EXPECT_EQ(VersionStrings(bin / kOrvelctlFileName),
            version + L"|" + version + L"|Orvel VPN Helper|Orvel VPN Helper command-line client|");

  // --uninstall-service alone: on the running service the upgrade left, on
  // a stopped one and on none it ends with no service and exit code 0.
  for (const bool install : {false, true, false}) {
    ASSERT_TRUE(!install || std::get<0>(RunProgram(exe, {"--install-service"})) == 0);
    EXPECT_EQ(std::get<0>(RunProgram(exe, {"--uninstall-service"})), 0u);
    EXPECT_EQ(OpenOurService(), nullptr);
    EXPECT_FALSE(Pong());
  }

  // The uninstaller removes a running service too. Run with /S it copies
  // itself away and returns at once, so its work is waited for.
  ASSERT_EQ(std::get<0>(RunProgram(exe, {"--install-service"})), 0u);
  ASSERT_EQ(StartThroughScm(), DWORD{SERVICE_ACCEPT_STOP});
  ASSERT_EQ(std::get<0>(RunProgram(folder / L"uninstall.exe", {"/S"}, 0, false)), 0u);
  EXPECT_TRUE(WaitFor([&] { return !fs::exists(folder); }, 60));
  EXPECT_EQ(OpenOurService(), nullptr);
  EXPECT_EQ(UninstallEntry(), L"||||no size");
  EXPECT_FALSE(Pong());
}

}  // namespace
}  // namespace orvel::test
