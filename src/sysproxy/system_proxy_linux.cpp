#include <gio/gio.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "core/run_mode.h"
#include "log/log_buffer.h"
#include "sysproxy/desktop_proxy_linux.h"
#include "sysproxy/desktop_proxy_state.h"
#include "sysproxy/proxy_state.h"
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

constexpr const char* kChangedSinceSet =
    "System proxy changed since the helper last set it; kept it and removed the saved proxy "
    "settings";

// Writes `wanted` (GSettings keys and KDE keys) in one delayed-apply
// transaction per schema, syncs, and reads every GSettings key back.
bool WriteSettings(const std::vector<DesktopProxySetting>& wanted) {
  bool stuck = true;
  for (const char* schema : {"org.gnome.system.proxy", "org.gnome.system.proxy.http",
                             "org.gnome.system.proxy.https", "org.gnome.system.proxy.socks"}) {
    const std::string prefix = std::string("gsettings:") + schema + ":";
    std::vector<std::pair<std::string, const DesktopProxySetting*>> mine;
    for (const DesktopProxySetting& setting : wanted) {
      const std::string_view key = setting.key;
      if (key.starts_with(prefix) && key.substr(prefix.size()).find(':') == std::string::npos) {
        mine.emplace_back(std::string(key.substr(prefix.size())), &setting);
      }
    }
    if (mine.empty()) continue;
    SchemaSettings settings(schema);
    g_settings_delay(settings.settings);
    for (const auto& [key, setting] : mine) {
      if (setting->isDefault) {
        g_settings_reset(settings.settings, key.c_str());
        continue;
      }
      GVariant* value = g_variant_parse(nullptr, setting->text.c_str(), nullptr, nullptr, nullptr);
      stuck =
          value != nullptr && g_settings_set_value(settings.settings, key.c_str(), value) && stuck;
    }
    g_settings_apply(settings.settings);
  }
  g_settings_sync();
  // Read back through fresh objects: what the backend now holds.
  for (const DesktopProxySetting& setting : wanted) {
    for (const GKey& key : kGKeys) {
      if (GKeyName(key) != setting.key) continue;
      SchemaSettings settings(key.schema);
      GVariant* user = g_settings_get_user_value(settings.settings, key.key);
      gchar* text = user != nullptr ? g_variant_print(user, TRUE) : nullptr;
      stuck =
          stuck && (setting.isDefault ? user == nullptr : text != nullptr && setting.text == text);
      g_free(text);
      if (user != nullptr) g_variant_unref(user);
    }
  }
  for (const DesktopProxySetting& setting : wanted) {
    if (setting.key.starts_with("kde:")) {
      stuck = WriteKdeKey(setting.key.substr(4), setting) && stuck;
    }
  }
  return stuck;
}

// What the helper's values look like in the settings: the http proxy.
std::string HelperMarker(int port) {
  return "http://127.0.0.1:" + std::to_string(port >= 1 && port <= 65535 ? port : 7897);
}

// The http proxy the settings point at now, in the same form ("" when not
// manual).
std::string CurrentMarker() {
  if (SchemaInstalled() && GSettingsLast()) {
    SchemaSettings proxy(kProxySchema);
    SchemaSettings http("org.gnome.system.proxy.http");
    gchar* mode = g_settings_get_string(proxy.settings, "mode");
    gchar* host = g_settings_get_string(http.settings, "host");
    const std::string marker = std::string(mode) == "manual"
                                   ? "http://" + std::string(host) + ":" +
                                         std::to_string(g_settings_get_int(http.settings, "port"))
                                   : "";
    g_free(mode);
    g_free(host);
    return marker;
  }
  DesktopProxySetting http;
  return KdeApplies() && ReadKdeKey("httpProxy", http) && !http.isDefault ? http.text : "";
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
  if (SchemaInstalled()) {
    for (const GKey& key : kGKeys) {
      SchemaSettings settings(key.schema);
      GVariant* user = g_settings_get_user_value(settings.settings, key.key);
      DesktopProxySetting setting{GKeyName(key), user == nullptr, ""};
      if (user != nullptr) {
        gchar* text = g_variant_print(user, TRUE);
        setting.text = text;
        g_free(text);
        g_variant_unref(user);
      }
      state.settings.push_back(setting);
    }
  }
  if (KdeApplies()) {
    for (const char* key : kKdeKeys) {
      DesktopProxySetting setting;
      if (!ReadKdeKey(key, setting)) {
        errorMessage = "Failed to read desktop proxy settings";
        return false;
      }
      state.settings.push_back(setting);
    }
  }
  Saved = {true, state};
  return true;
}

