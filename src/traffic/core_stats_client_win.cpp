#include <winsock2.h>
#include <ws2tcpip.h>
// after winsock2.h: mstcpip.h depends on it.
#include <mstcpip.h>

#include "traffic/controller_socket_win.h"
#include "traffic/core_stats_client.h"

namespace orvel {

SOCKET OpenControllerSocket() {
  SOCKET s = WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                        WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (s == INVALID_SOCKET) return s;
  // Windows answers a refused loopback connect by sending its SYN again and
  // reports the refusal only after about 2 s. No SYN retransmission makes the
  // refusal immediate, as on other systems. Wine answers WSAEOPNOTSUPP (its
  // connects are the host's, refused at once), so the result is not checked.
  TCP_INITIAL_RTO_PARAMETERS noSynRetries{TCP_INITIAL_RTO_UNSPECIFIED_RTT,
                                          TCP_INITIAL_RTO_NO_SYN_RETRANSMISSIONS};
  DWORD returned = 0;
  WSAIoctl(s, SIO_TCP_INITIAL_RTO, &noSynRetries, sizeof(noSynRetries), nullptr, 0, &returned,
           nullptr, nullptr);
  return s;
}

bool ConnectController(SOCKET s, std::uint16_t port, WSAEVENT ready, DWORD timeoutMs,
                       HANDLE endEarly) {
  if (WSAEventSelect(s, ready, FD_CONNECT | FD_READ | FD_CLOSE) != 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  if (connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return true;
  if (WSAGetLastError() != WSAEWOULDBLOCK) return false;
  // A blocking connect would have no bound at all: where the refusal is not
  // immediate (the SYN retries above, a full backlog that drops the SYN) it
  // waits for the system's own retries, 21 s for a SYN never answered.
  const HANDLE waits[] = {ready, endEarly};
  if (WaitForMultipleObjects(endEarly != nullptr ? 2 : 1, waits, FALSE, timeoutMs) !=
      WAIT_OBJECT_0) {
    return false;
  }
  WSANETWORKEVENTS events{};
  if (WSAEnumNetworkEvents(s, ready, &events) != 0) return false;
  return (events.lNetworkEvents & FD_CONNECT) != 0 && events.iErrorCode[FD_CONNECT_BIT] == 0;
}

bool LocalHttpGet(std::uint16_t port, std::string_view path, std::uint32_t timeoutMs,
                  std::string& response) {
  SOCKET s = OpenControllerSocket();
  if (s == INVALID_SOCKET) return false;
  WSAEVENT ready = WSACreateEvent();
  const bool connected =
      ready != WSA_INVALID_EVENT && ConnectController(s, port, ready, timeoutMs, nullptr);
  // Back to a plain blocking socket for the exchange below.
  u_long blocking = 0;
  if (ready != WSA_INVALID_EVENT) {
    WSAEventSelect(s, nullptr, 0);
    WSACloseEvent(ready);
  }
  if (!connected || ioctlsocket(s, FIONBIO, &blocking) != 0) {
    closesocket(s);
    return false;
  }
  // Both time-outs bound every single receive and send; a controller that
  // accepts and stays silent costs one receive time-out, then the call ends.
  const DWORD timeout = timeoutMs;
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof(timeout));
  setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&timeout), sizeof(timeout));

  const std::string request = BuildControllerRequest(path);
  if (send(s, request.data(), static_cast<int>(request.size()), 0) == SOCKET_ERROR) {
    closesocket(s);
    return false;
  }

  response.clear();
  char chunk[kCoreReceiveChunkBytes];
  while (response.size() < kCoreResponseCapBytes) {
    const int received = recv(s, chunk, sizeof(chunk), 0);
    if (received <= 0) break;  // closed, error or receive time-out
    response.append(chunk, static_cast<std::size_t>(received));
    if (IsCoreResponseComplete(response)) break;
  }
  closesocket(s);
  return !response.empty();
}

}  // namespace orvel
