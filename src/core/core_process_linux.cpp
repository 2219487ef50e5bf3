#include "core/core_process_linux.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <string_view>
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
//
// While a core is in the record, only its watcher reaps it (the record's own
// checks just look at the pidfd): a reap elsewhere would take the exit status
// the watcher reports.
std::mutex RecordLock;
ChildProcess MainCore;
// Counts the cores that entered the record; the watcher of a core knows its
// own, so that it never mistakes a later core for the one it watched.
std::uint64_t MainGeneration = 0;

bool IsRecordedCore(std::uint64_t generation) {
  std::lock_guard<std::mutex> hold(RecordLock);
  return MainCore.pidfd >= 0 && MainGeneration == generation;
}

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

// Reads what is there now into `tail`; false once the pipe has ended.
bool ReadIntoTail(int readEnd, std::string& tail) {
  char buffer[4096];
  for (;;) {
    const ssize_t got = read(readEnd, buffer, sizeof(buffer));
    if (got > 0) {
      KeepCoreOutputTail(tail, std::string_view(buffer, static_cast<std::size_t>(got)));
      continue;
    }
    if (got < 0 && errno == EINTR) continue;
    return got < 0 && errno == EAGAIN;
  }
}

// Reads and drops what comes until everything that holds the write end has
// let go of it, then closes `readEnd`.
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

// The core's own thread, owning a pidfd and the (non-blocking) read end: keeps
// the last of the core's output until the core ends, reaps it, and tells
// `onEnd` unless the core has left the record (a stop). Then it goes on
// reading: closing the read end would make the next line of anything the core
// started a SIGPIPE, which ends a Go program writing to stderr.
void WatchCore(int pidfd, int readEnd, std::uint64_t generation, CoreEndedHandler onEnd) {
  CoreEnd end;
  pollfd watched[2] = {{pidfd, POLLIN, 0}, {readEnd, POLLIN, 0}};
  for (;;) {
    const int ready = poll(watched, 2, -1);
    if (ready < 0 && errno != EINTR) break;
    if (ready <= 0) continue;
    // A pipe that has ended leaves the set; the pidfd alone is waited for.
    if (watched[1].revents != 0 && !ReadIntoTail(readEnd, end.lastOutput)) watched[1].fd = -1;
    if ((watched[0].revents & POLLIN) != 0) break;
  }
  // Whatever it wrote just before the end is in the pipe now.
  if (watched[1].fd >= 0) ReadIntoTail(readEnd, end.lastOutput);
  siginfo_t info{};
  if (waitid(P_PIDFD, static_cast<id_t>(pidfd), &info, WEXITED | WNOHANG) == 0 &&
      info.si_pid != 0) {
    end.bySignal = info.si_code != CLD_EXITED;
    end.code = static_cast<std::uint32_t>(info.si_status);
    if (IsRecordedCore(generation)) onEnd(generation, end);
  }
  close(pidfd);
  DiscardOutputUntilClosed(readEnd);
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
  pollfd ended{MainCore.pidfd, POLLIN, 0};
  return MainCore.pidfd >= 0 && poll(&ended, 1, 0) == 0;
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

bool ReleaseEndedCore(std::uint64_t generation) {
  ChildProcess core;
  {
    std::lock_guard<std::mutex> hold(RecordLock);
    if (MainCore.pidfd < 0 || MainGeneration != generation) return false;
    std::swap(core, MainCore);
  }
  ReleaseChild(core);
  return true;
}

bool StartCore(const std::filesystem::path& configPath, CoreEndedHandler onEnd,
               std::string& errorMessage) {
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
  fcntl(readEnd, F_SETFL, O_NONBLOCK);
  if (!WaitForChildExit(child, kSurvivalWaitMs)) {
    const int watched = fcntl(child.pidfd, F_DUPFD_CLOEXEC, 0);
    if (watched < 0) {
      // A core nobody watches would leave the user's proxy on a dead port.
      close(readEnd);
      StopChild(child);
      errorMessage = "Failed to watch sing-box";
      return false;
    }
    std::uint64_t generation = 0;
    {
      std::lock_guard<std::mutex> hold(RecordLock);
      MainCore = child;
      generation = ++MainGeneration;
    }
    // Nothing joins it: it ends after its core, however that ends.
    std::thread(WatchCore, watched, readEnd, generation, onEnd).detach();
    return true;
  }
  const std::string output = DrainPipeOutput(readEnd);
  close(readEnd);
  StopChild(child);
  errorMessage = std::string(ThisPlatform().coreExitedImmediately) +
                 SummarizeCoreOutput(output, kCoreOutputSummaryLimit);
  return false;
}

}  // namespace orvel
