#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace orvel {

// A connected socket as the platform knows it (a Winsock SOCKET on Windows, a
// descriptor on Linux).
using SocketHandle = std::uintptr_t;

// One receive that waits at most `timeoutMs`: the byte count, 0 when the peer
// has closed, kReceiveTimedOut when nothing came in time, another negative
// value on error.
constexpr long kReceiveTimedOut = -2;
long ReceiveBytesWithin(SocketHandle socket, char* buffer, std::size_t size, int timeoutMs);

void CloseSocket(SocketHandle socket);

// Sends the end of the stream (FIN) while the socket can still be read.
void ShutdownSending(SocketHandle socket);

// One send call with the whole text; the result is ignored and a partial send
// is not continued (answers are small and the client reads to end-of-stream).
void SendBytes(SocketHandle socket, std::string_view bytes);

// Writes one complete HTTP/1.1 response; does not close the socket.
void SendResponse(SocketHandle socket, std::string_view contentType, std::string_view body,
                  int status, std::string_view reason);

}  // namespace orvel
