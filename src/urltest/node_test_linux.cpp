#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "core/child_launch_linux.h"
#include "core/core_process_linux.h"
#include "core/host_platform.h"
#include "core/paths.h"
#include "urltest/node_test.h"
#include "urltest/urltest_registry.h"

namespace orvel {

namespace {

// The values NodeTestResult::waitResult shares with the Windows build.
constexpr std::uint32_t kWaitEnded = 0;
constexpr std::uint32_t kWaitTimedOut = 258;

}  // namespace

bool RunNodeTest(const std::filesystem::path& configPath, const UrlTestRequest& request,
                 const std::string& nodeTag, const std::string& url, NodeTestResult& result) {
  const std::string& requestId = request.requestId;
  if (IsUrlTestCanceled(requestId)) {
    result.output = "URLTest canceled before start";
    result.waitResult = kWaitSkippedForCancel;
    return false;
  }
  std::filesystem::path exe;
  if (!ResolveCoreToRun(exe)) {
    result.output = ThisPlatform().testCoreNotFound;
    return false;
  }
  int readEnd = -1;
  int writeEnd = -1;
  if (!CreateOutputPipe(readEnd, writeEnd)) {
    result.lastError = static_cast<std::uint32_t>(errno);
    result.output = "pipe2 failed";
    return false;
  }
  // Each value is an argument of its own: a tag or URL with quotes or spaces
  // reaches the core as it is.
  const ChildLaunch launch{
      exe,
      {"--disable-color", "-c", configPath.string(), "tools", "-o", nodeTag, "fetch", url},
      GetDataDirectory(),
      writeEnd,
      SIGKILL};
  const std::uint64_t startMs = MonotonicMs();
  ChildProcess child;
  int launchError = 0;
  const bool launched = LaunchChild(launch, child, launchError);
  close(writeEnd);
  if (!launched) {
    close(readEnd);
    result.lastError = static_cast<std::uint32_t>(launchError);
    result.output = "fork or exec failed";
    return false;
  }

  if (!requestId.empty()) RegisterTestProcess(requestId, child.pidfd);
  const bool ended = WaitForChildExit(child, static_cast<int>(kNodeTestTimeoutMs));
  result.waitResult = ended ? kWaitEnded : kWaitTimedOut;
  result.elapsedMs = MonotonicMs() - startMs;
  // A cancel that came between the start and the registration found nothing
  // to end; this is where such a process ends.
  if (!ended || IsUrlTestCanceled(requestId)) {
    SignalChild(child, SIGKILL);
    // SIGKILL ends a process within moments unless the kernel holds it; it
    // is reaped here whatever it takes, so no zombie is left.
    if (!WaitForChildExit(child, static_cast<int>(kTerminateWaitMs))) WaitForChildExit(child, -1);
  }
  result.exitCode = static_cast<std::uint32_t>(child.exitCode);
  // Unregister before closing: a cancel duplicates the pidfd under the
  // registry lock, so it never sees one that is already closed.
  UnregisterTestProcess(requestId, child.pidfd);
  ReleaseChild(child);

  // The process has ended; whatever it left in the pipe is read without
  // waiting for a grandchild that may still hold the write end.
  fcntl(readEnd, F_SETFL, O_NONBLOCK);
  AppendCapped(result.output, DrainPipeOutput(readEnd), kMaxTestOutputBytes);
  close(readEnd);

  if (result.waitResult == kWaitEnded && result.exitCode == 0) {
    result.delayMs = static_cast<std::int32_t>(static_cast<std::uint32_t>(result.elapsedMs));
    return true;
  }
  result.delayMs = 0;
  return false;
}

}  // namespace orvel
