#include "core/core_process.h"

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "core/core_output.h"
#include "core/detached_thread.h"
#include "core/host_platform.h"
#include "core/paths.h"
#include "core/root_only.h"
#include "core/run_mode.h"
#include "log/log_buffer.h"

namespace orvel {

namespace {

constexpr int kSurvivalWaitMs = 800;
// The core takes its TUN device and routes down on SIGTERM; only a core that
// has not ended by then is killed.
constexpr int kStopWaitMs = 3000;

// The record of the running core (its process alone: the output belongs to
// its watcher). A status or snapshot reads it from its own thread while a
// command may be starting or stopping a core, so it is read and changed under
// RecordLock only, and never held while waiting on a core: a stop takes the
// core out of the record first, a start puts it in once it has survived its
// first 800 ms.
//
// While a core is in the record, only its watcher reaps it (the record's own
// checks just ask whether it has ended): a reap elsewhere would take the exit
// status the watcher reports.
std::mutex RecordLock;
ChildProcess MainCore;
// Counts the cores that entered the record; the watcher of a core knows its
// own, so that it never mistakes a later core for the one it watched.
std::uint64_t MainGeneration = 0;

bool IsRecordedCore(std::uint64_t generation) {
  std::lock_guard<std::mutex> hold(RecordLock);
  return MainCore.process != kNoChildHandle && MainGeneration == generation;
}

// What the core's watcher owns: a handle of its own to the core and the
// output's read end.
struct WatchedCore {
  ChildProcess core;
  std::uint64_t generation;
  CoreEndedHandler onEnd;
};

// The core's own thread: keeps the last of the core's output until the core
// ends (a pipe nobody reads would block the core's next line once full),
// reaps it, and tells `onEnd` unless the core has left the record (a stop).
// Then it goes on reading until everything the core started lets go of the
// pipe.
void WatchCore(void* parameter) {
  const std::unique_ptr<WatchedCore> watched(static_cast<WatchedCore*>(parameter));
  ChildProcess& core = watched->core;
  CoreEnd end;
  std::string chunk;
  while (ReadChildOutput(core, chunk)) KeepCoreOutputTail(end.lastOutput, chunk);
  if (WaitForChild(core, -1) && core.exit && IsRecordedCore(watched->generation)) {
    end.bySignal = core.exit->bySignal;
    end.code = core.exit->code;
    watched->onEnd(watched->generation, end);
  }
  DiscardChildOutput(core);
  ReleaseChild(core);
}

// Starts the watcher of the core just recorded as `generation`; it takes the
// output of `core` in every case. False when it could not start.
bool StartWatcher(ChildProcess& core, std::uint64_t generation, CoreEndedHandler onEnd) {
  auto watched = std::make_unique<WatchedCore>(WatchedCore{{}, generation, onEnd});
  watched->core.process = DuplicateChildHandle(core.process);
  watched->core.output = std::exchange(core.output, kNoChildHandle);
  if (watched->core.process == kNoChildHandle || !StartDetachedThread(WatchCore, watched.get())) {
    ReleaseChild(watched->core);
    return false;
  }
  watched.release();  // the watcher's own now
  return true;
}

// The core that survived its first wait enters the record and is watched.
bool RecordAndWatch(ChildProcess& core, CoreEndedHandler onEnd, std::string& errorMessage) {
  std::uint64_t generation = 0;
  {
    std::lock_guard<std::mutex> hold(RecordLock);
    MainCore = ChildProcess{};
    MainCore.process = core.process;
    generation = ++MainGeneration;
  }
  if (StartWatcher(core, generation, onEnd)) return true;
  // A core nobody watches would leave the user's proxy on a dead port.
  StopCore();
  errorMessage = ThisPlatform().coreWatchFailed;
  HelperLog().Append(errorMessage);
  return false;
}

// The start's answer text for a launch that failed, and the log line that
// names the call.
void ExplainLaunchFailure(const SystemError& error, std::string& errorMessage) {
  const bool pipe = error.call == kOutputPipeCall;
  errorMessage = pipe ? std::string("Failed to create sing-box output pipe")
                      : std::string(ThisPlatform().coreLaunchFailed) + std::to_string(error.code);
  HelperLog().Append((pipe ? errorMessage + ": " : std::string(ThisPlatform().coreLaunchFailed)) +
                     DescribeSystemError(error));
}

}  // namespace

bool ResolveCoreToRun(std::filesystem::path& exe) {
  exe = FindCoreExecutable();
  if (exe.empty() || !IsRunningAsService()) return !exe.empty();
  // The service runs the core as root: one that someone else could have
  // swapped is run by nobody, and the resolved path is what runs, so nothing
  // can be swapped between the check and the start.
  std::filesystem::path resolved;
  std::vector<RootOnlyOffence> offences;
  if (CheckRootOnlyPath(exe, resolved, offences)) {
    exe = resolved;
    return true;
  }
  if (!offences.empty()) {
    const RootOnlyOffence& offence = offences.front();
    HelperLog().Append("sing-box is not root's alone: " + offence.path.string() + " (" +
                       DescribeOwnerAndMode(offence.ownerUid, offence.mode) + ")");
  }
  exe.clear();
  return false;
}

bool IsCoreRunning() {
  std::lock_guard<std::mutex> hold(RecordLock);
  return MainCore.process != kNoChildHandle && !HasChildEnded(MainCore.process);
}

ChildHandle DuplicateCoreHandle() {
  std::lock_guard<std::mutex> hold(RecordLock);
  return DuplicateChildHandle(MainCore.process);
}

void StopCore() {
  ChildProcess core;
  {
    std::lock_guard<std::mutex> hold(RecordLock);
    std::swap(core, MainCore);
  }
  StopChild(core, ChildSignal::kTerminate, kStopWaitMs);
  ReleaseChild(core);
}

bool ReleaseEndedCore(std::uint64_t generation) {
  ChildProcess core;
  {
    std::lock_guard<std::mutex> hold(RecordLock);
    if (MainCore.process == kNoChildHandle || MainGeneration != generation) return false;
    std::swap(core, MainCore);
  }
  ReleaseChild(core);
  return true;
}

bool StartCore(const std::filesystem::path& configPath, CoreEndedHandler onEnd,
               std::string& errorMessage) {
  ChildLaunch launch{.arguments = {"run", "-c", ChildArgument(configPath)},
                     .workingDirectory = GetDataDirectory(),
                     .output = ChildOutput::kCaptured,
                     .onHelperDeath = ChildSignal::kTerminate};
  if (!ResolveCoreToRun(launch.program)) {
    errorMessage = ThisPlatform().coreNotFound;
    HelperLog().Append(errorMessage);
    return false;
  }
  ChildProcess core;
  SystemError error;
  if (!LaunchChild(launch, core, error)) {
    ExplainLaunchFailure(error, errorMessage);
    return false;
  }
  // A core that dies sooner is answered sooner.
  if (!WaitForChild(core, kSurvivalWaitMs)) return RecordAndWatch(core, onEnd, errorMessage);
  const std::string output = DrainChildOutput(core);
  ReleaseChild(core);
  errorMessage = std::string(ThisPlatform().coreExitedImmediately) +
                 SummarizeCoreOutput(output, kCoreOutputSummaryLimit);
  HelperLog().Append(errorMessage);
  return false;
}

}  // namespace orvel
