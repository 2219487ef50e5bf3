#include <winsock2.h>
#include <ws2tcpip.h>
// after winsock2.h: mstcpip.h depends on it.
#include <mstcpip.h>

#include "traffic/core_stats_client.h"

namespace orvel {

bool LocalHttpGet(std::uint16_t port, std::string_view path, std::uint32_t timeoutMs,
                  std::string& response) {
  // Not inheritable: a core or URL test child started while this request is
  // open must not hold the connection to the controller.
  SOCKET s = WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                        WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (s == INVALID_SOCKET) return false;
  // Both time-outs bound every single receive and send; a controller that
  // accepts and stays silent costs one receive time-out, then the call ends.
  const DWORD timeout = timeoutMs;
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof(timeout));
  setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&timeout), sizeof(timeout));
  // Windows answers a refused loopback connect by sending its SYN again and
  // reports the refusal only after about 2 s; with the controller disabled
  // every snapshot would then wait 4 s. No SYN retransmission makes the
  // refusal immediate, as on other systems. Where the ioctl is not supported
  // (Wine) the connect behaves as before, so its result is not checked.
  TCP_INITIAL_RTO_PARAMETERS noSynRetries{TCP_INITIAL_RTO_UNSPECIFIED_RTT,
                                          TCP_INITIAL_RTO_NO_SYN_RETRANSMISSIONS};
  DWORD returned = 0;
  WSAIoctl(s, SIO_TCP_INITIAL_RTO, &noSynRetries, sizeof(noSynRetries), nullptr, 0, &returned,
           nullptr, nullptr);

  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  if (connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    closesocket(s);
    return false;
  }

  std::string request = "GET ";
  request += path;
  request += " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
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
