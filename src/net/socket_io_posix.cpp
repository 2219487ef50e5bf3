#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "net/socket_io.h"

namespace orvel {

void SendBytes(SocketHandle socket, std::string_view bytes) {
  // Never SIGPIPE for a client that has gone: the helper ignores no signal
  // itself, since an ignored signal would stay ignored in every core.
  send(static_cast<int>(socket), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

long ReceiveBytesWithin(SocketHandle socket, char* buffer, std::size_t size, int timeoutMs) {
  pollfd readable{static_cast<int>(socket), POLLIN, 0};
  for (;;) {
    const int ready = poll(&readable, 1, timeoutMs);
    if (ready == 0) return kReceiveTimedOut;
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return -1;
    const ssize_t got = recv(static_cast<int>(socket), buffer, size, 0);
    if (got >= 0 || errno != EINTR) return got;
  }
}

void ShutdownSending(SocketHandle socket) { shutdown(static_cast<int>(socket), SHUT_WR); }

void CloseSocket(SocketHandle socket) { close(static_cast<int>(socket)); }

}  // namespace orvel
