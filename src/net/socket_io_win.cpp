#include <winsock2.h>

#include <climits>
#include <string>

#include "net/socket_io.h"

namespace orvel {

void SendBytes(SocketHandle socket, std::string_view bytes) {
  const int length = bytes.size() > INT_MAX ? INT_MAX : static_cast<int>(bytes.size());
  send(static_cast<SOCKET>(socket), bytes.data(), length, 0);
}

long ReceiveBytesWithin(SocketHandle socket, char* buffer, std::size_t size, int timeoutMs) {
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(static_cast<SOCKET>(socket), &readable);
  timeval timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
  const int ready = select(0, &readable, nullptr, nullptr, &timeout);
  if (ready == 0) return kReceiveTimedOut;
  if (ready < 0) return -1;
  const int length = size > INT_MAX ? INT_MAX : static_cast<int>(size);
  return recv(static_cast<SOCKET>(socket), buffer, length, 0);
}

void ShutdownSending(SocketHandle socket) { shutdown(static_cast<SOCKET>(socket), SD_SEND); }

void CloseSocket(SocketHandle socket) { closesocket(static_cast<SOCKET>(socket)); }

}  // namespace orvel
