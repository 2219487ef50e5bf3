#include <windows.h>

#include "log/log_buffer.h"
#include "urltest/urltest_registry.h"

namespace orvel {

namespace {

// Runs under the registry lock, while the runner's handle is certainly open.
// The duplicate keeps the process object reachable after the runner closes
// its own handle, so a reused handle value can never make us terminate an
// unrelated process.
TestProcessHandle DuplicateForTerminate(TestProcessHandle process) {
  HANDLE copy = nullptr;
  if (!DuplicateHandle(GetCurrentProcess(), reinterpret_cast<HANDLE>(process), GetCurrentProcess(),
                       &copy, PROCESS_TERMINATE, FALSE, 0)) {
    return 0;
  }
  return reinterpret_cast<TestProcessHandle>(copy);
}

}  // namespace

std::string HandleCancelUrlTest(const std::string& body) {
  if (body.empty()) return std::string(kCancelAnswerIgnored);
  const std::vector<TestProcessHandle> processes = MarkUrlTestCanceled(body, DuplicateForTerminate);
  for (TestProcessHandle process : processes) {
    if (process == 0) continue;
    TerminateProcess(reinterpret_cast<HANDLE>(process), 1);
    CloseHandle(reinterpret_cast<HANDLE>(process));
  }
  HelperLog().Append("URLTest cancel requested: " + body +
                     ", processes=" + std::to_string(processes.size()));
  return std::string(kCancelAnswerCanceled);
}

}  // namespace orvel
