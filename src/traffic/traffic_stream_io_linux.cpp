#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "traffic/controller_socket_posix.h"
#include "traffic/core_stats_client.h"
#include "traffic/traffic_stream_io.h"

namespace orvel {

namespace {

int Descriptor(std::intptr_t handle) { return static_cast<int>(handle); }

}  // namespace

// The core's pidfd is readable once it has ended.
bool WaitForCoreEnd(ChildHandle core, std::uint32_t ms) {
  pollfd ended{Descriptor(core), POLLIN, 0};
  return poll(&ended, 1, static_cast<int>(ms)) != 0;
}

bool OpenTrafficConnection(ChildHandle core, TrafficConnection& connection) {
  const int s =
      ConnectController(kCoreApiPort, static_cast<int>(kCoreApiTimeoutMs), Descriptor(core));
  if (s < 0) return false;
  connection.socket = static_cast<std::uintptr_t>(s);
  return true;
}

bool SendTrafficRequest(const TrafficConnection& connection, std::string_view request) {
  return send(Descriptor(connection.socket), request.data(), request.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(request.size());
}

bool WaitForTrafficData(const TrafficConnection& connection, ChildHandle core) {
  pollfd waits[] = {{Descriptor(connection.socket), POLLIN, 0}, {Descriptor(core), POLLIN, 0}};
  for (;;) {
    if (poll(waits, 2, -1) >= 0) return waits[1].revents == 0;
    if (errno != EINTR) return false;
  }
}

bool ReceiveTrafficBytes(const TrafficConnection& connection, std::string& pending) {
  char chunk[kCoreReceiveChunkBytes];
  for (;;) {
    const ssize_t received = recv(Descriptor(connection.socket), chunk, sizeof(chunk), 0);
    if (received < 0 && (errno == EAGAIN || errno == EINTR)) return true;
    if (received <= 0) return false;
    pending.append(chunk, static_cast<std::size_t>(received));
  }
}

void CloseTrafficConnection(const TrafficConnection& connection) {
  close(Descriptor(connection.socket));
}

}  // namespace orvel
