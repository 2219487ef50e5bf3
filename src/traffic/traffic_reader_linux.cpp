#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "core/core_process_linux.h"
#include "traffic/controller_socket_posix.h"
#include "traffic/core_stats_client.h"
#include "traffic/traffic_reader.h"
#include "traffic/traffic_sample_slot.h"

namespace orvel {

namespace {

// One connection: connect, ask, and store every sample until the stream ends
// or fails, or the core ends. The socket is closed on every path. True when
// at least one sample came.
bool ReadStreamOnce(int core, std::uint64_t generation) {
  const int s = ConnectController(kCoreApiPort, static_cast<int>(kCoreApiTimeoutMs), core);
  if (s < 0) return false;
  const std::string request = BuildControllerRequest("/traffic");
  bool open =
      send(s, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size());
  bool sampled = false;
  std::string pending;
  std::string sample;
  char chunk[kCoreReceiveChunkBytes];
  pollfd waits[] = {{s, POLLIN, 0}, {core, POLLIN, 0}};
  // No time-out: a silent controller is waited for as long as the core runs;
  // snapshots meanwhile read the controller themselves.
  while (open) {
    if (poll(waits, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (waits[1].revents != 0) break;  // the core has ended
    for (;;) {
      const ssize_t received = recv(s, chunk, sizeof(chunk), 0);
      if (received < 0 && (errno == EAGAIN || errno == EINTR)) break;
      if (received <= 0) {  // the stream ended or failed
        open = false;
        break;
      }
      pending.append(chunk, static_cast<std::size_t>(received));
    }
    if (TakeLatestTrafficSample(pending, sample)) {
      StoreTrafficSample(generation, sample);
      sampled = true;
    }
  }
  close(s);
  return sampled;
}

// The reader's thread: owns `core` (a pidfd of its own) and ends as soon as
// that process has ended or a newer start or a stop has retired it. The
// pause between attempts doubles while none brings a sample (a controller
// that is off, or one that answers and closes, as with a secret).
void ReadTrafficStream(int core, std::uint64_t generation) {
  int pauseMs = static_cast<int>(kTrafficReaderRetryMs);
  pollfd ended{core, POLLIN, 0};
  for (;;) {
    if (ReadStreamOnce(core, generation)) pauseMs = static_cast<int>(kTrafficReaderRetryMs);
    if (poll(&ended, 1, pauseMs) != 0 || !IsCurrentTrafficReader(generation)) break;
    pauseMs = std::min(pauseMs * 2, static_cast<int>(kTrafficReaderMaxRetryMs));
  }
  // The core's own watcher reaps it (and reports how it ended): never here.
  close(core);
  StoreTrafficSample(generation, {});
}

}  // namespace

void StartTrafficReader() {
  const std::uint64_t generation = BeginTrafficReaderGeneration();
  const int core = DuplicateCorePidfd();
  if (core < 0) return;
  // Nothing joins it; it ends with its core.
  std::thread(ReadTrafficStream, core, generation).detach();
}

}  // namespace orvel
