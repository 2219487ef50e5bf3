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

enum class ConnectResult {
  kConnected,
  kRefused,         // nothing accepts, as for ConnectTo
  kStrangerHolder,  // another account listens on the loopback port: never dialed
  kUnknownHolder    // the port's owner could not be told: nothing sent
};

// ConnectTo for a request: on Linux a loopback address is dialed only when
// no socket of another account (neither root nor the caller) listens on it,
// and the connection is kept only when, once made, a listener of root's or
// the caller's is still there (one that appeared or left in between is not
// trusted). `strangerUid` for kStrangerHolder. Windows connects as ConnectTo.
ConnectResult ConnectToTrustedListener(const ClientAddress& address, ClientSocket& socket,
                                       std::uint32_t& strangerUid);

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
