// The helper as a Windows service under Wine's Service Control Manager: the
// installer's switch and registration, the service's life through the SCM
// (its core, the proxy put back on stop and after a crash), and the
// configurations the service refuses to run as LocalSystem.
#include <gtest/gtest.h>
#include <windows.h>
// windows.h first: sddl.h depends on it.
#include <sddl.h>

#include <memory>
#include <regex>
#include <thread>
#include <type_traits>

#include "entry/service_host.h"
#include "support/harness.h"
#include "urltest/urltest_body.h"

namespace orvel::test {
namespace {

constexpr const wchar_t* kService = L"OrvelVpnHelperService";
constexpr const wchar_t* kSddl =
    L"D:(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)(A;;LCRPWP;;;AU)";

using ScHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, decltype(&CloseServiceHandle)>;

ScHandle OpenOurService() {
  const ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS),
                         CloseServiceHandle);
  return ScHandle(OpenServiceW(manager.get(), kService, SERVICE_ALL_ACCESS), CloseServiceHandle);
}

// Polls `check` for up to 10 s.
template <typename Check>
bool WaitFor(Check check) {
  for (int i = 0; i < 400; ++i) {
    if (check()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
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
// Running is reported before the listener is bound.
SERVICE_STATUS StartThroughScm() {
  const ScHandle service = OpenOurService();
  // After a crash Windows restarts the service by itself 5 s later. Wine 8's
  // SCM does not, nor does it notice the end: it goes on reporting "running",
  // yet starts the service again when asked.
  EXPECT_TRUE(StartServiceW(service.get(), 0, nullptr) ||
              GetLastError() == ERROR_SERVICE_ALREADY_RUNNING)
      << GetLastError();
  const SERVICE_STATUS status = WaitForState(service, SERVICE_RUNNING);
  return WaitFor(Pong) ? status : SERVICE_STATUS{};
}

bool RunningUnderWine() {
  return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

constexpr std::string_view kProxyConfig =
    R"({"inbounds":[{"type":"mixed","tag":"orvel-vpn-mixed","listen":"127.0.0.1","listen_port":2080}]})";
constexpr std::string_view kConnected =
    R"({"status":"connected","platform":"windows","message":"Windows helper connected"})";
constexpr std::string_view kTunConnected =
    R"({"status":"connected","platform":"windows","message":"Windows TUN helper connected"})";

// Each test starts with no service and a stand-alone helper that has
// prepared its folder; a test ends that helper before the service needs the
// port.
class Service : public ::testing::Test {
 protected:
  void SetUp() override {
    RemoveService();
    ASSERT_TRUE(helper.Start()) << helper.error;
  }
  void TearDown() override {
    RemoveService();
    KillProcessesNamed(L"OrvelVpnHelper.exe");
    ForgetLastStartedService();
  }
  ScopedHelper helper;
};

TEST_F(Service, InstallSwitchIsFoundAnywhereAndTheLatestInstallIsRegistered) {
  // Beside a running helper: "--install" alone is not the switch (the second
  // stand-alone instance ends at once), and installer mode takes no mutex.
  EXPECT_EQ(RunAndWait(helper.ExePath(), L"--install", 30000), 0u);
  EXPECT_EQ(OpenOurService(), nullptr);
  ASSERT_EQ(RunAndWait(helper.ExePath(), L"xx--install-serviceyy and more words", 30000), 0u);
  ASSERT_NE(OpenOurService(), nullptr);
  // Installing again from another folder moves the registration there, and
  // installer mode starts no server of its own.
  helper.Stop();
  const std::wstring moved = helper.directory + L"\\moved\\OrvelVpnHelper.exe";
  CreateDirectoryW((helper.directory + L"\\moved").c_str(), nullptr);
  ASSERT_TRUE(CopyFileW(helper.ExePath().c_str(), moved.c_str(), FALSE));
  ASSERT_EQ(RunAndWait(moved, L"before --install-service", 30000), 0u);
  EXPECT_FALSE(Pong());

  const ScHandle service = OpenOurService();
  std::vector<unsigned char> buffer(8192);
  const DWORD size = static_cast<DWORD>(buffer.size());
  DWORD needed = 0;
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  ASSERT_TRUE(QueryServiceConfigW(service.get(), config, size, &needed));
  // Auto start, own process, normal error control.
  EXPECT_EQ(std::wstring(config->lpBinaryPathName) + L"|" + config->lpDisplayName + L"|" +
                config->lpServiceStartName + L"|" + std::to_wstring(config->dwStartType) + L" " +
                std::to_wstring(config->dwServiceType) + L" " +
                std::to_wstring(config->dwErrorControl),
            L"\"" + moved + L"\"|Orvel VPN Helper Service|LocalSystem|2 16 1");
  ASSERT_TRUE(QueryServiceConfig2W(service.get(), SERVICE_CONFIG_DESCRIPTION, buffer.data(), size,
                                   &needed));
  EXPECT_STREQ(reinterpret_cast<SERVICE_DESCRIPTIONW*>(buffer.data())->lpDescription,
               L"Runs sing-box TUN mode for Orvel VPN.");

  // Reset period, then each action as type/delay: restart after 5 s twice,
  // then nothing more until a day without failures has passed. Wine 8's SCM
  // keeps no failure actions and refuses to read them.
  if (QueryServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, buffer.data(), size,
                           &needed)) {
    const auto* failure = reinterpret_cast<SERVICE_FAILURE_ACTIONSW*>(buffer.data());
    std::string actions = std::to_string(failure->dwResetPeriod);
    for (DWORD i = 0; i < failure->cActions; ++i) {
      actions += ' ' + std::to_string(failure->lpsaActions[i].Type) + '/' +
                 std::to_string(failure->lpsaActions[i].Delay);
    }
    EXPECT_EQ(actions, "86400 1/5000 1/5000 0/0");
  } else {
    EXPECT_TRUE(RunningUnderWine()) << GetLastError();
  }

  // Wine's SCM keeps no service security (SetServiceObjectSecurity is a
  // stub), so there the text itself is checked: a typo would make the
  // conversion fail and the installer skip the step silently.
  PSECURITY_DESCRIPTOR descriptor = buffer.data();
  ASSERT_TRUE(RunningUnderWine()
                  ? ConvertStringSecurityDescriptorToSecurityDescriptorW(
                        kServiceSecurityDescriptor, SDDL_REVISION_1, &descriptor, nullptr)
                  : QueryServiceObjectSecurity(service.get(), DACL_SECURITY_INFORMATION, descriptor,
                                               size, &needed));
  LPWSTR dacl = nullptr;
  ASSERT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(
      descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &dacl, nullptr));
  EXPECT_STREQ(dacl, kSddl);
  LocalFree(dacl);
  if (descriptor != buffer.data()) LocalFree(descriptor);
}

TEST_F(Service, RunsTheCoreRefusesUnsafeConfigurationsAndPutsTheProxyBack) {
  // The stand-alone helper runs what the service refuses below.
  const std::string tor =
      R"({"outbounds":[{"type":"tor","tag":"t","executable_path":"C:\\Windows\\System32\\calc.exe"}]})";
  EXPECT_EQ(Request("POST", "/start-tun", tor).body, kTunConnected);
  helper.Stop();

  ResetTestRecords();
  const ProxyValues user{Dword(0), Text(L"user-proxy:8080"), Text(L"*.corp")};
  WriteProxyValues(user);
  ASSERT_EQ(RunAndWait(helper.ExePath(), L"--install-service", 30000), 0u);
  const SERVICE_STATUS running = StartThroughScm();
  ASSERT_EQ(running.dwCurrentState, static_cast<DWORD>(SERVICE_RUNNING));
  EXPECT_EQ(running.dwControlsAccepted, static_cast<DWORD>(SERVICE_ACCEPT_STOP));
  // An interrogate gets no fresh report, and the service keeps running.
  const ScHandle service = OpenOurService();
  SERVICE_STATUS status{};
  ControlService(service.get(), SERVICE_CONTROL_INTERROGATE, &status);
  EXPECT_TRUE(QueryServiceStatus(service.get(), &status));
  EXPECT_EQ(status.dwCurrentState, static_cast<DWORD>(SERVICE_RUNNING));

  // Killed with its core running and the proxy set: the core goes with it,
  // and the next start puts the user's proxy back.
  ASSERT_EQ(Request("POST", "/start", kProxyConfig).body, kConnected);
  ASSERT_EQ(CountProcessesNamed(L"sing-box.exe"), 1);
  KillProcessesNamed(L"OrvelVpnHelper.exe");
  EXPECT_EQ(WaitUntilNoProcessNamed(L"sing-box.exe", 10000), 0);
  EXPECT_EQ(ReadProxyValues(), HelperProxyValues(2080));
  ASSERT_EQ(StartThroughScm().dwCurrentState, static_cast<DWORD>(SERVICE_RUNNING));
  EXPECT_EQ(ReadProxyValues(), user);
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n39\n37\n");
  EXPECT_TRUE(LogHasLine("Restored the proxy settings saved before the helper last ended"));

  // A refused configuration changes nothing: the running core and its file
  // stay, the proxy is not touched, no process starts and no file is
  // written; each refusal is one log line.
  const std::string tun = R"({"inbounds":[{"type":"tun","tag":"tun-in"}]})";
  ASSERT_EQ(Request("POST", "/start-tun", tun).body, kTunConnected);
  ResetTestRecords();
  const auto refusal = [](std::string_view why) {
    return R"({"status":"disconnected","platform":"windows","message":)"
           R"("configuration refused by the service: )" +
           std::string(why) + "\"}";
  };
  EXPECT_EQ(Request("POST", "/start-tun", tor).body,
            refusal("outbounds[0].type is tor, which runs a program"));
  EXPECT_EQ(Request("POST", "/start", R"({"log":{"output":"C:\\Windows\\evil.txt"}})").body,
            refusal("log.output contains ':' (a drive, stream or device)"));
  const UrlTestStream stream = RunUrlTest(EncodeUrlTestBody(
      {"guarded", "http://cp.example.test/generate_204", {"delay-10", "delay-20"}, tor}, 2));
  std::string answer = stream.head;
  for (const auto& line : stream.lines) answer += line.first + "\n";
  EXPECT_EQ(answer, std::string(kUrlTestStreamHead) +
                        "{\"nodeTag\":\"delay-10\",\"delayMs\":0}\n"
                        "{\"nodeTag\":\"delay-20\",\"delayMs\":0}\n");
  EXPECT_TRUE(stream.closedByPeer);
  EXPECT_EQ(ReadFileBytes(HelperDataDirectory() + L"\\sing-box.json"), tun);
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 1);
  EXPECT_EQ(ReadFileBytes(RecordPath(L"core-run.txt")), "");
  EXPECT_EQ(ReadWininetCalls(), "");
  EXPECT_TRUE(ReadFetchRecords().empty());
  EXPECT_TRUE(UrlTestConfigFiles().empty());
  const std::string logs = Logs();
  const std::regex refused("configuration refused by the service: ");
  EXPECT_EQ(std::distance(std::sregex_iterator(logs.begin(), logs.end(), refused), {}), 3) << logs;
  EXPECT_TRUE(
      LogHasLine("URLTest configuration refused by the service: outbounds[0].type is tor, "
                 "which runs a program"));
  EXPECT_EQ(logs.find("URLTest stream started"), std::string::npos);
  EXPECT_EQ(Request("GET", "/status").body,
            R"({"status":"connected","platform":"windows","message":"Windows helper running"})");

  // Stopped through the SCM: the proxy is put back, both notifications sent
  // while the core still ran, then the core ends and the port is closed.
  ResetTestRecords();
  ASSERT_EQ(Request("POST", "/start", kProxyConfig).body, kConnected);
  EXPECT_TRUE(StopThroughScm(service));
  EXPECT_EQ(ReadProxyValues(), user);
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  EXPECT_EQ(ReadWininetCalls(), "39\n37\n39\n37\n");
  EXPECT_EQ(ReadFileBytes(RecordPath(L"wininet-cores.txt")), "1\n1\n1\n1\n");
  EXPECT_FALSE(Pong());
}

}  // namespace
}  // namespace orvel::test
