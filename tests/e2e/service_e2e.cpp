// The helper as a Windows service under Wine's Service Control Manager: the
// installer's registration, a start through the SCM, the stop path, and the
// configurations the service refuses to run as LocalSystem.
#include <gtest/gtest.h>
#include <windows.h>
// windows.h first: sddl.h depends on it.
#include <sddl.h>

#include <chrono>
#include <thread>
#include <vector>

#include "entry/service_host.h"
#include "support/helper_process.h"
#include "support/http_client.h"
#include "support/proxy_registry.h"
#include "support/urltest_client.h"
#include "urltest/urltest_body.h"

namespace orvel::test {
namespace {

constexpr const wchar_t* kService = L"OrvelVpnHelperService";
constexpr const wchar_t* kSddl =
    L"D:(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)(A;;LCRPWP;;;AU)";

struct ScHandle {
  SC_HANDLE h = nullptr;
  explicit ScHandle(SC_HANDLE handle) : h(handle) {}
  ScHandle(const ScHandle&) = delete;
  ScHandle& operator=(const ScHandle&) = delete;
  ~ScHandle() {
    if (h != nullptr) CloseServiceHandle(h);
  }
};

// Stops and deletes the service if it exists, and waits until it is gone: a
// service marked for deletion still answers OpenServiceW, and an install that
// meets it would update the dying registration instead of creating one.
void RemoveService() {
  ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  {
    ScHandle service(OpenServiceW(manager.h, kService, SERVICE_ALL_ACCESS));
    if (service.h == nullptr) return;
    SERVICE_STATUS status{};
    ControlService(service.h, SERVICE_CONTROL_STOP, &status);
    for (int i = 0; i < 200; ++i) {
      if (!QueryServiceStatus(service.h, &status) || status.dwCurrentState == SERVICE_STOPPED)
        break;
      std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    DeleteService(service.h);
  }
  for (int i = 0; i < 200; ++i) {
    ScHandle again(OpenServiceW(manager.h, kService, SERVICE_QUERY_STATUS));
    if (again.h == nullptr) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
}

// Polls "/ping" for up to 10 s; the last body seen.
std::string WaitForPong() {
  std::string body;
  for (int i = 0; i < 400 && body != "pong"; ++i) {
    body = Request("GET", "/ping", {}, 2000).body;
    if (body != "pong") std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  return body;
}

bool RunningUnderWine() {
  return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

std::wstring DaclText(PSECURITY_DESCRIPTOR descriptor) {
  LPWSTR text = nullptr;
  if (!ConvertSecurityDescriptorToStringSecurityDescriptorW(
          descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr)) {
    return L"<unconvertible>";
  }
  std::wstring result(text);
  LocalFree(text);
  return result;
}

DWORD QueryState(SC_HANDLE service, SERVICE_STATUS* out = nullptr) {
  SERVICE_STATUS status{};
  if (!QueryServiceStatus(service, &status)) return 0;
  if (out != nullptr) *out = status;
  return status.dwCurrentState;
}

bool WaitForState(SC_HANDLE service, DWORD state, SERVICE_STATUS* out = nullptr) {
  for (int i = 0; i < 400; ++i) {
    if (QueryState(service, out) == state) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  return false;
}

class Service : public ::testing::Test {
 protected:
  void SetUp() override {
    RemoveService();
    // The stand-alone helper prepares the folder; it is ended again at once so
    // the service owns the port.
    ASSERT_TRUE(helper.Start(CorePlacement::kBesideExe)) << helper.error;
    helper.Stop();
  }
  void TearDown() override {
    RemoveService();
    KillProcessesNamed(L"OrvelVpnHelper.exe");
    ForgetLastStartedService();
  }
  DWORD Install(const std::wstring& exe, const std::wstring& arguments = L"--install-service") {
    return RunAndWait(exe, arguments, 30000);
  }
  ScopedHelper helper;
};

TEST_F(Service, InstallingTwiceKeepsOneRegistrationAtTheLatestPath) {
  ASSERT_EQ(Install(helper.ExePath()), 0u);
  // Second install from another folder: the registration moves there.
  const std::wstring moved = helper.directory + L"\\moved";
  CreateDirectoryW(moved.c_str(), nullptr);
  const std::wstring movedExe = moved + L"\\OrvelVpnHelper.exe";
  ASSERT_TRUE(CopyFileW(helper.ExePath().c_str(), movedExe.c_str(), FALSE));
  ASSERT_EQ(Install(movedExe), 0u);

  ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  ScHandle service(OpenServiceW(manager.h, kService, SERVICE_ALL_ACCESS));
  ASSERT_NE(service.h, nullptr);

  std::vector<unsigned char> buffer(8192);
  DWORD needed = 0;
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  ASSERT_TRUE(QueryServiceConfigW(service.h, config, static_cast<DWORD>(buffer.size()), &needed));
  EXPECT_EQ(std::wstring(config->lpBinaryPathName), L"\"" + movedExe + L"\"");
  EXPECT_EQ(std::wstring(config->lpDisplayName), L"Orvel VPN Helper Service");
  EXPECT_EQ(config->dwStartType, static_cast<DWORD>(SERVICE_AUTO_START));
  EXPECT_EQ(config->dwServiceType, static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS));
  EXPECT_EQ(config->dwErrorControl, static_cast<DWORD>(SERVICE_ERROR_NORMAL));
  EXPECT_EQ(ToUtf8(config->lpServiceStartName), "LocalSystem");

  auto* description = reinterpret_cast<SERVICE_DESCRIPTIONW*>(buffer.data());
  ASSERT_TRUE(QueryServiceConfig2W(service.h, SERVICE_CONFIG_DESCRIPTION, buffer.data(),
                                   static_cast<DWORD>(buffer.size()), &needed));
  EXPECT_EQ(std::wstring(description->lpDescription), L"Runs sing-box TUN mode for Orvel VPN.");

  // Reset period, then each action as type/delay: restart after 5 s twice,
  // then nothing more until a day without failures has passed.
  auto* failure = reinterpret_cast<SERVICE_FAILURE_ACTIONSW*>(buffer.data());
  if (!QueryServiceConfig2W(service.h, SERVICE_CONFIG_FAILURE_ACTIONS, buffer.data(),
                            static_cast<DWORD>(buffer.size()), &needed) &&
      RunningUnderWine()) {
    // Wine 8's SCM keeps no failure actions (none reach the service's
    // registry key) and refuses to read them; on Windows they must read
    // back exactly.
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_LEVEL));
  } else {
    std::string actions = std::to_string(failure->dwResetPeriod);
    for (DWORD i = 0; i < failure->cActions; ++i) {
      actions += ' ' + std::to_string(failure->lpsaActions[i].Type);
      actions += '/' + std::to_string(failure->lpsaActions[i].Delay);
    }
    EXPECT_EQ(actions, "86400 1/5000 1/5000 0/0");
  }

  if (RunningUnderWine()) {
    // Wine's SCM does not keep service security (SetServiceObjectSecurity is
    // a stub there), so nothing can be read back. What can still break is the
    // text itself: a typo would make the conversion fail and the installer
    // skip the step silently. It must convert and read back unchanged.
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(
        kServiceSecurityDescriptor, SDDL_REVISION_1, &descriptor, nullptr));
    EXPECT_EQ(DaclText(descriptor), kSddl);
    LocalFree(descriptor);
  } else {
    ASSERT_TRUE(QueryServiceObjectSecurity(service.h, DACL_SECURITY_INFORMATION, buffer.data(),
                                           static_cast<DWORD>(buffer.size()), &needed));
    EXPECT_EQ(DaclText(buffer.data()), kSddl);
  }

  // One registration only: enumerate and count ours.
  DWORD count = 0;
  DWORD resume = 0;
  std::vector<unsigned char> list(256 * 1024);
  ASSERT_TRUE(EnumServicesStatusW(manager.h, SERVICE_WIN32, SERVICE_STATE_ALL,
                                  reinterpret_cast<ENUM_SERVICE_STATUSW*>(list.data()),
                                  static_cast<DWORD>(list.size()), &needed, &count, &resume));
  int ours = 0;
  const auto* entries = reinterpret_cast<const ENUM_SERVICE_STATUSW*>(list.data());
  for (DWORD i = 0; i < count; ++i) ours += _wcsicmp(entries[i].lpServiceName, kService) == 0;
  EXPECT_EQ(ours, 1);
}

TEST_F(Service, InstallSwitchIsFoundAnywhereButNotAsAPrefix) {
  // "--install" alone is not the switch: the exe runs as a stand-alone helper.
  ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  {
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info{};
    std::wstring line = L"\"" + helper.ExePath() + L"\" --install";
    ForgetLastStartedService();
    ASSERT_TRUE(CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                               &startup, &info));
    EXPECT_EQ(WaitForPong(), "pong");
    EXPECT_EQ(OpenServiceW(manager.h, kService, SERVICE_QUERY_STATUS), nullptr);

    // Installer mode takes no mutex: it installs although this instance runs.
    EXPECT_EQ(Install(helper.ExePath(), L"xx--install-serviceyy and more words"), 0u);
    ScHandle service(OpenServiceW(manager.h, kService, SERVICE_QUERY_STATUS));
    EXPECT_NE(service.h, nullptr);
    TerminateProcess(info.hProcess, 1);
    WaitForSingleObject(info.hProcess, 10000);
    CloseHandle(info.hProcess);
    CloseHandle(info.hThread);
  }
  // And it starts no server of its own.
  EXPECT_EQ(Install(helper.ExePath(), L"before --install-service"), 0u);
  EXPECT_EQ(ConnectLoopback(kHelperPort, 1000), INVALID_SOCKET);
}

// Installs the service from the prepared folder and starts it through the SCM.
bool InstallAndStart(const std::wstring& exe) {
  if (RunAndWait(exe, L"--install-service", 30000) != 0) return false;
  ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  ScHandle service(OpenServiceW(manager.h, kService, SERVICE_ALL_ACCESS));
  return service.h != nullptr && StartServiceW(service.h, 0, nullptr) &&
         WaitForState(service.h, SERVICE_RUNNING) && WaitForPong() == "pong";
}

// Sends the stop control and waits for the stopped state; the final status.
SERVICE_STATUS StopThroughScm() {
  ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  ScHandle service(OpenServiceW(manager.h, kService, SERVICE_ALL_ACCESS));
  SERVICE_STATUS status{};
  // The helper ends its process from inside the stop handler, right after
  // reporting "stopped", so the control call may see the pipe break (109)
  // before its reply; what counts is the state the service ends in.
  const BOOL sent = ControlService(service.h, SERVICE_CONTROL_STOP, &status);
  EXPECT_TRUE(sent || GetLastError() == ERROR_BROKEN_PIPE) << GetLastError();
  EXPECT_TRUE(WaitForState(service.h, SERVICE_STOPPED, &status));
  return status;
}

constexpr std::string_view kProxyConfig =
    R"({"inbounds":[{"type":"mixed","tag":"orvel-vpn-mixed","listen":"127.0.0.1","listen_port":2080}]})";

TEST_F(Service, RunsTheCoreInsideTheService) {
  ResetTestRecords();
  ASSERT_TRUE(InstallAndStart(helper.ExePath()));
  EXPECT_EQ(
      Request("POST", "/start-tun", kProxyConfig).body,
      R"({"status":"connected","platform":"windows","message":"Windows TUN helper connected"})");
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 1);
  EXPECT_EQ(Request("GET", "/status").body,
            R"({"status":"connected","platform":"windows","message":"Windows helper running"})");
  EXPECT_EQ(StopThroughScm().dwWin32ExitCode, 0u);
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
}

TEST_F(Service, StopRestoresTheProxyBeforeTheCoreEnds) {
  ResetTestRecords();
  const ProxyValues user{Dword(0), Text(L"user-proxy:8080"), Text(L"*.corp")};
  WriteProxyValues(user);
  ASSERT_TRUE(InstallAndStart(helper.ExePath()));
  ASSERT_EQ(Request("POST", "/start", kProxyConfig).body,
            R"({"status":"connected","platform":"windows","message":"Windows helper connected"})");
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));

  const SERVICE_STATUS stopped = StopThroughScm();
  EXPECT_EQ(stopped.dwWin32ExitCode, 0u);
  EXPECT_EQ(ReadProxyValues(), user);
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  // Enable, then restore: both notifications of the restore were sent while
  // the core still ran.
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n39\n37\n");
  EXPECT_EQ(ReadFileBytes(TestRecordDirectory() + L"\\wininet-cores.txt"), "1\n1\n1\n1\n");
}

