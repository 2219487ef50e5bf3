#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "traffic/controller_socket_posix.h"
#include "traffic/core_stats_client.h"

namespace orvel {

int ConnectController(std::uint16_t port, int timeoutMs, int endEarly) {
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (s < 0) return -1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return s;
  if (errno == EINPROGRESS) {
    // A blocking connect would have no bound of its own where a full backlog
    // drops the SYN.
    pollfd waits[] = {{s, POLLOUT, 0}, {endEarly, POLLIN, 0}};
    int error = 0;
    socklen_t length = sizeof(error);
    if (poll(waits, endEarly >= 0 ? 2 : 1, timeoutMs) > 0 && (waits[0].revents & POLLOUT) != 0 &&
        getsockopt(s, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0) {
      return s;
    }
  }
  close(s);
  return -1;
}

bool LocalHttpGet(std::uint16_t port, std::string_view path, std::uint32_t timeoutMs,
                  std::string& response) {
  const int timeout = static_cast<int>(timeoutMs);
  const int s = ConnectController(port, timeout, -1);
  if (s < 0) return false;
  const std::string request = BuildControllerRequest(path);
  // A few dozen bytes into an empty send buffer: taken whole or not at all.
  if (send(s, request.data(), request.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(request.size())) {
    close(s);
    return false;
  }
  response.clear();
  char chunk[kCoreReceiveChunkBytes];
  pollfd readable{s, POLLIN, 0};
  // The time-out bounds every single wait; a controller that accepts and
  // stays silent costs one time-out, then the call ends.
  while (response.size() < kCoreResponseCapBytes) {
    const int ready = poll(&readable, 1, timeout);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) break;
    const ssize_t received = recv(s, chunk, sizeof(chunk), 0);
    if (received < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (received <= 0) break;  // closed or failed
    response.append(chunk, static_cast<std::size_t>(received));
    if (IsCoreResponseComplete(response)) break;
  }
  close(s);
  return !response.empty();
}

}  // namespace orvel
