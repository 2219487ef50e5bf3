#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstdint>

#include "api/connection.h"
#include "api/control_server.h"
#include "log/log_buffer.h"

namespace orvel {

namespace {

DWORD WINAPI ConnectionThread(LPVOID parameter) {
  const AcceptedConnection connection = *static_cast<AcceptedConnection*>(parameter);
  delete static_cast<AcceptedConnection*>(parameter);
  HandleConnection(connection);
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
bool StartConnectionThread(const AcceptedConnection& connection) {
  constexpr SIZE_T kConnectionStackBytes = 256 * 1024;
  auto* handed = new AcceptedConnection(connection);
  HANDLE thread = CreateThread(nullptr, kConnectionStackBytes, ConnectionThread, handed,
                               STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (thread == nullptr) {
    delete handed;
    return false;
  }
  CloseHandle(thread);
  return true;
}

}  // namespace

int RunControlServer(void (*listening)()) {
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
  if (listening != nullptr) listening();

  for (;;) {
    SOCKET client = accept(listener, nullptr, nullptr);
    if (client == INVALID_SOCKET) continue;
    // Windows carries the listener's no-inherit flag over to accepted sockets
    // but Wine does not; clearing it here makes both behave alike.
    SetHandleInformation(reinterpret_cast<HANDLE>(client), HANDLE_FLAG_INHERIT, 0);
    AcceptedConnection connection;
    if (!AdmitAcceptedConnection(static_cast<SocketHandle>(client), connection)) continue;
    // No thread, no answer: the connection is closed rather than the helper ended.
    if (!StartConnectionThread(connection)) DropConnection(connection);
  }
}

}  // namespace orvel