TEST_F(Service, KilledServiceTakesItsCoreAlongAndTheNextStartPutsTheProxyBack) {
  ResetTestRecords();
  const ProxyValues user{Dword(0), Text(L"user-proxy:8080"), Text(L"*.corp")};
  WriteProxyValues(user);
  ASSERT_TRUE(InstallAndStart(helper.ExePath()));
  ASSERT_EQ(Request("POST", "/start", kProxyConfig).body,
            R"({"status":"connected","platform":"windows","message":"Windows helper connected"})");
  ASSERT_EQ(CountProcessesNamed(L"sing-box.exe"), 1);
  KillProcessesNamed(L"OrvelVpnHelper.exe");
  for (int i = 0; i < 400 && CountProcessesNamed(L"sing-box.exe") > 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));

  ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  ScHandle service(OpenServiceW(manager.h, kService, SERVICE_ALL_ACCESS));
  // Windows restarts the service by itself 5 s later. Wine 8's SCM does not,
  // nor does it notice the end: it goes on reporting "running", yet starts
  // the service again when asked.
  ASSERT_TRUE(StartServiceW(service.h, 0, nullptr) ||
              GetLastError() == ERROR_SERVICE_ALREADY_RUNNING)
      << GetLastError();
  ASSERT_EQ(WaitForPong(), "pong");
  EXPECT_EQ(ReadProxyValues(), user);
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n39\n37\n");
  EXPECT_NE(Request("GET", "/logs")
                .body.find("] Restored the proxy settings saved before the helper last ended\r\n"),
            std::string::npos);
  EXPECT_EQ(StopThroughScm().dwWin32ExitCode, 0u);
}

