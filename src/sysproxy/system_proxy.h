#pragma once

#include <cstdint>
#include <string>

namespace orvel {

// The user's proxy values as they were before the helper first pointed the
// system proxy at the core. Held in memory, and also on disk in the proxy
// state file (sysproxy/proxy_state.h) for as long as the helper's own values
// may be in the registry, so that a helper started after a crash can repair
// what a helper that ended while `saved` was true left behind.
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
// Snapshot, then the proxy state file (no registry change when it cannot be
// written), then ProxyEnable=1, ProxyServer at 127.0.0.1:port, the loopback
// bypass list, and the change notification. Writes made before a failure are
// not undone here: the caller restores.
bool EnableSystemProxy(int port, std::string& errorMessage);
// Writes the snapshot back (ProxyEnable always; the strings deleted when they
// were empty), drops it and deletes the proxy state file. True at once when
// nothing is saved. On failure the snapshot and the file stay so that the
// next restore tries again.
bool RestoreSystemProxy(std::string& errorMessage);
// "Settings changed", then (only if that worked) "refresh", through WinINet.
bool NotifyProxySettingsChanged();

// Start-up, before the listener opens: a proxy state file means the last
// helper ended while its values were in the registry. The user's values go
// back (and WinINet is told) only while ProxyServer still holds the helper's
// value; a user who changed the settings since keeps them. A file that cannot
// be read is ignored. The file is removed once dealt with, and one log line
// says what happened; without a file nothing is done or logged. When the
// restore itself fails, the values stay saved (in memory and on disk) for the
// next stop, start or helper start to try again.
void RecoverSystemProxyAtStartup();

}  // namespace orvel
