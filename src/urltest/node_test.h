#pragma once

// Measures one node: a short-lived core process runs its fetch tool through
// the node's outbound, and the node's delay is the whole life of that process
// as the helper sees it (start-up, fetch and exit). Nothing in the process's
// output is parsed.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "urltest/urltest_body.h"

namespace orvel {

constexpr unsigned kNodeTestTimeoutMs = 3000;
constexpr unsigned kTerminateWaitMs = 1000;
constexpr std::size_t kMaxTestOutputBytes = 4096;
// The value of WAIT_ABANDONED, used to mark a node skipped because of a cancel.
constexpr std::uint32_t kWaitSkippedForCancel = 128;

struct NodeTestResult {
  std::int32_t delayMs = 0;  // the only field that leaves the helper; 0 for every failure
  std::uint32_t exitCode = 1;
  std::uint32_t waitResult = 0xFFFFFFFF;
  std::uint64_t elapsedMs = 0;  // from just before process creation until the wait returned
  std::uint32_t lastError = 0;  // of a failed pipe or process creation
  std::string output;           // a failure text, or the first 4096 bytes the process wrote
};

// True when the process ended by itself within kNodeTestTimeoutMs with exit
// code 0. Only `request.requestId` is used: the process is registered under
// it so that a cancel can terminate it.
bool RunNodeTest(const std::filesystem::path& configPath, const UrlTestRequest& request,
                 const std::string& nodeTag, const std::string& url, NodeTestResult& result);

}  // namespace orvel
