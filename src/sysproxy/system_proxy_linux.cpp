#include <string>
#include <vector>

#include "core/run_mode.h"
#include "log/log_buffer.h"
#include "sysproxy/desktop_proxy_linux.h"
#include "sysproxy/desktop_proxy_state.h"
#include "sysproxy/proxy_recovery.h"
#include "sysproxy/restore_entry.h"
#include "sysproxy/system_proxy.h"

namespace orvel {

namespace {

struct DesktopProxy {
  bool saved = false;
  DesktopProxyState state;  // the user's settings; `helper` what the helper set
  // Taken over from a helper that ended without restoring, at a time the
  // settings could not be read: written back only while they still hold
  // what that helper set.
  bool unchecked = false;
} Saved;

constexpr const char* kEnableFailed = "Failed to enable desktop system proxy";
constexpr const char* kRestoreFailed = "Failed to restore desktop system proxy";

// The client gets one sentence for every cause; the log line says which.
bool Fail(const char* message, const char* what, const std::string& cause,
          std::string& errorMessage) {
  HelperLog().Append(std::string("Desktop proxy ") + what + ": " + cause);
  errorMessage = message;
  return false;
}

// Writes `wanted` (GSettings keys, then KDE keys, each store tried even when
// the other failed); false with the first failure in `cause`.
bool WriteSettings(const std::vector<DesktopProxySetting>& wanted, std::string& cause) {
  const bool gsettings = WriteGSettings(wanted, cause);
  std::string kdeCause;
  const bool kde = WriteKdeKeys(wanted, kdeCause);
  if (gsettings && !kde) cause = kdeCause;
  return gsettings && kde;
}

// What the helper's values look like in the settings: the http proxy.
std::string HelperMarker(int port) {
  return "http://127.0.0.1:" + std::to_string(port >= 1 && port <= 65535 ? port : 7897);
}

// The http proxy the settings point at now, in the same form ("" when not
// manual).
std::string CurrentMarker() {
  if (SchemaInstalled() && GSettingsLast()) return GSettingsHttpProxy();
  return KdeApplies() ? KdeHttpProxy() : "";
}

// Only keys the helper itself saves are ever written back: a state file that
// names any other is not the helper's.
bool OnlyKnownKeys(const DesktopProxyState& state) {
  for (const DesktopProxySetting& setting : state.settings) {
    bool known = false;
    for (const GKey& key : kGKeys) known = known || setting.key == GKeyName(key);
    for (const char* key : kKdeKeys) known = known || setting.key == std::string("kde:") + key;
    if (!known) return false;
  }
  return true;
}

}  // namespace

bool SaveSystemProxy(std::string& errorMessage) {
  if (Saved.saved || IsRunningAsService()) return true;
  DesktopProxyState state;
  if (SchemaInstalled()) ReadUserGSettings(state.settings);
  std::string cause;
  if (KdeApplies() && !ReadKdeKeys(state.settings, cause)) {
    return Fail("Failed to read desktop proxy settings", "not read", cause, errorMessage);
  }
  Saved = {true, state};
  return true;
}

bool EnableSystemProxy(int port, std::string& errorMessage) {
  if (IsRunningAsService()) return true;
  // Settings that would not last are never reported set; nothing is saved or
  // changed, so the restore after the failed start has nothing to write.
  const bool gsettings = SchemaInstalled();
  std::string cause = WhyGSettingsForget();
  if (cause.empty() && !gsettings && !KdeApplies()) {
    cause = std::string("GSettings schema ") + kProxySchema +
            " is not installed and the desktop is not KDE";
  }
  if (!cause.empty()) return Fail(kEnableFailed, "not set", cause, errorMessage);
  if (!SaveSystemProxy(errorMessage)) return false;
  Saved.state.helper = HelperMarker(port);
  Saved.unchecked = false;
  KeepProxyStateFile(EncodeDesktopProxyState(Saved.state));
  const std::string at = Saved.state.helper.substr(7);  // 127.0.0.1:port
  std::vector<DesktopProxySetting> wanted;
  if (gsettings) AddHelperGSettings(wanted, at.substr(at.find(':') + 1));
  if (KdeApplies()) AddHelperKdeKeys(wanted, at);
  if (!WriteSettings(wanted, cause)) return Fail(kEnableFailed, "not set", cause, errorMessage);
  if (KdeApplies()) TellKdeProgramsToReread();
  CreateRestoreEntry();
  return true;
}

bool RestoreSystemProxy(std::string& errorMessage) {
  if (!Saved.saved) return true;
  std::string cause = WhyGSettingsForget();
  if (!cause.empty()) return Fail(kRestoreFailed, "not restored", cause, errorMessage);
  if (Saved.unchecked && CurrentMarker() != Saved.state.helper) {
    Saved = {};
    DropProxyStateFile();
    HelperLog().Append(kChangedSinceSet);
    return true;
  }
  if (!WriteSettings(Saved.state.settings, cause)) {
    return Fail(kRestoreFailed, "not restored", cause, errorMessage);
  }
  if (KdeApplies()) TellKdeProgramsToReread();
  Saved = {};
  // Only now: a crash before this line leaves the file for the next helper,
  // which finds the user's settings back in place and leaves them.
  DropProxyStateFile();
  return true;
}

bool ProxyRecoveryApplies() { return !IsRunningAsService(); }

SavedProxyVerdict TakeOverSavedProxy(std::string_view bytes) {
  DesktopProxyState state;
  if (!ParseDesktopProxyState(bytes, state) || !OnlyKnownKeys(state)) {
    return SavedProxyVerdict::kUnreadable;
  }
  // Without a session bus yet (a helper started early in the login) the
  // settings cannot be read, let alone compared: the file stays and the
  // comparison waits for the next stop or exit.
  const bool readable = GSettingsLast() || KdeApplies();
  if (readable && CurrentMarker() != state.helper) return SavedProxyVerdict::kChangedSinceSet;
  Saved = {true, state, !readable};
  return SavedProxyVerdict::kTakenOver;
}

}  // namespace orvel
