#pragma once

// The Linux helper's desktop proxy settings, by what each part talks to:
// GSettings through GIO (desktop_gsettings_linux.cpp), KDE's kioslaverc
// through kreadconfig/kwriteconfig (desktop_kde_linux.cpp) and the proxy state
// file on disk (proxy_recovery.cpp, shared with Windows). system_proxy_linux.cpp
// holds the save, enable and restore built on them.

#include <gio/gio.h>

#include <string>
#include <vector>

#include "sysproxy/desktop_proxy_state.h"

namespace orvel {

// The desktop's proxy settings: GSettings org.gnome.system.proxy (GNOME,
// Cinnamon, Budgie, and every GTK and Chromium program on any desktop), and on
// KDE Plasma also kioslaverc's [Proxy Settings] (KDE programs).
constexpr const char* kProxySchema = "org.gnome.system.proxy";
struct GKey {
  const char* schema;
  const char* key;
};
constexpr GKey kGKeys[] = {
    {"org.gnome.system.proxy", "mode"},         {"org.gnome.system.proxy", "autoconfig-url"},
    {"org.gnome.system.proxy", "ignore-hosts"}, {"org.gnome.system.proxy", "use-same-proxy"},
    {"org.gnome.system.proxy.http", "host"},    {"org.gnome.system.proxy.http", "port"},
    {"org.gnome.system.proxy.https", "host"},   {"org.gnome.system.proxy.https", "port"},
    {"org.gnome.system.proxy.socks", "host"},   {"org.gnome.system.proxy.socks", "port"},
};
constexpr const char* kKdeKeys[] = {"ProxyType", "httpProxy", "httpsProxy", "socksProxy",
                                    "NoProxyFor"};

std::string GKeyName(const GKey& key);

// One GSettings object per schema, released with the record.
struct SchemaSettings {
  GSettings* settings = nullptr;
  explicit SchemaSettings(const char* schema) : settings(g_settings_new(schema)) {}
  ~SchemaSettings() { g_object_unref(settings); }
  SchemaSettings(const SchemaSettings&) = delete;
  SchemaSettings& operator=(const SchemaSettings&) = delete;
};

bool SchemaInstalled();
// "" when GSettings keeps what is written: a session bus and a lasting
// backend (dconf); the memory backend takes every write and forgets it.
// Otherwise why not, for the log.
std::string WhyGSettingsForget();
inline bool GSettingsLast() { return WhyGSettingsForget().empty(); }
// The user's own value of each of kGKeys (isDefault when none).
void ReadUserGSettings(std::vector<DesktopProxySetting>& settings);
// The "gsettings:" entries of `wanted` in one delayed-apply transaction per
// schema, synced, then every one read back through fresh objects. False with
// the first failure in `cause` when any was refused or not kept.
bool WriteGSettings(const std::vector<DesktopProxySetting>& wanted, std::string& cause);
// "http://host:port" while the mode is manual, else "".
std::string GSettingsHttpProxy();
// The helper's values: manual, the loopback bypass list and every kind of
// proxy at 127.0.0.1:`port`.
void AddHelperGSettings(std::vector<DesktopProxySetting>& wanted, const std::string& port);

bool KdeApplies();
// Each of kKdeKeys as kioslaverc holds it; false with the failed tool in
// `cause`.
bool ReadKdeKeys(std::vector<DesktopProxySetting>& settings, std::string& cause);
// Every "kde:" entry of `wanted` (deleted when isDefault), each tried even
// after one failed; false with the first failure in `cause`.
bool WriteKdeKeys(const std::vector<DesktopProxySetting>& wanted, std::string& cause);
// kioslaverc's httpProxy, "" when absent or unreadable.
std::string KdeHttpProxy();
// The helper's values at `at` ("127.0.0.1:port").
void AddHelperKdeKeys(std::vector<DesktopProxySetting>& wanted, const std::string& at);
// Running KDE programs read kioslaverc again; nobody listening is no error.
void TellKdeProgramsToReread();

}  // namespace orvel
