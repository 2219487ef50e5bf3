#include "sysproxy/system_proxy_win.h"

#include "sysproxy/proxy_recovery.h"
#include "sysproxy/proxy_server_value.h"
#include "sysproxy/proxy_state.h"
#include "sysproxy/restore_entry.h"
#include "sysproxy/system_proxy.h"

namespace orvel {

namespace {

constexpr const wchar_t* kInternetSettingsKey =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings";
constexpr const wchar_t* kProxyBypassList = L"localhost;127.0.0.1;<local>";
constexpr DWORD kOptionSettingsChanged = 39;  // INTERNET_OPTION_SETTINGS_CHANGED
constexpr DWORD kOptionRefresh = 37;          // INTERNET_OPTION_REFRESH

SystemProxySettings SavedProxy;

using InternetSetOptionWFn = BOOL(WINAPI*)(void*, DWORD, void*, DWORD);

// wininet.dll is not a KnownDLL, so it is loaded from System32 explicitly and
// kept for the life of the process. Null when it cannot be loaded.
InternetSetOptionWFn LoadInternetSetOption() {
  static const InternetSetOptionWFn function = []() -> InternetSetOptionWFn {
    HMODULE module = LoadLibraryExW(L"wininet.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (module == nullptr) return nullptr;
    return reinterpret_cast<InternetSetOptionWFn>(
        reinterpret_cast<void*>(GetProcAddress(module, "InternetSetOptionW")));
  }();
  return function;
}

bool WriteDword(HKEY key, const wchar_t* name, DWORD value) {
  return RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                        sizeof(value)) == ERROR_SUCCESS;
}

bool WriteString(HKEY key, const wchar_t* name, const std::wstring& value) {
  // The terminating zero is part of the stored bytes.
  const DWORD bytes = static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t));
  return RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                        bytes) == ERROR_SUCCESS;
}

// An empty saved string means the value was absent (or not a string): it is
// deleted, and finding it already gone counts as success.
bool RestoreString(HKEY key, const wchar_t* name, const std::wstring& saved) {
  if (!saved.empty()) return WriteString(key, name, saved);
  const LSTATUS status = RegDeleteValueW(key, name);
  return status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND;
}

}  // namespace

std::wstring ReadRegistryString(HKEY key, const wchar_t* valueName) {
  DWORD type = 0;
  DWORD bytes = 0;
  if (RegQueryValueExW(key, valueName, nullptr, &type, nullptr, &bytes) != ERROR_SUCCESS ||
      (type != REG_SZ && type != REG_EXPAND_SZ)) {
    return {};
  }
  // Rounded up: a malformed value with an odd byte count must not be read
  // past the end of the buffer.
  std::wstring value((bytes + 1) / sizeof(wchar_t), L'\0');
  if (RegQueryValueExW(key, valueName, nullptr, &type, reinterpret_cast<BYTE*>(value.data()),
                       &bytes) != ERROR_SUCCESS) {
    return {};
  }
  while (!value.empty() && value.back() == L'\0') value.pop_back();
  return value;
}

bool NotifyProxySettingsChanged() {
  const InternetSetOptionWFn setOption = LoadInternetSetOption();
  if (setOption == nullptr) return false;
  return setOption(nullptr, kOptionSettingsChanged, nullptr, 0) &&
         setOption(nullptr, kOptionRefresh, nullptr, 0);
}

bool SaveSystemProxy(std::string& errorMessage) {
  if (SavedProxy.saved) return true;
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, kInternetSettingsKey, 0, KEY_QUERY_VALUE, &key) !=
      ERROR_SUCCESS) {
    errorMessage = "Failed to read Windows proxy registry key";
    return false;
  }
  // The read result is ignored on purpose: an absent value is saved as 0.
  DWORD enable = 0;
  DWORD bytes = sizeof(enable);
  RegQueryValueExW(key, L"ProxyEnable", nullptr, nullptr, reinterpret_cast<BYTE*>(&enable), &bytes);
  SavedProxy.proxyEnable = enable;
  SavedProxy.proxyServer = ReadRegistryString(key, L"ProxyServer");
  SavedProxy.proxyOverride = ReadRegistryString(key, L"ProxyOverride");
  RegCloseKey(key);
  SavedProxy.saved = true;
  return true;
}

bool EnableSystemProxy(int port, std::string& errorMessage) {
  if (!SaveSystemProxy(errorMessage)) return false;
  const std::wstring helperServer = BuildProxyServerValue(port);
  // On disk before the first registry write: from here on a crash at any
  // moment leaves what the next helper needs to put the user's values back.
  KeepProxyStateFile(EncodeProxyState(
      {SavedProxy.proxyEnable, SavedProxy.proxyServer, SavedProxy.proxyOverride, helperServer}));
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, kInternetSettingsKey, 0, KEY_SET_VALUE, &key) !=
      ERROR_SUCCESS) {
    errorMessage = "Failed to open Windows proxy registry key";
    return false;
  }
  const bool written = WriteDword(key, L"ProxyEnable", 1) &&
                       WriteString(key, L"ProxyServer", helperServer) &&
                       WriteString(key, L"ProxyOverride", kProxyBypassList);
  RegCloseKey(key);
  if (written && NotifyProxySettingsChanged()) {
    CreateRestoreEntry();
    return true;
  }
  errorMessage = "Failed to enable Windows system proxy";
  return false;
}

bool RestoreSystemProxy(std::string& errorMessage) {
  if (!SavedProxy.saved) return true;
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, kInternetSettingsKey, 0, KEY_SET_VALUE, &key) !=
      ERROR_SUCCESS) {
    errorMessage = "Failed to open Windows proxy registry key";
    return false;
  }
  // ProxyEnable is always written back, so one that was absent returns as 0.
  const bool restored = WriteDword(key, L"ProxyEnable", SavedProxy.proxyEnable) &&
                        RestoreString(key, L"ProxyServer", SavedProxy.proxyServer) &&
                        RestoreString(key, L"ProxyOverride", SavedProxy.proxyOverride);
  RegCloseKey(key);
  if (restored && NotifyProxySettingsChanged()) {
    SavedProxy.saved = false;
    // Only now: a crash before this line leaves the file for the next helper,
    // which finds the user's ProxyServer back in place and leaves it.
    DropProxyStateFile();
    return true;
  }
  errorMessage = "Failed to restore Windows system proxy";
  return false;
}

bool ProxyRecoveryApplies() { return true; }

SavedProxyVerdict TakeOverSavedProxy(std::string_view bytes) {
  SavedProxyState state;
  if (!ParseProxyState(bytes, state)) return SavedProxyVerdict::kUnreadable;
  std::wstring currentServer;
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, kInternetSettingsKey, 0, KEY_QUERY_VALUE, &key) ==
      ERROR_SUCCESS) {
    currentServer = ReadRegistryString(key, L"ProxyServer");
    RegCloseKey(key);
  }
  if (currentServer != state.helperProxyServer) return SavedProxyVerdict::kChangedSinceSet;
  SavedProxy = {true, state.proxyEnable, state.proxyServer, state.proxyOverride};
  return SavedProxyVerdict::kTakenOver;
}

}  // namespace orvel
