#include <windows.h>
// windows.h first: sddl.h depends on it.
#include <sddl.h>

#include <string>

#include "api/control_server.h"
#include "core/paths.h"
#include "core/run_mode.h"
#include "entry/service_host.h"
#include "commands/vpn_commands.h"

namespace orvel {

namespace {

constexpr const wchar_t* kServiceDisplayName = L"Orvel VPN Helper Service";
constexpr const wchar_t* kServiceDescription = L"Runs sing-box TUN mode for Orvel VPN.";
constexpr DWORD kServiceAccess =
    WRITE_DAC | SERVICE_START | SERVICE_QUERY_STATUS | SERVICE_CHANGE_CONFIG;
constexpr DWORD kRestartDelayMs = 5000;
constexpr DWORD kFailureCountResetSeconds = 24 * 60 * 60;

SERVICE_STATUS_HANDLE ServiceStatusHandle = nullptr;
SERVICE_STATUS ServiceStatus{};

void ReportServiceStatus(DWORD state, DWORD exitCode) {
  if (ServiceStatusHandle == nullptr) return;
  ServiceStatus.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  ServiceStatus.dwCurrentState = state;
  ServiceStatus.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
  ServiceStatus.dwWin32ExitCode = exitCode;
  SetServiceStatus(ServiceStatusHandle, &ServiceStatus);
}

void WINAPI ServiceControlHandler(DWORD control) {
  // Shutdown is never advertised, but is treated like stop should it come.
  if (control != SERVICE_CONTROL_STOP && control != SERVICE_CONTROL_SHUTDOWN) return;
  ReportServiceStatus(SERVICE_STOP_PENDING, 0);
  RestoreProxyThenStopCore();
  ReportServiceStatus(SERVICE_STOPPED, 0);
  // Connection threads are not waited for: nothing they hold needs saving.
  ExitProcess(0);
}

}  // namespace

int InstallService() {
  const std::wstring modulePath = GetExecutablePath().wstring();
  if (modulePath.empty()) return 1;
  SC_HANDLE manager =
      OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE);
  if (manager == nullptr) return 2;

  const std::wstring binaryPath = L"\"" + modulePath + L"\"";
  SC_HANDLE service =
      CreateServiceW(manager, kServiceName, kServiceDisplayName, kServiceAccess,
                     SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                     binaryPath.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
  if (service == nullptr && GetLastError() == ERROR_SERVICE_EXISTS) {
    service = OpenServiceW(manager, kServiceName, kServiceAccess);
    if (service != nullptr) {
      // Moves an existing registration to where the executable lies now.
      ChangeServiceConfigW(service, SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START,
                           SERVICE_ERROR_NORMAL, binaryPath.c_str(), nullptr, nullptr, nullptr,
                           nullptr, nullptr, kServiceDisplayName);
    }
  }
  if (service == nullptr) {
    CloseServiceHandle(manager);
    return 3;
  }

  SERVICE_DESCRIPTIONW description{const_cast<LPWSTR>(kServiceDescription)};
  ChangeServiceConfig2W(service, SERVICE_CONFIG_DESCRIPTION, &description);

  // A service process that ends without reporting "stopped" (a crash, a
  // kill) is restarted twice, 5 s after each failure; the count starts again
  // after a day without failures. The closing "none" matters: past the end of
  // the list the SCM repeats the last action, which would restart for ever.
  SC_ACTION actions[] = {{SC_ACTION_RESTART, kRestartDelayMs},
                         {SC_ACTION_RESTART, kRestartDelayMs},
                         {SC_ACTION_NONE, 0}};
  SERVICE_FAILURE_ACTIONSW failureActions{};
  failureActions.dwResetPeriod = kFailureCountResetSeconds;
  failureActions.cActions = sizeof(actions) / sizeof(actions[0]);
  failureActions.lpsaActions = actions;
  ChangeServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, &failureActions);

  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorW(kServiceSecurityDescriptor,
                                                           SDDL_REVISION_1, &descriptor, nullptr)) {
    SetServiceObjectSecurity(service, DACL_SECURITY_INFORMATION, descriptor);
    LocalFree(descriptor);
  }
  CloseServiceHandle(service);
  CloseServiceHandle(manager);
  return 0;
}

void WINAPI ServiceMain(DWORD, LPWSTR*) {
  ServiceStatusHandle = RegisterServiceCtrlHandlerW(kServiceName, ServiceControlHandler);
  if (ServiceStatusHandle == nullptr) return;
  ReportServiceStatus(SERVICE_START_PENDING, 0);
  ReportServiceStatus(SERVICE_RUNNING, 0);
  MarkRunningAsService();
  RecoverProxyAtStartup();
  const int result = RunControlServer();
  ReportServiceStatus(SERVICE_STOPPED, static_cast<DWORD>(result));
}

}  // namespace orvel
