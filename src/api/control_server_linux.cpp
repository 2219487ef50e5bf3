#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string_view>

#include "api/connection.h"
#include "api/control_server.h"
#include "core/system_error.h"
#include "log/log_buffer.h"

namespace orvel {

namespace {

// A listening socket on the loopback address of `family`, or -1 with `error`
// naming the call that failed. Close-on-exec from its creation, as is every
// accepted socket: a core started later must not keep port 17891 bound, nor
// hold a client's connection open after its answer.
int ListenOnLoopback(int family, SystemError& error) {
  const std::string_view where = family == AF_INET ? "127.0.0.1:17891" : "[::1]:17891";
  const int listener = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) {
    error = LastSystemError("socket", where);
    return -1;
  }
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_storage address{};
  socklen_t length = 0;
  if (family == AF_INET) {
    auto& v4 = reinterpret_cast<sockaddr_in&>(address);
    v4.sin_family = AF_INET;
    v4.sin_port = htons(kControlPort);
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    length = sizeof(v4);
  } else {
    // [::1] only: never the IPv4 addresses through a mapped socket.
    setsockopt(listener, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
    auto& v6 = reinterpret_cast<sockaddr_in6&>(address);
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(kControlPort);
    v6.sin6_addr = in6addr_loopback;
    length = sizeof(v6);
  }
  const char* failed = nullptr;
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
    failed = "bind";
  } else if (listen(listener, SOMAXCONN) != 0) {
    failed = "listen";
  }
  if (failed == nullptr) return listener;
  error = LastSystemError(failed, where);
  close(listener);
  return -1;
}

// The helper ends after this line; under systemd it is the journal's last word.
int FailListening(const SystemError& error) {
  HelperLog().Append("Control server not started: " + DescribeSystemError(error));
  return 1;
}

void AcceptOne(int listener) {
  const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (client < 0) {
    // Out of descriptors or memory: a pause, not a spin.
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) usleep(10000);
    return;
  }
  AcceptedConnection connection;
  if (!AdmitAcceptedConnection(static_cast<SocketHandle>(client), connection)) return;
  // No thread, no answer: the connection is closed rather than the helper ended.
  if (!StartConnectionThread(connection)) DropConnection(connection);
}

}  // namespace

int RunControlServer(void (*listening)()) {
  HelperLog().Append("OrvelVpnHelper started");
  // Both loopbacks are the helper's: a client that dials "localhost" may try
  // [::1] first, and whoever held that port would get its configuration.
  SystemError error;
  pollfd listeners[2] = {{ListenOnLoopback(AF_INET, error), POLLIN, 0}, {-1, POLLIN, 0}};
  if (listeners[0].fd < 0) return FailListening(error);
  listeners[1].fd = ListenOnLoopback(AF_INET6, error);
  if (listeners[1].fd < 0) {
    // Taken by someone else: the same as IPv4 taken. Otherwise IPv6 is off.
    if (error.code == EADDRINUSE) {
      close(listeners[0].fd);
      return FailListening(error);
    }
    HelperLog().Append("IPv6 loopback [::1]:17891 not available, serving 127.0.0.1 only");
  }
  if (listening != nullptr) listening();
  for (;;) {
    if (poll(listeners, listeners[1].fd < 0 ? 1 : 2, -1) < 0) continue;
    for (const pollfd& listener : listeners) {
      if (listener.fd >= 0 && (listener.revents & POLLIN) != 0) AcceptOne(listener.fd);
    }
  }
}

}  // namespace orvel
