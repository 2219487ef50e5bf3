#include <gio/gio.h>
// Only to tell which backend GSettings uses (a memory backend keeps nothing).
#define G_SETTINGS_ENABLE_BACKEND
#include <gio/gsettingsbackend.h>

#include <string>
#include <utility>
#include <vector>

#include "sysproxy/desktop_proxy_linux.h"

namespace orvel {

namespace {

// Writes the entries of `wanted` that belong to `schema` in one delayed-apply
// transaction; false with the first failure in `cause`.
bool WriteSchema(const char* schema, const std::vector<DesktopProxySetting>& wanted,
                 std::string& cause) {
  const std::string prefix = std::string("gsettings:") + schema + ":";
  std::vector<std::pair<std::string, const DesktopProxySetting*>> mine;
  for (const DesktopProxySetting& setting : wanted) {
    const std::string_view key = setting.key;
    if (key.starts_with(prefix) && key.substr(prefix.size()).find(':') == std::string::npos) {
      mine.emplace_back(std::string(key.substr(prefix.size())), &setting);
    }
  }
  if (mine.empty()) return true;
  bool stuck = true;
  SchemaSettings settings(schema);
  g_settings_delay(settings.settings);
  for (const auto& [key, setting] : mine) {
    if (setting->isDefault) {
      g_settings_reset(settings.settings, key.c_str());
      continue;
    }
    GError* error = nullptr;
    GVariant* value = g_variant_parse(nullptr, setting->text.c_str(), nullptr, nullptr, &error);
    std::string failure;
    if (value == nullptr) {
      failure = "g_variant_parse(" + setting->key + ") failed: " + error->message;
      g_error_free(error);
    } else if (!g_settings_set_value(settings.settings, key.c_str(), value)) {
      failure = "g_settings_set_value(" + setting->key + ") failed";
    }
    if (stuck && !failure.empty()) cause = failure;
    stuck = stuck && failure.empty();
  }
  g_settings_apply(settings.settings);
  return stuck;
}

// What the backend now holds for `key`, read through a fresh object.
bool ReadsBack(const GKey& key, const DesktopProxySetting& setting) {
  SchemaSettings settings(key.schema);
  GVariant* user = g_settings_get_user_value(settings.settings, key.key);
  gchar* text = user != nullptr ? g_variant_print(user, TRUE) : nullptr;
  const bool same = setting.isDefault ? user == nullptr : text != nullptr && setting.text == text;
  g_free(text);
  if (user != nullptr) g_variant_unref(user);
  return same;
}

}  // namespace

std::string GKeyName(const GKey& key) {
  return std::string("gsettings:") + key.schema + ":" + key.key;
}

bool SchemaInstalled() {
  GSettingsSchemaSource* source = g_settings_schema_source_get_default();
  GSettingsSchema* schema =
      source != nullptr ? g_settings_schema_source_lookup(source, kProxySchema, TRUE) : nullptr;
  if (schema == nullptr) return false;
  g_settings_schema_unref(schema);
  return true;
}

std::string WhyGSettingsForget() {
  GError* error = nullptr;
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  if (bus == nullptr) {
    const std::string cause = std::string("g_bus_get_sync(session) failed: ") +
                              (error != nullptr ? error->message : "no bus");
    g_clear_error(&error);
    return cause;
  }
  g_object_unref(bus);
  GSettingsBackend* backend = g_settings_backend_get_default();
  const std::string type = G_OBJECT_TYPE_NAME(backend);
  g_object_unref(backend);
  if (type != "GMemorySettingsBackend" && type != "GNullSettingsBackend") return "";
  return "the GSettings backend " + type + " keeps nothing";
}

void ReadUserGSettings(std::vector<DesktopProxySetting>& settings) {
  for (const GKey& key : kGKeys) {
    SchemaSettings schema(key.schema);
    GVariant* user = g_settings_get_user_value(schema.settings, key.key);
    DesktopProxySetting setting{GKeyName(key), user == nullptr, ""};
    if (user != nullptr) {
      gchar* text = g_variant_print(user, TRUE);
      setting.text = text;
      g_free(text);
      g_variant_unref(user);
    }
    settings.push_back(setting);
  }
}

bool WriteGSettings(const std::vector<DesktopProxySetting>& wanted, std::string& cause) {
  bool stuck = true;
  for (const char* schema : {"org.gnome.system.proxy", "org.gnome.system.proxy.http",
                             "org.gnome.system.proxy.https", "org.gnome.system.proxy.socks"}) {
    std::string failure;
    if (!WriteSchema(schema, wanted, failure) && stuck) cause = failure;
    stuck = failure.empty() && stuck;
  }
  g_settings_sync();
  for (const DesktopProxySetting& setting : wanted) {
    for (const GKey& key : kGKeys) {
      if (GKeyName(key) != setting.key || !stuck || ReadsBack(key, setting)) continue;
      cause = "g_settings_get_user_value(" + setting.key + ") read back another value";
      stuck = false;
    }
  }
  return stuck;
}

std::string GSettingsHttpProxy() {
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

void AddHelperGSettings(std::vector<DesktopProxySetting>& wanted, const std::string& port) {
  wanted.push_back({"gsettings:org.gnome.system.proxy:mode", false, "'manual'"});
  wanted.push_back({"gsettings:org.gnome.system.proxy:ignore-hosts", false,
                    "['localhost', '127.0.0.1', '::1']"});
  for (const char* kind : {"http", "https", "socks"}) {
    const std::string schema = std::string("gsettings:org.gnome.system.proxy.") + kind;
    wanted.push_back({schema + ":host", false, "'127.0.0.1'"});
    wanted.push_back({schema + ":port", false, port});
  }
}

}  // namespace orvel
