#include <winsock2.h>
#include <ws2tcpip.h>
// after winsock2.h: mstcpip.h depends on it.
#include <mstcpip.h>

#include <algorithm>
#include <mutex>
#include <string>

#include "client/client_socket.h"

namespace orvel::client {

namespace {

void EnsureWinsock() {
  static std::once_flag once;
  std::call_once(once, [] {
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
  });
}

SOCKET AsSocket(SocketHandle handle) { return static_cast<SOCKET>(handle); }

}  // namespace

ClientSocket::~ClientSocket() {
  if (handle != kNoSocket) closesocket(AsSocket(handle));
}

bool ConnectTo(const ClientAddress& address, ClientSocket& socket) {
  EnsureWinsock();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* found = nullptr;
  const std::string port = std::to_string(address.port);
  if (getaddrinfo(address.host.c_str(), port.c_str(), &hints, &found) != 0) return false;
  bool connected = false;
  for (addrinfo* at = found; at != nullptr && !connected; at = at->ai_next) {
    SOCKET s = WSASocketW(at->ai_family, at->ai_socktype, at->ai_protocol, nullptr, 0,
                          WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (s == INVALID_SOCKET) continue;
    // Windows retries a refused SYN for about 2 s before it reports the
    // refusal; "no helper" should be told at once. Wine lacks the ioctl and
    // refuses at once anyway, so its result is not checked.
    TCP_INITIAL_RTO_PARAMETERS noSynRetries{TCP_INITIAL_RTO_UNSPECIFIED_RTT,
                                            TCP_INITIAL_RTO_NO_SYN_RETRANSMISSIONS};
    DWORD returned = 0;
    WSAIoctl(s, SIO_TCP_INITIAL_RTO, &noSynRetries, sizeof(noSynRetries), nullptr, 0, &returned,
             nullptr, nullptr);
    if (connect(s, at->ai_addr, static_cast<int>(at->ai_addrlen)) == 0) {
      socket.handle = static_cast<SocketHandle>(s);
      connected = true;
    } else {
      closesocket(s);
    }
  }
  freeaddrinfo(found);
  return connected;
}

// No owner look-up here: the Linux build alone checks who listens.
ConnectResult ConnectToTrustedListener(const ClientAddress& address, ClientSocket& socket,
                                       std::uint32_t&) {
  return ConnectTo(address, socket) ? ConnectResult::kConnected : ConnectResult::kRefused;
}

bool SendAllBytes(const ClientSocket& socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const int chunk = static_cast<int>(std::min<std::size_t>(bytes.size(), 1 << 20));
    const int sent = send(AsSocket(socket.handle), bytes.data(), chunk, 0);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

int ReceiveSome(const ClientSocket& socket, char* buffer, int size, int timeoutMs) {
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(AsSocket(socket.handle), &readable);
  timeval wait{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
  const int ready = select(0, &readable, nullptr, nullptr, &wait);
  if (ready == 0) return kReceiveTimedOut;
  if (ready < 0) return kReceiveError;
  const int received = recv(AsSocket(socket.handle), buffer, size, 0);
  return received < 0 ? kReceiveError : received;
}

}  // namespace orvel::client
