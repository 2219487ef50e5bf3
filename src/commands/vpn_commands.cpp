#include "commands/vpn_commands.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "core/config_guard.h"
#include "core/core_output.h"
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

// The commands that change what runs (both starts, stop, the stop of an
// ending helper, the start-up proxy recovery) take turns in the order they
// arrive, each to its end: a ticket lock, since a plain mutex lets a late
// arrival overtake. Two at once left cores running untracked, and the user's
// saved proxy values were read while another command rewrote them.
struct CommandTurns {
  std::mutex lock;
  std::condition_variable next;
  std::uint64_t issued = 0;
  std::uint64_t serving = 0;
  // What /status shows while a command runs: the state before it, so that a
  // query never sees a half-done command (an old core stopped, the new one
  // not yet up).
  bool commandRunning = false;
  bool coreRunningBefore = false;
};

CommandTurns& Turns() {
  static CommandTurns turns;
  return turns;
}

// Holds the turn from construction (after every earlier command has ended)
// to destruction. `Keep()` never gives it back: for the stop of a helper that
// is about to exit, after which nothing may start.
struct CommandTurn {
  bool kept = false;
  CommandTurn() {
    CommandTurns& turns = Turns();
    std::unique_lock<std::mutex> hold(turns.lock);
    const std::uint64_t ticket = turns.issued++;
    turns.next.wait(hold, [&] { return turns.serving == ticket; });
    hold.unlock();
    // Outside the turns' own lock: the core's record has a lock of its own.
    const bool running = IsCoreRunning();
    hold.lock();
    turns.coreRunningBefore = running;
    turns.commandRunning = true;
  }
  ~CommandTurn() {
    if (kept) return;
    CommandTurns& turns = Turns();
    {
      std::lock_guard<std::mutex> hold(turns.lock);
      turns.commandRunning = false;
      ++turns.serving;
    }
    turns.next.notify_all();
  }
  void Keep() { kept = true; }
  CommandTurn(const CommandTurn&) = delete;
  CommandTurn& operator=(const CommandTurn&) = delete;
};

std::string Disconnected(std::string_view message) {
  return BuildStatusBody("disconnected", message);
}

// What both start commands check before their turn, since it changes
// nothing: an empty body, and in the service a configuration the guard
// refuses. False with the answer; otherwise `plainConfig` holds what the
// service writes.
bool JudgeStartBody(const std::string& body, std::string& plainConfig, std::string& answer) {
  if (body.empty()) {
    // Nothing else happens: a running core keeps running.
    answer = Disconnected("Empty subscription config or runtime config");
    return false;
  }
  std::string refusal;
  if (IsRunningAsService() &&
      !JudgeServiceConfig(body, ThisPlatform().pathRules, plainConfig, refusal)) {
    // Refused before anything changes: the running core and the user's proxy
    // stay as they are and nothing is written.
    const std::string message = "configuration refused by the service: " + refusal;
    HelperLog().Append(message);
    answer = Disconnected(message);
    return false;
  }
  return true;
}

// A core that ended without a stop from here: the user's proxy no longer
// leads anywhere, so it goes back at once, as on a stop, in a turn of its own
// so that no command sees half of it. A start or stop that came first has
// already replaced or stopped that core: then nothing is left to do.
void ReactToCoreEnd(std::uint64_t generation, const CoreEnd& end) {
  CommandTurn turn;
  if (!ReleaseEndedCore(generation)) return;
  // As after a stop, a failed restore has nobody to answer to.
  std::string ignored;
  RestoreSystemProxy(ignored);
  RetireTrafficReader();
  HelperLog().Append(std::string(ThisPlatform().coreExitedUnexpectedly) +
                     (end.bySignal ? "(signal " : "(exit code ") + std::to_string(end.code) +
                     "): " + SummarizeCoreOutput(end.lastOutput, kCoreOutputSummaryLimit));
}

// The rest of a start, in its turn. True when the core runs.
bool ReplaceCore(const std::string& body, const std::string& plainConfig, std::string& answer) {
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
  if (!StartCore(configPath, ReactToCoreEnd, errorMessage)) {
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

// Judges the body, then in one turn from first to last puts the user's proxy
// back and stops any core (every start begins clean, also in the same mode),
// writes the configuration, starts the core and lets `finish` answer.
std::string StartInOneTurn(const std::string& body, std::string (*finish)(const std::string&)) {
  std::string answer;
  std::string plainConfig;
  if (!JudgeStartBody(body, plainConfig, answer)) return answer;
  CommandTurn turn;
  if (!ReplaceCore(body, plainConfig, answer)) return answer;
  return finish(body);
}

// Proxy mode: points the system proxy at the core just started.
std::string PointSystemProxyAtCore(const std::string& body) {
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

std::string AnnounceTunCore(const std::string&) {
  HelperLog().Append(ThisPlatform().tunStartedLog);
  return BuildStatusBody("connected", ThisPlatform().tunConnected);
}

}  // namespace

std::string HandleStart(const std::string& body) {
  return StartInOneTurn(body, PointSystemProxyAtCore);
}

std::string HandleStartTun(const std::string& body) {
  return StartInOneTurn(body, AnnounceTunCore);
}

std::string HandleStop() {
  CommandTurn turn;
  std::string errorMessage;
  RestoreSystemProxy(errorMessage);
  RetireTrafficReader();
  StopCore();
  HelperLog().Append("VPN stopped through OrvelVpnHelper");
  return Disconnected(ThisPlatform().disconnected);
}

std::string HandleStatus() {
  bool running = false;
  {
    CommandTurns& turns = Turns();
    std::lock_guard<std::mutex> hold(turns.lock);
    running = turns.commandRunning && turns.coreRunningBefore;
    if (!turns.commandRunning) running = IsCoreRunning();
  }
  return BuildStatusBody(running ? "connected" : "disconnected",
                         running ? ThisPlatform().running : ThisPlatform().idle);
}

void RestoreProxyThenStopCore() {
  CommandTurn turn;
  // The helper ends after this: nothing may start once the core is stopped.
  turn.Keep();
  // Nobody is left to tell about a failed restore.
  std::string ignored;
  RestoreSystemProxy(ignored);
  RetireTrafficReader();
  StopCore();
}

void RecoverProxyAtStartup() {
  CommandTurn turn;
  RecoverSystemProxyAtStartup();
}

}  // namespace orvel
