#include <windows.h>
// windows.h first: objbase.h depends on it.
#include <objbase.h>

#include <string>

#include "api/control_server.h"
#include "commands/vpn_commands.h"
#include "core/child_process.h"
#include "entry/service_host_win.h"
#include "entry/session_end.h"

namespace {

DWORD RunHelper(const std::wstring& commandLine) {
  // A plain substring search: "--install-service" anywhere selects installer
  // mode, and nothing else runs then (no log line, no mutex, no server).
  if (commandLine.find(L"--install-service") != std::wstring::npos) {
    return static_cast<DWORD>(orvel::InstallService());
  }
  // Matched the same way. A package's uninstaller runs it; it too starts no
  // server and writes no log line.
  if (commandLine.find(L"--uninstall-service") != std::wstring::npos) {
    return static_cast<DWORD>(orvel::UninstallService());
  }

  constexpr const wchar_t* kSingletonName = L"OrvelVpnHelperSingletonV2";
  // The run-at-logon entry: the start-up recovery alone, then exit 0. Under
  // the stand-alone helper's mutex, so that a helper that runs (and owns the
  // saved values) is never interfered with, nor one that starts meanwhile.
  if (commandLine.find(L"--restore-proxy") != std::wstring::npos) {
    HANDLE singleton = CreateMutexW(nullptr, TRUE, kSingletonName);
    if (singleton == nullptr) return 0;
    if (GetLastError() != ERROR_ALREADY_EXISTS) orvel::RecoverProxyAtStartup();
    CloseHandle(singleton);
    return 0;
  }

  SERVICE_TABLE_ENTRYW dispatchTable[] = {
      {const_cast<LPWSTR>(orvel::kServiceName), orvel::ServiceMain},
      {nullptr, nullptr},
  };
  if (StartServiceCtrlDispatcherW(dispatchTable)) return 0;
  if (GetLastError() != ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) return 0;

  // Stand-alone mode: one instance per session of the named mutex.
  HANDLE singleton = CreateMutexW(nullptr, TRUE, kSingletonName);
  if (singleton == nullptr) return 0;
  if (GetLastError() == ERROR_ALREADY_EXISTS) return 0;  // process exit releases the handle

  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  // After the mutex: a second instance must not touch the proxy.
  orvel::RecoverProxyAtStartup();
  orvel::StartSessionEndWatcher();
  const int result = orvel::RunControlServer();
  // Reached only when the listener could not be set up.
  orvel::RestoreProxyThenStopCore();
  CoUninitialize();
  CloseHandle(singleton);
  return static_cast<DWORD>(result);
}

}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR commandLine, int) {
  // Load system DLLs only from System32: the helper may run as LocalSystem,
  // and a DLL planted in the current folder must never be picked up.
  SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
  // Before any thread: every core and URL test process inherits them.
  orvel::SetCoreEnvironmentVariables();
  return static_cast<int>(RunHelper(commandLine != nullptr ? commandLine : L""));
}
