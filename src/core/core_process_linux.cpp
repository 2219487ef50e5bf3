#include "core/core_process_linux.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <mutex>
#include <thread>
#include <utility>

#include "core/child_launch_linux.h"
#include "core/core_output.h"
#include "core/core_process.h"
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

// The record of the running core. A status or snapshot reads it from its own
// thread while a command may be starting or stopping a core, so it is read
// and changed under RecordLock only, and never held while waiting on a core:
// a stop takes the core out of the record first, a start puts it in once it
// has survived its first 800 ms.
std::mutex RecordLock;
ChildProcess MainCore;

// SIGTERM, then SIGKILL after kStopWaitMs; reaps and forgets `core`.
void StopChild(ChildProcess& core) {
  if (core.pidfd < 0) return;
  if (!WaitForChildExit(core, 0)) {
    SignalChild(core, SIGTERM);
    if (!WaitForChildExit(core, kStopWaitMs)) {
      SignalChild(core, SIGKILL);
      WaitForChildExit(core, -1);
    }
  }
  ReleaseChild(core);
}

// The core logs to its output for as long as it runs. Closing the read end
// would make its next line a SIGPIPE, which ends a Go program writing to
// stderr; so the output is read and dropped until the core (and whatever it
// started) has let go of the pipe.
void DiscardOutputUntilClosed(int readEnd) {
  const int flags = fcntl(readEnd, F_GETFL);
  if (flags >= 0) fcntl(readEnd, F_SETFL, flags & ~O_NONBLOCK);
  char buffer[4096];
  for (;;) {
    const ssize_t got = read(readEnd, buffer, sizeof(buffer));
    if (got == 0 || (got < 0 && errno != EINTR)) break;
  }
  close(readEnd);
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
  return MainCore.pidfd >= 0 && !WaitForChildExit(MainCore, 0);
}

int DuplicateCorePidfd() {
  std::lock_guard<std::mutex> hold(RecordLock);
  return MainCore.pidfd < 0 ? -1 : fcntl(MainCore.pidfd, F_DUPFD_CLOEXEC, 0);
}

void StopCore() {
  ChildProcess core;
  {
    std::lock_guard<std::mutex> hold(RecordLock);
    std::swap(core, MainCore);
  }
  StopChild(core);
}

bool StartCore(const std::filesystem::path& configPath, std::string& errorMessage) {
  std::filesystem::path exe;
  if (!ResolveCoreToRun(exe)) {
    errorMessage = ThisPlatform().coreNotFound;
    return false;
  }
  int readEnd = -1;
  int writeEnd = -1;
  if (!CreateOutputPipe(readEnd, writeEnd)) {
    errorMessage = "Failed to create sing-box output pipe";
    return false;
  }
  const ChildLaunch launch{
      exe, {"run", "-c", configPath.string()}, GetDataDirectory(), writeEnd, SIGTERM};
  int error = 0;
  ChildProcess child;
  const bool launched = LaunchChild(launch, child, error);
  // Our copy of the write end must go at once: the pipe reports its end only
  // when the core's copy is the last one.
  close(writeEnd);
  if (!launched) {
    close(readEnd);
    errorMessage = std::string(ThisPlatform().coreLaunchFailed) + std::to_string(error);
    return false;
  }
  // A core that dies sooner is answered sooner.
  if (!WaitForChildExit(child, kSurvivalWaitMs)) {
    std::thread(DiscardOutputUntilClosed, readEnd).detach();
    std::lock_guard<std::mutex> hold(RecordLock);
    MainCore = child;
    return true;
  }
  fcntl(readEnd, F_SETFL, O_NONBLOCK);
  const std::string output = DrainPipeOutput(readEnd);
  close(readEnd);
  StopChild(child);
  errorMessage = std::string(ThisPlatform().coreExitedImmediately) +
                 SummarizeCoreOutput(output, kCoreOutputSummaryLimit);
  return false;
}

}  // namespace orvel
