#include "urltest/urltest_stream.h"

#include <algorithm>
#include <system_error>

#include "core/config_guard.h"
#include "core/data_files.h"
#include "core/host_platform.h"
#include "core/paths.h"
#include "core/run_mode.h"
#include "log/log_buffer.h"
#include "urltest/urltest_registry.h"

namespace orvel {

namespace {

void SendEmptyAnswer(SocketHandle socket) {
  SendResponse(socket, "application/x-ndjson", "", 200, "OK");
}

// Starts the workers one after another. A thread that cannot be created stops
// the start-up there: the workers already running claim every node anyway, and
// when not even one started, this thread does the work itself so the stream
// still reports every node and ends.
void RunWorkers(UrlTestSession& session) {
  const std::size_t count = std::min(session.request.nodeTags.size(), kMaxUrlTestWorkers);
  for (std::size_t i = 0; i < count; ++i) {
    try {
      session.workers.emplace_back(UrlTestWorker, std::ref(session));
    } catch (const std::system_error&) {
      break;
    }
  }
  if (session.workers.empty()) UrlTestWorker(session);
  for (std::thread& worker : session.workers) worker.join();
}

// The stream head and a 0 line per node: a client waiting for one line per
// node still sees a refused test end.
void SendAllNodesFailed(SocketHandle socket, const UrlTestRequest& request) {
  std::string lines(kUrlTestStreamHead);
  for (const std::string& tag : request.nodeTags) lines += BuildUrlTestResultLine(tag, 0);
  SendBytes(socket, lines);
}

}  // namespace

void UrlTestWorker(UrlTestSession& session) {
  const UrlTestRequest& request = session.request;
  const std::string& requestId = request.requestId;
  const std::uint64_t nodeCount = request.nodeTags.size();
  while (!IsUrlTestCanceled(requestId)) {
    const std::uint64_t index = session.nextIndex.fetch_add(1);
    if (index >= nodeCount) return;
    const std::string& tag = request.nodeTags[index];
    NodeTestResult result;
    RunNodeTest(session.configPath, request, tag, request.url, result);
    // A cancelled node gets no line, even when its process had finished.
    if (IsUrlTestCanceled(requestId)) return;
    const std::string line = BuildUrlTestResultLine(tag, result.delayMs);
    // A short write is not completed and a gone client does not stop the
    // test: the lines are then lost, the processes still end on time.
    std::lock_guard<std::mutex> guard(session.sendLock);
    SendBytes(session.socket, line);
  }
}

void HandleUrlTest(SocketHandle socket, const std::string& body) {
  UrlTestSession session;
  if (!ParseUrlTestBody(body, session.request) || session.request.config.empty() ||
      session.request.nodeTags.empty()) {
    SendEmptyAnswer(socket);
    return;
  }
  // The tags and the URL become arguments of a core run as SYSTEM or root:
  // refused like a configuration, every node failed and nothing started.
  if (std::string refused; IsRunningAsService() && !CheckServiceUrlTest(session.request, refused)) {
    HelperLog().Append("URLTest refused by the service: " + refused);
    SendAllNodesFailed(socket, session.request);
    return;
  }
  const UrlTestRequest& request = session.request;
  std::string refusal;
  std::string plainConfig;
  if (IsRunningAsService() &&
      !JudgeServiceConfig(request.config, ThisPlatform().pathRules, plainConfig, refusal)) {
    // Nothing is written or started; every node is reported as failed, so a
    // client waiting for one line per node still sees the test end.
    HelperLog().Append("URLTest configuration refused by the service: " + refusal);
    std::string lines(kUrlTestStreamHead);
    for (const std::string& tag : request.nodeTags) lines += BuildUrlTestResultLine(tag, 0);
    SendBytes(socket, lines);
    return;
  }
  std::string directoryError;
  if (!CreateDirectoryTree(GetDataDirectory(), directoryError)) {
    HelperLog().Append("URLTest failed to create runtime directory");
    SendEmptyAnswer(socket);
    return;
  }
  session.configPath = MakeUrlTestConfigPath();
  SystemError writeError;
  // The service hands the core the guard's own reading, never the caller's
  // bytes (see JudgeServiceConfig).
  const std::string& config = IsRunningAsService() ? plainConfig : request.config;
  if (!WriteWholeFile(session.configPath, config, writeError)) {
    HelperLog().Append("URLTest failed to write config: " + DescribeSystemError(writeError));
    SendEmptyAnswer(socket);
    return;
  }
  // Only a cancel that arrives from now on counts for this test.
  BeginUrlTest(request.requestId);
  const std::string nodeCount = std::to_string(request.nodeTags.size());
  HelperLog().Append("URLTest stream started for " + nodeCount +
                     " nodes, requestId=" + request.requestId);
  SendBytes(socket, kUrlTestStreamHead);

  session.socket = socket;
  session.nextIndex = 0;
  RunWorkers(session);

  std::error_code ignored;
  std::filesystem::remove(session.configPath, ignored);
  EndUrlTest(request.requestId);
  HelperLog().Append("URLTest stream completed for " + nodeCount + " nodes");
}

}  // namespace orvel
