#pragma once

// Measures one node: a short-lived core process runs its fetch tool through
// the node's outbound, and the node's delay is the whole life of that process
// as the helper sees it (start-up, fetch and exit). Nothing in the process's
// output is read: it goes into a pipe of its own that nobody drains while the
// process runs, so one that writes more than the pipe holds blocks and runs
// into the limit.

#include <cstdint>
#include <filesystem>
#include <string>

#include "urltest/urltest_body.h"

namespace orvel {

constexpr int kNodeTestTimeoutMs = 3000;
constexpr int kTerminateWaitMs = 1000;

enum class NodeTestOutcome { kNotStarted, kEnded, kTimedOut, kCancelled };

struct NodeTestResult {
  std::int32_t delayMs = 0;  // the only field that leaves the helper; 0 for every failure
  NodeTestOutcome outcome = NodeTestOutcome::kNotStarted;
};

// True when the process ended by itself within kNodeTestTimeoutMs with exit
// code 0. Only `request.requestId` is used: the process is registered under
// it so that a cancel can end it.
bool RunNodeTest(const std::filesystem::path& configPath, const UrlTestRequest& request,
                 const std::string& nodeTag, const std::string& url, NodeTestResult& result);

}  // namespace orvel
