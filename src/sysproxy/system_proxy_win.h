#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "sysproxy/proxy_state.h"

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

// <data directory>\proxy-state.txt.
std::wstring GetProxyStatePath();
// Creates the data directory if needed, writes the file whole under a
// temporary name, flushes it and renames it over the old one, so that a
// crash or power cut at any moment leaves either the old file or the new one
// complete. False with the step and the system's text in `reason` when any
// step failed.
bool WriteProxyStateFile(const SavedProxyState& state, std::string& reason);
// False when the file does not exist; otherwise true with `bytes` holding its
// first kMaxProxyStateBytes + 1 bytes (empty when it cannot be read at all).
bool ReadProxyStateFile(std::string& bytes);

}  // namespace orvel
