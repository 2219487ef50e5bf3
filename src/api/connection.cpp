#include "api/connection.h"

#include <chrono>

#include "api/caller_identity.h"
#include "api/caller_policy.h"
#include "api/http_request.h"
#include "api/request_guard.h"
#include "api/routes.h"
#include "core/detached_thread.h"
#include "log/log_buffer.h"

namespace orvel {

namespace {

void RespondTooLarge(SocketHandle socket) {
  SendResponse(socket, "text/plain", "request too large", 413, "Payload Too Large");
}

void RespondForbidden(SocketHandle socket) {
  SendResponse(socket, "text/plain", "forbidden", 403, "Forbidden");
}

ConnectionCounts& Counts() {
  static ConnectionCounts counts;
  return counts;
}

std::uint64_t SteadyMs() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now().time_since_epoch())
                                        .count());
}

// The request's bytes may not all be buffered: a configuration is
// kilobytes, and a body announced larger is refused before it is read.
constexpr std::uint32_t kMaxRequestBodyBytes = 64u * 1024 * 1024;

// Reads the whole request, head and body, within kRequestDeadlineMs of the
// accept however it is dribbled. False when the connection is to be closed
// without an answer (closed, failed, too slow); a head or body too large is
// answered here.
bool ReadRequest(const AcceptedConnection& connection, RequestFrame& frame) {
  char chunk[kReceiveChunkBytes] = {};
  const std::uint64_t due = connection.acceptedMs + kRequestDeadlineMs;
  for (;;) {
    const std::uint64_t now = SteadyMs();
    const int timeoutMs = static_cast<int>(due > now ? due - now : 0);
    const long received = ReceiveBytesWithin(connection.socket, chunk, sizeof(chunk), timeoutMs);
    if (received <= 0) return false;
    const FrameStatus status =
        FeedRequestBytes(frame, std::string_view(chunk, static_cast<std::size_t>(received)));
    if (status == FrameStatus::kHeadTooLarge ||
        (frame.headSeen && frame.contentLength > kMaxRequestBodyBytes)) {
      RespondTooLarge(connection.socket);
      return false;
    }
    if (status == FrameStatus::kComplete) return true;
  }
}

// The answer goes out at once, then the end of our side; what the client has
// sent meanwhile is read and dropped, a little and briefly, so that closing on
// unread bytes does not reset the connection before the answer is read.
void RefuseCaller(const AcceptedConnection& connection) {
  constexpr int kDrainMs = 1000;
  constexpr std::size_t kDrainBytes = 65536;
  HelperLog().Append(DescribeRefusedCaller(connection.caller));
  RespondForbidden(connection.socket);
  ShutdownSending(connection.socket);
  char chunk[kReceiveChunkBytes];
  const std::uint64_t due = SteadyMs() + kDrainMs;
  for (std::size_t drained = 0; drained < kDrainBytes;) {
    const std::uint64_t now = SteadyMs();
    if (now >= due) break;
    const long received =
        ReceiveBytesWithin(connection.socket, chunk, sizeof(chunk), static_cast<int>(due - now));
    if (received <= 0) break;
    drained += static_cast<std::size_t>(received);
  }
}

void ServeRequest(const AcceptedConnection& connection) {
  const SocketHandle socket = connection.socket;
  RequestFrame frame;
  if (!ReadRequest(connection, frame)) return;
  const HttpRequest request = FinishRequest(frame);
  const HeadRefusal refusal =
      FindHeadRefusal(std::string_view(frame.buffer).substr(0, frame.headerEnd));
  frame.buffer.clear();
  frame.buffer.shrink_to_fit();
  if (refusal.header.empty()) {
    DispatchRequest(socket, request);
  } else {
    // A web page's request: no route runs, so nothing is started, stopped,
    // written or read out.
    HelperLog().Append(DescribeRefusal(request.method, request.path, refusal));
    RespondForbidden(socket);
  }
}

}  // namespace

void SendResponse(SocketHandle socket, std::string_view contentType, std::string_view body,
                  int status, std::string_view reason) {
  SendBytes(socket, BuildResponse(contentType, body, status, reason));
}

bool AdmitAcceptedConnection(SocketHandle socket, AcceptedConnection& connection) {
  connection.socket = socket;
  connection.acceptedMs = SteadyMs();
  connection.caller = IdentifyCaller(socket);
  connection.allowed = IsCallerAllowed(connection.caller);
  // A refused caller holds nothing that others need: it is answered apart
  // from the limits, and beyond a few at once closed unanswered (and not
  // counted for the log, which it could otherwise keep busy).
  if (!connection.allowed) {
    if (AdmitRefusal(Counts())) return true;
    CloseSocket(socket);
    return false;
  }
  if (AdmitConnection(Counts(), connection.caller.uid)) return true;
  CloseSocket(socket);
  const std::string line = CountClosedOverLimit(Counts(), connection.acceptedMs);
  if (!line.empty()) HelperLog().Append(line);
  return false;
}

void DropConnection(const AcceptedConnection& connection) {
  CloseSocket(connection.socket);
  if (connection.allowed) {
    ReleaseConnection(Counts(), connection.caller.uid);
  } else {
    ReleaseRefusal(Counts());
  }
}

void HandleConnection(const AcceptedConnection& connection) {
  if (connection.allowed) {
    ServeRequest(connection);
  } else {
    RefuseCaller(connection);
  }
  DropConnection(connection);
}

bool StartConnectionThread(const AcceptedConnection& connection) {
  auto* handed = new AcceptedConnection(connection);
  const bool started = StartDetachedThread(
      [](void* parameter) {
        const AcceptedConnection own = *static_cast<AcceptedConnection*>(parameter);
        delete static_cast<AcceptedConnection*>(parameter);
        HandleConnection(own);
      },
      handed);
  if (!started) delete handed;
  return started;
}

}  // namespace orvel