bool EnableSystemProxy(int port, std::string& errorMessage) {
  if (IsRunningAsService()) return true;
  // Settings that would not last are never reported set; nothing is saved or
  // changed, so the restore after the failed start has nothing to write.
  const bool gsettings = SchemaInstalled();
  if (!GSettingsLast() || (!gsettings && !KdeApplies())) {
    errorMessage = "Failed to enable desktop system proxy";
    return false;
  }
  if (!SaveSystemProxy(errorMessage)) return false;
  Saved.state.helper = HelperMarker(port);
  Saved.unchecked = false;
  std::string reason;
  if (!WriteStateFile(Saved.state, reason)) {
    HelperLog().Append(std::string(kCrashRecoveryOff) + reason);
  }
  const std::string at = Saved.state.helper.substr(7);  // 127.0.0.1:port
  const std::string portText = at.substr(at.find(':') + 1);
  std::vector<DesktopProxySetting> wanted;
  if (gsettings) {
    wanted = {{"gsettings:org.gnome.system.proxy:mode", false, "'manual'"},
              {"gsettings:org.gnome.system.proxy:ignore-hosts", false,
               "['localhost', '127.0.0.1', '::1']"}};
    for (const char* kind : {"http", "https", "socks"}) {
      const std::string schema = std::string("gsettings:org.gnome.system.proxy.") + kind;
      wanted.push_back({schema + ":host", false, "'127.0.0.1'"});
      wanted.push_back({schema + ":port", false, portText});
    }
  }
  if (KdeApplies()) {
    wanted.push_back({"kde:ProxyType", false, "1"});
    wanted.push_back({"kde:httpProxy", false, "http://" + at});
    wanted.push_back({"kde:httpsProxy", false, "http://" + at});
    wanted.push_back({"kde:socksProxy", false, "socks://" + at});
    wanted.push_back({"kde:NoProxyFor", false, "localhost,127.0.0.1,::1"});
  }
  if (!WriteSettings(wanted)) {
    errorMessage = "Failed to enable desktop system proxy";
    return false;
  }
  if (KdeApplies()) TellKdeProgramsToReread();
  CreateRestoreEntry();
  return true;
}

bool RestoreSystemProxy(std::string& errorMessage) {
  if (!Saved.saved) return true;
  if (!GSettingsLast()) {
    errorMessage = "Failed to restore desktop system proxy";
    return false;
  }
  std::error_code ignored;
  if (Saved.unchecked && CurrentMarker() != Saved.state.helper) {
    Saved = {};
    std::filesystem::remove(StatePath(), ignored);
    RemoveRestoreEntry();
    HelperLog().Append(kChangedSinceSet);
    return true;
  }
  if (!WriteSettings(Saved.state.settings)) {
    errorMessage = "Failed to restore desktop system proxy";
    return false;
  }
  if (KdeApplies()) TellKdeProgramsToReread();
  Saved = {};
  // Only now: a crash before this line leaves the file for the next helper,
  // which finds the user's settings back in place and leaves them.
  std::filesystem::remove(StatePath(), ignored);
  RemoveRestoreEntry();
  return true;
}

void RecoverSystemProxyAtStartup() {
  if (IsRunningAsService()) return;
  const std::filesystem::path path = StatePath();
  std::error_code ignored;
  RemoveUnfinishedStateFiles();
  // Without a file no value of the helper's can be in place, and no entry
  // is needed for them.
  if (!std::filesystem::exists(path, ignored)) return RemoveRestoreEntry();
  std::ifstream file(path, std::ios::binary);
  std::string bytes;
  bytes.resize(kMaxProxyStateBytes + 1);
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  DesktopProxyState state;
  if (!ParseDesktopProxyState(bytes, state) || !OnlyKnownKeys(state)) {
    std::filesystem::remove(path, ignored);
    RemoveRestoreEntry();
    HelperLog().Append(
        "Removed an unreadable saved proxy settings file; system proxy left as it is");
    return;
  }
  // Without a session bus yet (a helper started early in the login) the
  // settings cannot be read, let alone compared: the file stays and the
  // comparison waits for the next stop or exit.
  const bool readable = GSettingsLast() || KdeApplies();
  if (readable && CurrentMarker() != state.helper) {
    std::filesystem::remove(path, ignored);
    RemoveRestoreEntry();
    HelperLog().Append(kChangedSinceSet);
    return;
  }
  Saved = {true, state, !readable};
  std::string errorMessage;
  if (RestoreSystemProxy(errorMessage)) {
    HelperLog().Append("Restored the proxy settings saved before the helper last ended");
  } else {
    HelperLog().Append("Proxy settings saved before the helper last ended not restored yet: " +
                       errorMessage);
  }
}

}  // namespace orvel
