#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

namespace orvel {

// The user's proxy values as they were before the helper first pointed the
// system proxy at the core (see sysproxy/system_proxy.h).
struct SystemProxySettings {
  bool saved = false;
  std::uint32_t proxyEnable = 0;  // 0 when the value was absent
  std::wstring proxyServer;       // "" when absent or not a string
  std::wstring proxyOverride;     // "" when absent or not a string
};

// "Settings changed", then (only if that worked) "refresh", through WinINet.
bool NotifyProxySettingsChanged();

// A REG_SZ or REG_EXPAND_SZ value (unexpanded) without its trailing zeros;
// "" when the value is absent, unreadable or of another type.
std::wstring ReadRegistryString(HKEY key, const wchar_t* valueName);

}  // namespace orvel
