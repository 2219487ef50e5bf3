#include <winsock2.h>

#include "traffic/controller_socket_win.h"
#include "traffic/core_stats_client.h"
#include "traffic/traffic_stream_io.h"

namespace orvel {

namespace {

HANDLE Process(ChildHandle core) { return reinterpret_cast<HANDLE>(core); }
SOCKET Socket(const TrafficConnection& connection) {
  return static_cast<SOCKET>(connection.socket);
}
WSAEVENT Ready(const TrafficConnection& connection) {
  return reinterpret_cast<WSAEVENT>(connection.ready);
}

}  // namespace

// The core's process handle is signalled once it has ended.
bool WaitForCoreEnd(ChildHandle core, std::uint32_t ms) {
  return WaitForSingleObject(Process(core), ms) != WAIT_TIMEOUT;
}

bool OpenTrafficConnection(ChildHandle core, TrafficConnection& connection) {
  const SOCKET s = OpenControllerSocket();
  if (s == INVALID_SOCKET) return false;
  const WSAEVENT ready = WSACreateEvent();
  if (ready != WSA_INVALID_EVENT &&
      ConnectController(s, kCoreApiPort, ready, kCoreApiTimeoutMs, Process(core))) {
    connection.socket = static_cast<std::uintptr_t>(s);
    connection.ready = reinterpret_cast<std::uintptr_t>(ready);
    return true;
  }
  if (ready != WSA_INVALID_EVENT) WSACloseEvent(ready);
  closesocket(s);
  return false;
}

bool SendTrafficRequest(const TrafficConnection& connection, std::string_view request) {
  const int requestBytes = static_cast<int>(request.size());
  return send(Socket(connection), request.data(), requestBytes, 0) == requestBytes;
}

bool WaitForTrafficData(const TrafficConnection& connection, ChildHandle core) {
  const HANDLE waits[] = {Ready(connection), Process(core)};
  if (WaitForMultipleObjects(2, waits, FALSE, INFINITE) != WAIT_OBJECT_0) return false;
  WSANETWORKEVENTS events{};
  return WSAEnumNetworkEvents(Socket(connection), Ready(connection), &events) == 0;
}

bool ReceiveTrafficBytes(const TrafficConnection& connection, std::string& pending) {
  char chunk[kCoreReceiveChunkBytes];
  for (;;) {
    const int received = recv(Socket(connection), chunk, sizeof(chunk), 0);
    if (received == SOCKET_ERROR && WSAGetLastError() == WSAEWOULDBLOCK) return true;
    if (received <= 0) return false;
    pending.append(chunk, static_cast<std::size_t>(received));
  }
}

// The event goes after the socket: closing the socket ends its selection.
void CloseTrafficConnection(const TrafficConnection& connection) {
  closesocket(Socket(connection));
  WSACloseEvent(Ready(connection));
}

}  // namespace orvel
