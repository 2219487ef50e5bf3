#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include "api/connection.h"
#include "api/control_server.h"
#include "log/log_buffer.h"

namespace orvel {

namespace {

void* ConnectionThread(void* parameter) {
  const AcceptedConnection connection = *static_cast<AcceptedConnection*>(parameter);
  delete static_cast<AcceptedConnection*>(parameter);
  HandleConnection(connection);
  return nullptr;
}

// Every open connection holds a thread (an idle client included), so the
// stack is kept at 256 KiB; the deepest request path (a URL test stream or a
// snapshot) needs a few KiB of it.
bool StartConnectionThread(const AcceptedConnection& connection) {
  constexpr std::size_t kConnectionStackBytes = 256 * 1024;
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setstacksize(&attributes, kConnectionStackBytes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  auto* handed = new AcceptedConnection(connection);
  const bool started = pthread_create(&thread, &attributes, ConnectionThread, handed) == 0;
  pthread_attr_destroy(&attributes);
  if (!started) delete handed;
  return started;
}

}  // namespace

int RunControlServer(void (*listening)()) {
  HelperLog().Append("OrvelVpnHelper started");
  // Close-on-exec from its creation, as is every accepted socket: a core
  // started later must not keep port 17891 bound, nor hold a client's
  // connection open after its answer.
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) return 1;
  const int reuse = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kControlPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener, SOMAXCONN) != 0) {
    close(listener);
    return 1;
  }
  if (listening != nullptr) listening();
  for (;;) {
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
      // Out of descriptors or memory: a pause, not a spin.
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) usleep(10000);
      continue;
    }
    AcceptedConnection connection;
    if (!AdmitAcceptedConnection(static_cast<SocketHandle>(client), connection)) continue;
    // No thread, no answer: the connection is closed rather than the helper ended.
    if (!StartConnectionThread(connection)) DropConnection(connection);
  }
}

}  // namespace orvel
