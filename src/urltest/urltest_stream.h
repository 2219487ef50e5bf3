#pragma once

// "/urltest": parses the body, writes the client's configuration to a
// temporary file, tests the nodes on up to kMaxUrlTestWorkers threads and
// streams one JSON line per node, in the order the nodes finish. The stream
// has no length: it ends when the connection handler closes the socket after
// HandleUrlTest returns, which is after every worker has ended.

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "net/socket_io.h"
#include "urltest/node_test.h"
#include "urltest/urltest_body.h"

namespace orvel {

constexpr std::size_t kMaxUrlTestWorkers = 12;

struct UrlTestSession {
  UrlTestRequest request;
  std::filesystem::path configPath;
  std::atomic<std::uint64_t> nextIndex{0};
  // Held around the single send of one line, so lines never interleave.
  std::mutex sendLock;
  SocketHandle socket = 0;
  std::vector<std::thread> workers;
};

// Writes the whole answer on `socket` and never closes it.
void HandleUrlTest(SocketHandle socket, const std::string& body);

// <data directory>/sing-box-urltest-<helper pid>-<n>.json, n = 1, 2, ... per
// helper run, so concurrent sessions never share a file.
std::filesystem::path MakeUrlTestConfigPath();

// One worker: claims nodes in body order until none is left or the test is cancelled.
void UrlTestWorker(UrlTestSession& session);

}  // namespace orvel
