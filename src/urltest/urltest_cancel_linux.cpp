#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "core/child_launch_linux.h"
#include "log/log_buffer.h"
#include "urltest/urltest_registry.h"

namespace orvel {

namespace {

// Runs under the registry lock, while the runner's pidfd is certainly open.
// The duplicate keeps the process reachable after the runner closes its own,
// and a pidfd never names another process, whatever becomes of the pid.
TestProcessHandle DuplicateForSignal(TestProcessHandle process) {
  const int copy = fcntl(static_cast<int>(process), F_DUPFD_CLOEXEC, 0);
  return copy < 0 ? 0 : copy;
}

}  // namespace

std::string HandleCancelUrlTest(const std::string& body) {
  if (body.empty()) return std::string(kCancelAnswerIgnored);
  const std::vector<TestProcessHandle> processes = MarkUrlTestCanceled(body, DuplicateForSignal);
  for (TestProcessHandle process : processes) {
    if (process == 0) continue;
    SignalPidfd(static_cast<int>(process), SIGKILL);
    close(static_cast<int>(process));
  }
  HelperLog().Append("URLTest cancel requested: " + body +
                     ", processes=" + std::to_string(processes.size()));
  return std::string(kCancelAnswerCanceled);
}

}  // namespace orvel
