#include <windows.h>

#include "commands/vpn_commands.h"
#include "entry/session_end.h"

namespace orvel {

namespace {

constexpr const wchar_t* kWindowClass = L"OrvelVpnHelperSessionEnd";

LRESULT CALLBACK SessionEndProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  if (message == WM_QUERYENDSESSION) return TRUE;
  if (message == WM_ENDSESSION) {
    // wParam FALSE: another program refused and the session goes on.
    if (wParam != FALSE) RestoreProxyThenStopCore();
    return 0;
  }
  return DefWindowProcW(window, message, wParam, lParam);
}

DWORD WINAPI SessionEndThread(void*) {
  WNDCLASSW windowClass{};
  windowClass.lpfnWndProc = SessionEndProcedure;
  windowClass.hInstance = GetModuleHandleW(nullptr);
  windowClass.lpszClassName = kWindowClass;
  if (RegisterClassW(&windowClass) == 0) return 0;
  // Top-level (no parent, not HWND_MESSAGE) and never shown.
  HWND window = CreateWindowExW(0, kWindowClass, L"", WS_OVERLAPPED, 0, 0, 0, 0, nullptr, nullptr,
                                windowClass.hInstance, nullptr);
  if (window == nullptr) return 0;
  MSG message;
  while (GetMessageW(&message, nullptr, 0, 0) > 0) DispatchMessageW(&message);
  return 0;
}

}  // namespace

void StartSessionEndWatcher() {
  HANDLE thread = CreateThread(nullptr, 0, SessionEndThread, nullptr, 0, nullptr);
  // Runs until the process ends; nobody waits for it.
  if (thread != nullptr) CloseHandle(thread);
}

}  // namespace orvel
