#pragma once

// The few socket calls a client needs, behind one header: Winsock in
// client_socket_win.cpp, POSIX sockets in client_socket_posix.cpp; the build
// picks one.

#include <cstdint>
#include <string_view>

#include "client/http_exchange.h"

namespace orvel::client {

// A Winsock SOCKET or a POSIX descriptor; both fit, and both use -1 (all bits
// set) for "none".
using SocketHandle = std::intptr_t;
constexpr SocketHandle kNoSocket = -1;

// Closes its socket when it goes out of scope.
struct ClientSocket {
  SocketHandle handle = kNoSocket;
  ClientSocket() = default;
  ClientSocket(const ClientSocket&) = delete;
  ClientSocket& operator=(const ClientSocket&) = delete;
  ~ClientSocket();
};

// Resolves the host and connects to the first address that accepts. False
// when nothing accepts (no listener, unknown host, unreachable).
bool ConnectTo(const ClientAddress& address, ClientSocket& socket);

// Sends every byte; false on an error.
bool SendAllBytes(const ClientSocket& socket, std::string_view bytes);

constexpr int kReceiveClosed = 0;
constexpr int kReceiveError = -1;
constexpr int kReceiveTimedOut = -2;

// Waits up to `timeoutMs` for bytes and reads what has arrived: the count,
// kReceiveClosed at the peer's orderly close, kReceiveError, or
// kReceiveTimedOut when nothing came.
int ReceiveSome(const ClientSocket& socket, char* buffer, int size, int timeoutMs);

}  // namespace orvel::client
