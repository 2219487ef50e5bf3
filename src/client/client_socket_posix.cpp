#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "client/client_socket.h"

namespace orvel::client {

ClientSocket::~ClientSocket() {
  if (handle != kNoSocket) close(static_cast<int>(handle));
}

bool ConnectTo(const ClientAddress& address, ClientSocket& socket) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const std::string port = std::to_string(address.port);
  if (getaddrinfo(address.host.c_str(), port.c_str(), &hints, &found) != 0) return false;
  bool connected = false;
  for (addrinfo* at = found; at != nullptr && !connected; at = at->ai_next) {
    const int s = ::socket(at->ai_family, at->ai_socktype | SOCK_CLOEXEC, at->ai_protocol);
    if (s < 0) continue;
    int result = 0;
    do {
      result = connect(s, at->ai_addr, at->ai_addrlen);
    } while (result != 0 && errno == EINTR);
    if (result == 0) {
      socket.handle = s;
      connected = true;
    } else {
      close(s);
    }
  }
  freeaddrinfo(found);
  return connected;
}

bool SendAllBytes(const ClientSocket& socket, std::string_view bytes) {
  while (!bytes.empty()) {
    // MSG_NOSIGNAL: a helper that hung up must give an error, not SIGPIPE.
    const ssize_t sent = send(static_cast<int>(socket.handle), bytes.data(),
                              std::min<std::size_t>(bytes.size(), 1 << 20), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

int ReceiveSome(const ClientSocket& socket, char* buffer, int size, int timeoutMs) {
  pollfd entry{static_cast<int>(socket.handle), POLLIN, 0};
  int ready = 0;
  // A signal (Ctrl-C) ends the wait early; waiting again keeps the time-out
  // meaning "the helper said nothing". Callers that must see Ctrl-C at once
  // wait in short steps.
  do {
    ready = poll(&entry, 1, timeoutMs);
  } while (ready < 0 && errno == EINTR);
  if (ready == 0) return kReceiveTimedOut;
  if (ready < 0) return kReceiveError;
  ssize_t received = 0;
  do {
    received = recv(static_cast<int>(socket.handle), buffer, static_cast<std::size_t>(size), 0);
  } while (received < 0 && errno == EINTR);
  return received < 0 ? kReceiveError : static_cast<int>(received);
}

}  // namespace orvel::client
