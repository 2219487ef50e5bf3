#include "urltest/node_test.h"

#include "core/child_process.h"
#include "core/core_process.h"
#include "core/paths.h"
#include "urltest/urltest_registry.h"

namespace orvel {

namespace {

// Waits for the running test process up to the limit and ends it when it ran
// into the limit or its test was cancelled; true when it ended by itself with
// exit code 0. `startMs` is from just before the launch.
bool AwaitNodeTest(ChildProcess& child, const std::string& requestId, std::uint64_t startMs,
                   NodeTestResult& result) {
  RegisterTestProcess(requestId, child.process);
  const bool ended = WaitForChild(child, kNodeTestTimeoutMs);
  const std::uint64_t elapsedMs = MonotonicMs() - startMs;
  // A cancel that came between the start and the registration found nothing
  // to end; this is where such a process ends. A failed wait counts as the
  // limit, so that no test process outlives its runner.
  const bool cancelled = IsUrlTestCanceled(requestId);
  if (!ended || cancelled) StopChild(child, ChildSignal::kKill, kTerminateWaitMs);
  // Unregister before the release: a cancel duplicates the handle under the
  // registry lock, so it never sees one that is already closed.
  UnregisterTestProcess(requestId, child.process);
  result.outcome = !ended      ? NodeTestOutcome::kTimedOut
                   : cancelled ? NodeTestOutcome::kCancelled
                               : NodeTestOutcome::kEnded;
  const bool passed = result.outcome == NodeTestOutcome::kEnded && ExitedWithZero(child);
  result.delayMs = passed ? static_cast<std::int32_t>(static_cast<std::uint32_t>(elapsedMs)) : 0;
  return passed;
}

}  // namespace

bool RunNodeTest(const std::filesystem::path& configPath, const UrlTestRequest& request,
                 const std::string& nodeTag, const std::string& url, NodeTestResult& result) {
  result = NodeTestResult{};
  if (IsUrlTestCanceled(request.requestId)) {
    result.outcome = NodeTestOutcome::kCancelled;
    return false;
  }
  // Each value is an argument of its own: a tag or URL with quotes, spaces or
  // backslashes reaches the core as it is. The output is captured, never read.
  ChildLaunch launch{.arguments = {"--disable-color", "-c", ChildArgument(configPath), "tools",
                                   "-o", nodeTag, "fetch", url},
                     .workingDirectory = GetDataDirectory(),
                     .output = ChildOutput::kCaptured};
  if (!ResolveCoreToRun(launch.program)) return false;
  const std::uint64_t startMs = MonotonicMs();
  ChildProcess child;
  SystemError ignored;  // a node that cannot start is a failed node, nothing more
  if (!LaunchChild(launch, child, ignored)) return false;
  const bool passed = AwaitNodeTest(child, request.requestId, startMs, result);
  ReleaseChild(child);
  return passed;
}

}  // namespace orvel
