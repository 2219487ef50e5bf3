#include "api/connection.h"

#include <chrono>

#include "api/caller_identity.h"
#include "api/caller_policy.h"
#include "api/http_request.h"
#include "api/request_guard.h"
#include "api/routes.h"
#include "log/log_buffer.h"

namespace orvel {

namespace {

void RespondHeadTooLarge(SocketHandle socket) {
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

// Reads the whole request: the head within kRequestDeadlineMs of the accept,
// the body with no pause longer than that. False when the connection is to be
// closed without an answer (closed, failed, too slow); a head too large is
// answered here.
bool ReadRequest(const AcceptedConnection& connection, RequestFrame& frame) {
  char chunk[kReceiveChunkBytes] = {};
  for (;;) {
    const std::uint64_t headDue = connection.acceptedMs + kRequestDeadlineMs;
    const std::uint64_t now = SteadyMs();
    const int timeoutMs =
        frame.headSeen ? kRequestDeadlineMs : static_cast<int>(headDue > now ? headDue - now : 0);
    const long received = ReceiveBytesWithin(connection.socket, chunk, sizeof(chunk), timeoutMs);
    if (received <= 0) return false;
    const FrameStatus status =
        FeedRequestBytes(frame, std::string_view(chunk, static_cast<std::size_t>(received)));
    if (status == FrameStatus::kHeadTooLarge) {
      RespondHeadTooLarge(connection.socket);
      return false;
    }
    if (status == FrameStatus::kComplete) return true;
  }
}

void ServeRequest(const AcceptedConnection& connection) {
  const SocketHandle socket = connection.socket;
  RequestFrame frame;
  if (!ReadRequest(connection, frame)) return;
  // After the whole request is in, so that the refusal is read by the client
  // rather than lost to a reset; before any route runs.
  if (!IsCallerAllowed(connection.caller)) {
    HelperLog().Append(DescribeRefusedCaller(connection.caller));
    RespondForbidden(socket);
    return;
  }
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
  if (AdmitConnection(Counts(), connection.caller)) return true;
  CloseSocket(socket);
  const std::string line = CountClosedOverLimit(Counts(), connection.acceptedMs);
  if (!line.empty()) HelperLog().Append(line);
  return false;
}

void DropConnection(const AcceptedConnection& connection) {
  CloseSocket(connection.socket);
  ReleaseConnection(Counts(), connection.caller);
}

void HandleConnection(const AcceptedConnection& connection) {
  ServeRequest(connection);
  DropConnection(connection);
}

}  // namespace orvel
