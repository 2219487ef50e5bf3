#include "core/run_mode.h"

#include <atomic>

namespace orvel {

namespace {
std::atomic<bool> runningAsService{false};
}  // namespace

void MarkRunningAsService() { runningAsService = true; }

bool IsRunningAsService() { return runningAsService; }

}  // namespace orvel
