#pragma once

#include <cstdint>
#include <string>

namespace orvel {

// The user's proxy values as they were before the helper first pointed the
// system proxy at the core. Held in memory only; a process that ends while
// `saved` is true leaves the system proxy pointing at the loopback port.
struct SystemProxySettings {
  bool saved = false;
  std::uint32_t proxyEnable = 0;  // 0 when the value was absent
  std::wstring proxyServer;       // "" when absent or not a string
  std::wstring proxyOverride;     // "" when absent or not a string
};

// All of these work on the per-user Internet Settings key of the account the
// helper runs as. Failures return false with a fixed message in
// `errorMessage`, which is left untouched on success. No lock: commands are
// expected one at a time.

// Takes the snapshot unless one is already held (so repeated enables keep the
// user's values, never the helper's own).
bool SaveSystemProxy(std::string& errorMessage);
// Snapshot, then ProxyEnable=1, ProxyServer at 127.0.0.1:port, the loopback
// bypass list, and the change notification. Writes made before a failure are
// not undone here: the caller restores.
bool EnableSystemProxy(int port, std::string& errorMessage);
// Writes the snapshot back (ProxyEnable always; the strings deleted when they
// were empty) and drops it. True at once when nothing is saved. On failure the
// snapshot stays so that the next restore tries again.
bool RestoreSystemProxy(std::string& errorMessage);
// "Settings changed", then (only if that worked) "refresh", through WinINet.
bool NotifyProxySettingsChanged();

}  // namespace orvel