TEST_F(Service, StartsAndStopsThroughTheServiceControlManager) {
  ASSERT_EQ(Install(helper.ExePath()), 0u);
  ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  ScHandle service(OpenServiceW(manager.h, kService, SERVICE_ALL_ACCESS));
  ASSERT_NE(service.h, nullptr);
  ASSERT_TRUE(StartServiceW(service.h, 0, nullptr));
  SERVICE_STATUS status{};
  ASSERT_TRUE(WaitForState(service.h, SERVICE_RUNNING, &status));
  EXPECT_EQ(status.dwControlsAccepted, static_cast<DWORD>(SERVICE_ACCEPT_STOP));
  // Running is reported before the listener is bound.
  EXPECT_EQ(WaitForPong(), "pong");
  EXPECT_NE(Request("GET", "/logs").body.find("] OrvelVpnHelper started\r\n"), std::string::npos);

  // An interrogate gets no fresh report, and the service keeps running.
  ControlService(service.h, SERVICE_CONTROL_INTERROGATE, &status);
  EXPECT_EQ(QueryState(service.h), static_cast<DWORD>(SERVICE_RUNNING));

  EXPECT_EQ(StopThroughScm().dwWin32ExitCode, 0u);
  EXPECT_EQ(ConnectLoopback(kHelperPort, 1000), INVALID_SOCKET);
}

