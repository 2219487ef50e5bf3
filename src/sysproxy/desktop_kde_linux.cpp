#include <gio/gio.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "core/child_process.h"
#include "sysproxy/desktop_proxy_linux.h"

namespace orvel {

namespace {

// What kreadconfig prints for a key that is not there (it cannot tell
// absent from empty otherwise).
constexpr const char* kKdeAbsent = "\x01orvel-absent";

// Runs kreadconfig/kwriteconfig (the session's version) and returns its
// output without the last line feed; false when it did not exit 0. Its
// warnings on stderr are dropped: only stdout is the value.
bool RunKdeConfig(bool write, std::vector<std::string> arguments, std::string& output) {
  const char* version = std::getenv("KDE_SESSION_VERSION");
  const std::string tool = std::string(write ? "kwriteconfig" : "kreadconfig") +
                           (version != nullptr && std::string(version) == "6" ? "6" : "5");
  arguments.insert(arguments.begin(), {"--file", "kioslaverc", "--group", "Proxy Settings"});
  const ChildLaunch launch{
      .program = tool, .arguments = std::move(arguments), .output = ChildOutput::kStdoutCaptured};
  ChildProcess child;
  SystemError ignored;  // the caller logs which tool did not do its part
  output.clear();
  if (!LaunchChild(launch, child, ignored)) return false;
  for (std::string chunk; ReadChildOutput(child, chunk);) output += chunk;
  WaitForChild(child, -1);
  const bool exitedZero = ExitedWithZero(child);
  ReleaseChild(child);
  if (!output.empty() && output.back() == '\n') output.pop_back();
  return exitedZero;
}

bool ReadKdeKey(const char* key, DesktopProxySetting& setting) {
  std::string value;
  if (!RunKdeConfig(false, {"--key", key, "--default", kKdeAbsent}, value)) return false;
  setting = {std::string("kde:") + key, value == kKdeAbsent, value == kKdeAbsent ? "" : value};
  return true;
}

// The value after "--": a user's list may begin with "-", which the tool
// would otherwise take for its own options and refuse.
bool WriteKdeKey(const std::string& key, const DesktopProxySetting& value) {
  std::string ignored;
  return value.isDefault ? RunKdeConfig(true, {"--key", key, "--delete"}, ignored)
                         : RunKdeConfig(true, {"--key", key, "--", value.text}, ignored);
}

// The log's words for a tool that did not do its part.
std::string KdeToolFailure(bool write, const std::string& key) {
  const char* version = std::getenv("KDE_SESSION_VERSION");
  return std::string(write ? "kwriteconfig" : "kreadconfig") +
         (version != nullptr && std::string(version) == "6" ? "6" : "5") + " --key " + key +
         " failed (not started, or it did not exit 0)";
}

}  // namespace

bool KdeApplies() {
  const char* desktops = std::getenv("XDG_CURRENT_DESKTOP");
  const std::string list = std::string(":") + (desktops != nullptr ? desktops : "") + ":";
  return list.find(":KDE:") != std::string::npos;
}

bool ReadKdeKeys(std::vector<DesktopProxySetting>& settings, std::string& cause) {
  for (const char* key : kKdeKeys) {
    DesktopProxySetting setting;
    if (!ReadKdeKey(key, setting)) {
      cause = KdeToolFailure(false, key);
      return false;
    }
    settings.push_back(setting);
  }
  return true;
}

bool WriteKdeKeys(const std::vector<DesktopProxySetting>& wanted, std::string& cause) {
  bool stuck = true;
  for (const DesktopProxySetting& setting : wanted) {
    if (!setting.key.starts_with("kde:")) continue;
    const std::string key = setting.key.substr(4);
    if (!WriteKdeKey(key, setting) && stuck) {
      cause = KdeToolFailure(true, key);
      stuck = false;
    }
  }
  return stuck;
}

std::string KdeHttpProxy() {
  DesktopProxySetting http;
  return ReadKdeKey("httpProxy", http) && !http.isDefault ? http.text : "";
}

void AddHelperKdeKeys(std::vector<DesktopProxySetting>& wanted, const std::string& at) {
  wanted.push_back({"kde:ProxyType", false, "1"});
  wanted.push_back({"kde:httpProxy", false, "http://" + at});
  wanted.push_back({"kde:httpsProxy", false, "http://" + at});
  wanted.push_back({"kde:socksProxy", false, "socks://" + at});
  wanted.push_back({"kde:NoProxyFor", false, "localhost,127.0.0.1,::1"});
}

void TellKdeProgramsToReread() {
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  if (bus == nullptr) return;
  g_dbus_connection_emit_signal(bus, nullptr, "/KIO/Scheduler", "org.kde.KIO.Scheduler",
                                "reparseSlaveConfiguration", g_variant_new("(s)", ""), nullptr);
  g_dbus_connection_flush_sync(bus, nullptr, nullptr);
  g_object_unref(bus);
}

}  // namespace orvel
