#include "core/core_process_linux.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <thread>

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

ChildProcess MainCore;

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

bool IsCoreRunning() { return MainCore.pidfd >= 0 && !WaitForChildExit(MainCore, 0); }

int DuplicateCorePidfd() {
  return MainCore.pidfd < 0 ? -1 : fcntl(MainCore.pidfd, F_DUPFD_CLOEXEC, 0);
}

void StopCore() {
  if (MainCore.pidfd < 0) return;
  if (!WaitForChildExit(MainCore, 0)) {
    SignalChild(MainCore, SIGTERM);
    if (!WaitForChildExit(MainCore, kStopWaitMs)) {
      SignalChild(MainCore, SIGKILL);
      WaitForChildExit(MainCore, -1);
    }
  }
  ReleaseChild(MainCore);
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
  MainCore = child;
  // A core that dies sooner is answered sooner.
  if (!WaitForChildExit(MainCore, kSurvivalWaitMs)) {
    std::thread(DiscardOutputUntilClosed, readEnd).detach();
    return true;
  }
  fcntl(readEnd, F_SETFL, O_NONBLOCK);
  const std::string output = DrainPipeOutput(readEnd);
  close(readEnd);
  StopCore();
  errorMessage = std::string(ThisPlatform().coreExitedImmediately) +
                 SummarizeCoreOutput(output, kCoreOutputSummaryLimit);
  return false;
}

}  // namespace orvel
