#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "client/client_socket.h"
#include "client/listener_holder.h"

namespace orvel::client {

ClientSocket::~ClientSocket() {
  if (handle != kNoSocket) close(static_cast<int>(handle));
}

namespace {

// The address as the kernel will route a connection to it (see DialTarget).
DialTarget TargetOf(const sockaddr* address) {
  DialTarget target;
  if (address->sa_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
    std::memcpy(target.address.data(), &v4->sin_addr, 4);
    target.port = ntohs(v4->sin_port);
    if (v4->sin_addr.s_addr == htonl(INADDR_ANY)) target.address = {127, 0, 0, 1};
    return target;
  }
  const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
  target.port = ntohs(v6->sin6_port);
  if (IN6_IS_ADDR_V4MAPPED(&v6->sin6_addr)) {
    std::memcpy(target.address.data(), v6->sin6_addr.s6_addr + 12, 4);
  } else {
    target.ipv6 = true;
    std::memcpy(target.address.data(), v6->sin6_addr.s6_addr, 16);
    if (IN6_IS_ADDR_UNSPECIFIED(&v6->sin6_addr)) target.address[15] = 1;
  }
  return target;
}

ConnectResult Dial(const ClientAddress& address, ClientSocket& socket, bool checkHolder,
                   std::uint32_t& strangerUid) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const std::string port = std::to_string(address.port);
  if (getaddrinfo(address.host.c_str(), port.c_str(), &hints, &found) != 0) {
    return ConnectResult::kRefused;
  }
  ConnectResult result = ConnectResult::kRefused;
  for (addrinfo* at = found; at != nullptr && result == ConnectResult::kRefused; at = at->ai_next) {
    const bool check = checkHolder && (at->ai_family == AF_INET || at->ai_family == AF_INET6) &&
                       IsLoopbackTarget(TargetOf(at->ai_addr));
    if (check) {
      const ListenerHolder before = FindListenerHolder(TargetOf(at->ai_addr), strangerUid);
      if (before == ListenerHolder::kStranger) result = ConnectResult::kStrangerHolder;
      if (before == ListenerHolder::kUnknown) result = ConnectResult::kUnknownHolder;
      if (result != ConnectResult::kRefused) break;
    }
    const int s = ::socket(at->ai_family, at->ai_socktype | SOCK_CLOEXEC, at->ai_protocol);
    if (s < 0) continue;
    int connected = 0;
    do {
      connected = connect(s, at->ai_addr, at->ai_addrlen);
    } while (connected != 0 && errno == EINTR);
    if (connected != 0) {
      close(s);
      continue;
    }
    result = ConnectResult::kConnected;
    if (check) {
      const ListenerHolder after = FindListenerHolder(TargetOf(at->ai_addr), strangerUid);
      if (after == ListenerHolder::kStranger) result = ConnectResult::kStrangerHolder;
      if (after == ListenerHolder::kNone || after == ListenerHolder::kUnknown) {
        result = ConnectResult::kUnknownHolder;
      }
    }
    if (result == ConnectResult::kConnected) {
      socket.handle = s;
    } else {
      close(s);
    }
  }
  freeaddrinfo(found);
  return result;
}

}  // namespace

bool ConnectTo(const ClientAddress& address, ClientSocket& socket) {
  std::uint32_t unused = 0;
  return Dial(address, socket, false, unused) == ConnectResult::kConnected;
}

ConnectResult ConnectToTrustedListener(const ClientAddress& address, ClientSocket& socket,
                                       std::uint32_t& strangerUid) {
  return Dial(address, socket, true, strangerUid);
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
