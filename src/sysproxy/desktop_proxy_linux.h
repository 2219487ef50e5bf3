#pragma once

// The Linux helper's desktop proxy settings, by what each part talks to:
// GSettings through GIO (desktop_gsettings_linux.cpp), KDE's kioslaverc
// through kreadconfig/kwriteconfig (desktop_kde_linux.cpp) and the proxy state
// file on disk (proxy_state_file_linux.cpp). system_proxy_linux.cpp holds the
// save, enable and restore built on them.

#include <gio/gio.h>

#include <filesystem>
#include <string>

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
// GSettings keeps what is written only with a session bus and a lasting
// backend (dconf); the memory backend takes every write and forgets it.
bool GSettingsLast();

bool KdeApplies();
bool ReadKdeKey(const char* key, DesktopProxySetting& setting);
// The value after "--": a user's list may begin with "-", which the tool
// would otherwise take for its own options and refuse.
bool WriteKdeKey(const std::string& key, const DesktopProxySetting& value);
// Running KDE programs read kioslaverc again; nobody listening is no error.
void TellKdeProgramsToReread();

std::filesystem::path StatePath();
// Whole under a temporary name of its own, synced, then renamed over the old
// one. The name is new each time and created with O_EXCL (mkostemp), so no
// file or link that someone left under a known name is ever written through.
bool WriteStateFile(const DesktopProxyState& state, std::string& reason);
// The temporary files of writes that a helper did not finish
// ("proxy-state.txt.XXXXXX"); the file each would have replaced, if any, is
// still whole.
void RemoveUnfinishedStateFiles();

}  // namespace orvel
