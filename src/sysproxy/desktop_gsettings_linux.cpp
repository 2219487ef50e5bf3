#include <gio/gio.h>
// Only to tell which backend GSettings uses (a memory backend keeps nothing).
#define G_SETTINGS_ENABLE_BACKEND
#include <gio/gsettingsbackend.h>

#include <string>

#include "sysproxy/desktop_proxy_linux.h"

namespace orvel {

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

bool GSettingsLast() {
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  if (bus == nullptr) return false;
  g_object_unref(bus);
  GSettingsBackend* backend = g_settings_backend_get_default();
  const std::string type = G_OBJECT_TYPE_NAME(backend);
  g_object_unref(backend);
  return type != "GMemorySettingsBackend" && type != "GNullSettingsBackend";
}

}  // namespace orvel
