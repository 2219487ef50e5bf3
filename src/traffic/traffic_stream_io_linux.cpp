#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <system_error>
#include <thread>

#include "core/core_process_linux.h"
#include "traffic/controller_socket_posix.h"
#include "traffic/core_stats_client.h"
#include "traffic/traffic_stream_io.h"

namespace orvel {

namespace {

int Descriptor(std::uintptr_t handle) { return static_cast<int>(handle); }

}  // namespace

// A pidfd of the reader's own: readable once the core has ended.
bool OpenCoreWatch(CoreWatch& core) {
  const int pidfd = DuplicateCorePidfd();
  if (pidfd < 0) return false;
  core.handle = static_cast<std::uintptr_t>(pidfd);
  return true;
}

void CloseCoreWatch(CoreWatch core) { close(Descriptor(core.handle)); }

bool WaitForCoreEnd(CoreWatch core, std::uint32_t ms) {
  pollfd ended{Descriptor(core.handle), POLLIN, 0};
  return poll(&ended, 1, static_cast<int>(ms)) != 0;
}

bool OpenTrafficConnection(CoreWatch core, TrafficConnection& connection) {
  const int s =
      ConnectController(kCoreApiPort, static_cast<int>(kCoreApiTimeoutMs), Descriptor(core.handle));
  if (s < 0) return false;
  connection.socket = static_cast<std::uintptr_t>(s);
  return true;
}

bool SendTrafficRequest(const TrafficConnection& connection, std::string_view request) {
  return send(Descriptor(connection.socket), request.data(), request.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(request.size());
}

bool WaitForTrafficData(const TrafficConnection& connection, CoreWatch core) {
  pollfd waits[] = {{Descriptor(connection.socket), POLLIN, 0},
                    {Descriptor(core.handle), POLLIN, 0}};
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

bool StartTrafficReaderThread(void (*read)(CoreWatch, std::uint64_t), CoreWatch core,
                              std::uint64_t generation) {
  try {
    std::thread(read, core, generation).detach();
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

}  // namespace orvel
