#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstdint>

#include "api/control_server.h"
#include "api/http_request.h"
#include "api/request_guard.h"
#include "api/routes.h"
#include "log/log_buffer.h"

namespace orvel {

namespace {

void RespondHeadTooLarge(SOCKET socket) {
  SendResponse(socket, "text/plain", "request too large", 413, "Payload Too Large");
}

// Reads one request, answers it and closes the socket on every path.
void HandleConnection(SOCKET socket) {
  RequestFrame frame;
  char chunk[kReceiveChunkBytes] = {};
  for (;;) {
    const int received = recv(socket, chunk, sizeof(chunk), 0);
    if (received <= 0) {
      closesocket(socket);
      return;
    }
    const FrameStatus status =
        FeedRequestBytes(frame, std::string_view(chunk, static_cast<std::size_t>(received)));
    if (status == FrameStatus::kHeadTooLarge) {
      RespondHeadTooLarge(socket);
      closesocket(socket);
      return;
    }
    if (status == FrameStatus::kComplete) break;
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
    SendResponse(socket, "text/plain", "forbidden", 403, "Forbidden");
  }
  closesocket(socket);
}

DWORD WINAPI ConnectionThread(LPVOID parameter) {
  HandleConnection(static_cast<SOCKET>(reinterpret_cast<std::uintptr_t>(parameter)));
  return 0;
}

// A plain Windows thread rather than a detached std::thread: the MinGW
// threads library races when it recycles the record of a detached thread, and
// now and then a new thread starts with a null argument and crashes the
// helper (about once per thousand short connections under Wine; the crashed
// helper then hangs in the debugger with its sockets open). Threads that are
// joined, like the URL test workers, are not affected.
//
// The stack is reserved at 256 KiB instead of the exe's default 1 MiB: every
// open connection holds a thread (an idle client included), and the deepest
// request path (a URL test stream or a snapshot) needs a few KiB of it.
bool StartConnectionThread(SOCKET socket) {
  constexpr SIZE_T kConnectionStackBytes = 256 * 1024;
  HANDLE thread = CreateThread(nullptr, kConnectionStackBytes, ConnectionThread,
                               reinterpret_cast<LPVOID>(static_cast<std::uintptr_t>(socket)),
                               STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (thread == nullptr) return false;
  CloseHandle(thread);
  return true;
}

}  // namespace

int RunControlServer() {
  HelperLog().Append("OrvelVpnHelper started");
  WSADATA wsaData{};
  if (WSAStartup(MAKEWORD(2, 2), &wsaData) != 0) return 1;

  // Not inheritable: a core started later must not keep port 17891 bound.
  SOCKET listener = WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                               WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (listener == INVALID_SOCKET) {
    WSACleanup();
    return 1;
  }
  SetHandleInformation(reinterpret_cast<HANDLE>(listener), HANDLE_FLAG_INHERIT, 0);
  const BOOL reuse = TRUE;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&reuse),
             sizeof(reuse));

  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kControlPort);
  inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener, SOMAXCONN) != 0) {
    closesocket(listener);
    WSACleanup();
    return 1;
  }

  for (;;) {
    SOCKET client = accept(listener, nullptr, nullptr);
    if (client == INVALID_SOCKET) continue;
    // Windows carries the listener's no-inherit flag over to accepted sockets
    // but Wine does not; clearing it here makes both behave alike.
    SetHandleInformation(reinterpret_cast<HANDLE>(client), HANDLE_FLAG_INHERIT, 0);
    if (!StartConnectionThread(client)) closesocket(client);
  }
}

}  // namespace orvel