std::size_t CountOf(const std::string& text, std::string_view part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

// A refused configuration changes nothing: the running core and its file stay,
// the user's proxy is not touched, no process starts and no file is written;
// each refusal is one log line. The stand-alone helper runs the same text.
TEST_F(Service, RefusesConfigurationsThatRunProgramsOrLeaveTheDataDirectory) {
  const std::string tor =
      R"({"outbounds":[{"type":"tor","tag":"t","executable_path":"C:\\Windows\\System32\\calc.exe"}]})";
  const std::string tun =
      R"({"inbounds":[{"type":"tun","tag":"tun-in","address":["172.18.0.1/30"]}],)"
      R"("experimental":{"cache_file":{"enabled":true,"path":"cache.db"}}})";
  const std::string tunConnected =
      R"({"status":"connected","platform":"windows","message":"Windows TUN helper connected"})";
  ASSERT_TRUE(helper.Start(CorePlacement::kBesideExe)) << helper.error;
  EXPECT_EQ(Request("POST", "/start-tun", tor).body, tunConnected);
  helper.Stop();

  ResetTestRecords();
  ClearFetchRecords();
  ASSERT_TRUE(InstallAndStart(helper.ExePath()));
  ASSERT_EQ(Request("POST", "/start-tun", tun).body, tunConnected);
  const std::wstring configPath = HelperDataDirectory() + L"\\sing-box.json";
  EXPECT_EQ(ReadFileBytes(configPath), tun);
  ResetTestRecords();

  const struct {
    std::string_view route;
    std::string config;
    std::string_view refusal;
  } cases[] = {
      {"/start-tun", tor, "outbounds[0].type is tor, which runs a program"},
      {"/start", R"({"log":{"output":"C:\\Windows\\evil.txt"}})",
       "log.output contains ':' (a drive, stream or device)"},
      {"/start-tun", R"({"experimental":{"clash_api":{"external_ui":"C:\\"}}})",
       "experimental.clash_api.external_ui contains ':' (a drive, stream or device)"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Request("POST", c.route, c.config).body,
              R"({"status":"disconnected","platform":"windows","message":)"
              R"("configuration refused by the service: )" +
                  std::string(c.refusal) + "\"}")
        << c.config;
  }
  UrlTestRequest request;
  request.requestId = "guarded";
  request.url = "http://cp.example.test/generate_204";
  request.nodeTags = {"delay-10", "delay-20"};
  request.config = tor;
  const UrlTestStream stream = RunUrlTest(EncodeUrlTestBody(request, 2));
  EXPECT_EQ(stream.head, kUrlTestStreamHead);
  std::string lines;
  for (const StreamLine& line : stream.lines) lines += line.text;
  EXPECT_EQ(lines,
            "{\"nodeTag\":\"delay-10\",\"delayMs\":0}\n{\"nodeTag\":\"delay-20\",\"delayMs\":0}\n");
  EXPECT_TRUE(stream.closedByPeer);

  EXPECT_EQ(ReadFileBytes(configPath), tun);
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 1);
  EXPECT_TRUE(ReadCoreInvocation().empty());
  EXPECT_EQ(ReadWininetCalls(), "");
  EXPECT_TRUE(ReadFetchRecords().empty());
  EXPECT_TRUE(UrlTestConfigFiles().empty());
  const std::string logs = Request("GET", "/logs").body;
  EXPECT_EQ(CountOf(logs, "configuration refused by the service: "), 4u) << logs;
  EXPECT_NE(logs.find("] URLTest configuration refused by the service: outbounds[0].type is tor, "
                      "which runs a program\r\n"),
            std::string::npos);
  EXPECT_EQ(logs.find("URLTest stream started"), std::string::npos);
  EXPECT_EQ(Request("GET", "/status").body,
            R"({"status":"connected","platform":"windows","message":"Windows helper running"})");
  EXPECT_EQ(StopThroughScm().dwWin32ExitCode, 0u);
}

}  // namespace
}  // namespace orvel::test
