#include <windows.h>
// windows.h first: sddl.h depends on it.
#include <sddl.h>

#include <array>
#include <string>

#include "api/control_server.h"
#include "commands/vpn_commands.h"
#include "core/paths.h"
#include "core/run_mode.h"
#include "entry/service_failure_actions.h"
#include "entry/service_host_win.h"

namespace orvel {

namespace {

constexpr const wchar_t* kServiceDisplayName = L"Orvel VPN Helper Service";
constexpr const wchar_t* kServiceDescription = L"Runs sing-box TUN mode for Orvel VPN.";
constexpr DWORD kServiceAccess =
    WRITE_DAC | SERVICE_START | SERVICE_QUERY_STATUS | SERVICE_CHANGE_CONFIG;
constexpr ULONGLONG kStopWaitMs = 30000;
static_assert(kServiceActionRestart == SC_ACTION_RESTART);

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

// Asks the service to stop unless it is stopped or stopping already, and
// waits up to 30 s for "stopped". A service still starting is asked once it
// runs: it accepts no control before.
bool StopServiceAndWait(SC_HANDLE service) {
  const ULONGLONG deadline = GetTickCount64() + kStopWaitMs;
  bool asked = false;
  SERVICE_STATUS status{};
  while (QueryServiceStatus(service, &status)) {
    const DWORD state = status.dwCurrentState;
    if (state == SERVICE_STOPPED) return true;
    if (!asked && state != SERVICE_START_PENDING && state != SERVICE_STOP_PENDING) {
      // The helper ends its process right after reporting "stopped", so the
      // reply may be lost with the pipe (109); a service that stopped
      // meanwhile answers 1062, one that went back to starting 1061. The
      // state read next tells what happened.
      asked = ControlService(service, SERVICE_CONTROL_STOP, &status) != FALSE;
      const DWORD error = asked ? ERROR_SUCCESS : GetLastError();
      if (error == ERROR_BROKEN_PIPE || error == ERROR_SERVICE_NOT_ACTIVE) asked = true;
      if (!asked && error != ERROR_SERVICE_CANNOT_ACCEPT_CTRL) return false;
    }
    if (GetTickCount64() >= deadline) return false;
    Sleep(100);
  }
  return false;
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
  // kill) is started again. The answer is checked: a service that stays down
  // after a crash leaves the user without the VPN until the next boot.
  const ServiceFailureActions plan = BuildServiceFailureActions();
  std::array<SC_ACTION, std::tuple_size_v<decltype(plan.actions)>> actions{};
  for (std::size_t i = 0; i < plan.actions.size(); ++i) {
    actions[i] = {static_cast<SC_ACTION_TYPE>(plan.actions[i].type), plan.actions[i].delayMs};
  }
  SERVICE_FAILURE_ACTIONSW failureActions{};
  failureActions.dwResetPeriod = plan.resetPeriodSeconds;
  failureActions.cActions = static_cast<DWORD>(plan.actions.size());
  failureActions.lpsaActions = actions.data();
  const bool recoverySet =
      ChangeServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, &failureActions) != FALSE;

  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorW(kServiceSecurityDescriptor,
                                                           SDDL_REVISION_1, &descriptor, nullptr)) {
    SetServiceObjectSecurity(service, DACL_SECURITY_INFORMATION, descriptor);
    LocalFree(descriptor);
  }
  CloseServiceHandle(service);
  CloseServiceHandle(manager);
  return recoverySet ? 0 : 4;
}

int UninstallService() {
  SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
  if (manager == nullptr) return 2;
  SC_HANDLE service =
      OpenServiceW(manager, kServiceName, SERVICE_STOP | SERVICE_QUERY_STATUS | DELETE);
  if (service == nullptr) {
    const DWORD error = GetLastError();
    CloseServiceHandle(manager);
    return error == ERROR_SERVICE_DOES_NOT_EXIST ? 0 : 3;
  }
  // Deleting a running service only marks it: the registration would linger
  // until the process ends, and an install meeting it then fails (1072).
  // Another handle held open elsewhere (a management console) has the same
  // effect; the deletion still completes once it is closed.
  const bool removed =
      StopServiceAndWait(service) &&
      (DeleteService(service) || GetLastError() == ERROR_SERVICE_MARKED_FOR_DELETE);
  CloseServiceHandle(service);
  CloseServiceHandle(manager);
  return removed ? 0 : 3;
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
