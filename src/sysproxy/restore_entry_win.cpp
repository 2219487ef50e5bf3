#include <windows.h>

#include <string>

#include "core/paths.h"
#include "core/run_mode.h"
#include "sysproxy/restore_entry.h"

namespace orvel {

namespace {

constexpr const wchar_t* kRunKey = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";

}  // namespace

void CreateRestoreEntry() {
  // The service's HKCU is its own account's, where no logon ever runs it.
  const std::wstring executable = GetExecutablePath().wstring();
  if (IsRunningAsService() || executable.empty()) return;
  const std::wstring command = BuildRestoreRunCommand(executable);
  HKEY key = nullptr;
  if (RegCreateKeyExW(HKEY_CURRENT_USER, kRunKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key,
                      nullptr) != ERROR_SUCCESS) {
    return;
  }
  RegSetValueExW(key, kRestoreRunValueName, 0, REG_SZ,
                 reinterpret_cast<const BYTE*>(command.c_str()),
                 static_cast<DWORD>((command.size() + 1) * sizeof(wchar_t)));
  RegCloseKey(key);
}

void RemoveRestoreEntry() {
  if (IsRunningAsService()) return;
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, kRunKey, 0, KEY_SET_VALUE, &key) != ERROR_SUCCESS) return;
  RegDeleteValueW(key, kRestoreRunValueName);
  RegCloseKey(key);
}

}  // namespace orvel
