#include "commands/vpn_commands.h"

#include "core/config_guard.h"
#include "core/core_process.h"
#include "core/data_files.h"
#include "core/host_platform.h"
#include "core/mixed_port.h"
#include "core/paths.h"
#include "core/run_mode.h"
#include "log/log_buffer.h"
#include "sysproxy/system_proxy.h"
#include "text/json_text.h"
#include "traffic/core_stats_client.h"
#include "traffic/traffic_reader.h"

namespace orvel {

namespace {

std::string Disconnected(std::string_view message) {
  return BuildStatusBody("disconnected", message);
}

// The steps both start commands share: refuse an empty body (and, in the
// service, a configuration the guard refuses), put the user's proxy back and
// stop any core (every start begins clean, also in the same mode), write the
// configuration (in the service, as the guard read it) and start the core.
// True when the core runs; otherwise `answer` holds the refusal.
bool WriteConfigAndStartCore(const std::string& body, std::string& answer) {
  if (body.empty()) {
    // Nothing else happens: a running core keeps running.
    answer = Disconnected("Empty subscription config or runtime config");
    return false;
  }
  std::string refusal;
  std::string plainConfig;
  if (IsRunningAsService() &&
      !JudgeServiceConfig(body, ThisPlatform().pathRules, plainConfig, refusal)) {
    // Refused before anything changes: the running core and the user's proxy
    // stay as they are and nothing is written.
    const std::string message = "configuration refused by the service: " + refusal;
    HelperLog().Append(message);
    answer = Disconnected(message);
    return false;
  }
  std::string errorMessage;
  RestoreSystemProxy(errorMessage);
  RetireTrafficReader();
  StopCore();

  errorMessage.clear();
  if (!CreateDirectoryTree(GetDataDirectory(), errorMessage)) {
    answer = Disconnected(errorMessage);
    return false;
  }
  const std::filesystem::path configPath = GetCoreConfigPath();
  // The service hands the core the guard's own reading, never the caller's
  // bytes (see JudgeServiceConfig); the stand-alone helper writes them as sent.
  if (!WriteWholeFile(configPath, IsRunningAsService() ? plainConfig : body)) {
    answer = Disconnected("Failed to write sing-box config");
    return false;
  }
  if (!StartCore(configPath, errorMessage)) {
    HelperLog().Append(errorMessage);
    answer = Disconnected(errorMessage);
    return false;
  }
  // The controller's secret, if the configuration sets one, goes with every
  // request the snapshot and the reader make.
  SetControllerSecret(FindControllerSecret(body));
  // Ends by itself with this core, whoever stops it or however it dies.
  StartTrafficReader();
  return true;
}

}  // namespace

std::string HandleStart(const std::string& body) {
  std::string answer;
  if (!WriteConfigAndStartCore(body, answer)) return answer;
  std::string errorMessage;
  if (!EnableSystemProxy(FindMixedInboundPort(body), errorMessage)) {
    RetireTrafficReader();
    StopCore();
    // A failing restore replaces the enable message with its own.
    RestoreSystemProxy(errorMessage);
    HelperLog().Append(errorMessage);
    return Disconnected(errorMessage);
  }
  HelperLog().Append("VPN started through OrvelVpnHelper");
  return BuildStatusBody("connected", ThisPlatform().connected);
}

std::string HandleStartTun(const std::string& body) {
  std::string answer;
  if (!WriteConfigAndStartCore(body, answer)) return answer;
  HelperLog().Append(ThisPlatform().tunStartedLog);
  return BuildStatusBody("connected", ThisPlatform().tunConnected);
}

std::string HandleStop() {
  std::string errorMessage;
  RestoreSystemProxy(errorMessage);
  RetireTrafficReader();
  StopCore();
  HelperLog().Append("VPN stopped through OrvelVpnHelper");
  return Disconnected(ThisPlatform().disconnected);
}

std::string HandleStatus() {
  // Asked twice, once per field; the answers normally agree.
  const std::string_view message = IsCoreRunning() ? ThisPlatform().running : ThisPlatform().idle;
  return BuildStatusBody(IsCoreRunning() ? "connected" : "disconnected", message);
}

}  // namespace orvel
