#include "core/child_process.h"
#include "log/log_buffer.h"
#include "urltest/urltest_registry.h"

namespace orvel {

std::string HandleCancelUrlTest(const std::string& body) {
  if (body.empty()) return std::string(kCancelAnswerIgnored);
  // Each process is duplicated under the registry lock, while its runner's
  // handle is certainly open: the copy keeps the process reachable after the
  // runner releases its own, and never names another process, whatever
  // becomes of the pid or the handle value.
  const std::vector<ChildHandle> processes = MarkUrlTestCanceled(body, DuplicateChildHandle);
  for (const ChildHandle process : processes) {
    SignalChild(process, ChildSignal::kKill);
    CloseChildHandle(process);
  }
  HelperLog().Append("URLTest cancel requested: " + body +
                     ", processes=" + std::to_string(processes.size()));
  return std::string(kCancelAnswerCanceled);
}

}  // namespace orvel
