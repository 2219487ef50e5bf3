// The helper as a Windows service under Wine's Service Control Manager: the
// installer's switch and registration, the service's life through the SCM
// (its core, the proxy put back on stop and after a crash), and the
// configurations the service refuses to run as LocalSystem.
#include <gtest/gtest.h>
#include <windows.h>
// windows.h first: sddl.h depends on it.
#include <sddl.h>

#include <memory>
#include <type_traits>

#include "entry/service_host.h"
#include "support/harness.h"
#include "urltest/urltest_body.h"

namespace orvel::test {
namespace {

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

constexpr std::string_view kProxyConfig =
    R"({"inbounds":[{"type":"mixed","tag":"orvel-vpn-mixed","listen":"127.0.0.1","listen_port":2080}]})";
constexpr std::string_view kConnected =
    R"({"status":"connected","platform":"windows","message":"Windows helper connected"})";

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
      L"\"" + moved +
          L"\"|Orvel VPN Helper Service|Runs sing-box TUN mode for Orvel VPN.|LocalSystem|2161");
  // Wine's SCM keeps neither failure actions nor service security, so only
  // the security text is checked: one that does not convert makes the
  // installer skip the step silently.
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(
      kServiceSecurityDescriptor, SDDL_REVISION_1, &descriptor, nullptr));
  LocalFree(descriptor);
}

TEST_F(Service, RunsTheCoreRefusesUnsafeConfigurationsAndPutsTheProxyBack) {
  // The stand-alone helper runs what the service refuses below.
  const std::string tor =
      R"({"outbounds":[{"type":"tor","tag":"t","executable_path":"C:\\Windows\\System32\\calc.exe"}]})";
  EXPECT_EQ(
      Request("POST", "/start-tun", tor).body,
      R"({"status":"connected","platform":"windows","message":"Windows TUN helper connected"})");
  helper.Stop();

  ResetTestRecords();
  const ProxyValues user{Dword(0), Text(L"user-proxy:8080"), Text(L"*.corp")};
  WriteProxyValues(user);
  ASSERT_EQ(RunAndWait(helper.ExePath(), L"--install-service", 30000), 0u);
  const SERVICE_STATUS running = StartThroughScm();
  ASSERT_EQ(running.dwCurrentState, DWORD{SERVICE_RUNNING});
  EXPECT_EQ(running.dwControlsAccepted, DWORD{SERVICE_ACCEPT_STOP});
  // Killed with its core running: the core goes with it. What the next start
  // puts back shows in the proxy the stop leaves below.
  ASSERT_EQ(Request("POST", "/start", kProxyConfig).body, kConnected);
  KillProcessesNamed(L"OrvelVpnHelper.exe");
  EXPECT_EQ(WaitUntilNoProcessNamed(L"sing-box.exe", 10000), 0);
  ASSERT_EQ(StartThroughScm().dwCurrentState, DWORD{SERVICE_RUNNING});

  // One refusal per route: it changes nothing (the running core and its
  // file stay, no process starts, the proxy is not touched) and is logged.
  ASSERT_EQ(Request("POST", "/start", kProxyConfig).body, kConnected);
  ResetTestRecords();
  const std::string refused = "configuration refused by the service: ";
  const std::string answer =
      R"({"status":"disconnected","platform":"windows","message":")" + refused;
  EXPECT_EQ(Request("POST", "/start-tun", tor).body,
            answer + "outbounds[0].type is tor, which runs a program\"}");
  EXPECT_EQ(Request("POST", "/start", R"({"log":{"output":"C:\\Windows\\evil.txt"}})").body,
            answer + "log.output contains ':' (a drive, stream or device)\"}");
  const UrlTestStream stream = RunUrlTest(EncodeUrlTestBody(
      {"guarded", "http://cp.example.test/generate_204", {"delay-10", "delay-20"}, tor}, 2));
  EXPECT_EQ(stream.lines.at(0).first + stream.lines.at(1).first,
            R"({"nodeTag":"delay-10","delayMs":0}{"nodeTag":"delay-20","delayMs":0})");
  EXPECT_TRUE(LogHasLine("URLTest " + refused + "outbounds[0].type is tor, which runs a program"));
  EXPECT_EQ(ReadFileBytes(HelperDataDirectory() + L"\\sing-box.json"), kProxyConfig);
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

}  // namespace
}  // namespace orvel::test
