#include <winsock2.h>

#include <algorithm>

#include "core/core_process_win.h"
#include "core/win_handle.h"
#include "traffic/controller_socket_win.h"
#include "traffic/core_stats_client.h"
#include "traffic/traffic_reader.h"
#include "traffic/traffic_sample_slot.h"

namespace orvel {

namespace {

// One connection: connect, ask, and store every sample until the stream ends
// or fails, or the core ends. The socket is closed on every path. True when
// at least one sample came.
bool ReadStreamOnce(HANDLE core, std::uint64_t generation) {
  bool sampled = false;
  SOCKET s = OpenControllerSocket();
  if (s == INVALID_SOCKET) return sampled;
  UniqueHandle ready(WSACreateEvent());
  if (ready.Valid() && ConnectController(s, kCoreApiPort, ready.h, kCoreApiTimeoutMs, core)) {
    // The request is a few dozen bytes into an empty send buffer: a
    // non-blocking send takes it whole or fails, and a failure means retry.
    const std::string request = BuildControllerRequest("/traffic");
    const int requestBytes = static_cast<int>(request.size());
    bool open = send(s, request.data(), requestBytes, 0) == requestBytes;
    std::string pending;
    std::string sample;
    char chunk[kCoreReceiveChunkBytes];
    const HANDLE waits[] = {ready.h, core};
    // No time-out: a silent controller is waited for as long as the core
    // runs; snapshots meanwhile read the controller themselves.
    while (open && WaitForMultipleObjects(2, waits, FALSE, INFINITE) == WAIT_OBJECT_0) {
      WSANETWORKEVENTS events{};
      if (WSAEnumNetworkEvents(s, ready.h, &events) != 0) break;
      for (;;) {
        const int received = recv(s, chunk, sizeof(chunk), 0);
        if (received == SOCKET_ERROR && WSAGetLastError() == WSAEWOULDBLOCK) break;
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
  }
  closesocket(s);
  return sampled;
}

// The reader's thread: owns `core` (its own handle to the core's process) and
// ends as soon as that process has ended or a newer start or a stop has
// retired it. The pause between attempts doubles while none brings a sample
// (a controller that is off, or one that answers and closes, as with a
// secret): each closed connection leaves a TIME_WAIT row in the socket
// tables, which Wine's table calls pay for row by row.
void ReadTrafficStream(HANDLE core, std::uint64_t generation) {
  UniqueHandle process(core);
  DWORD pauseMs = kTrafficReaderRetryMs;
  for (;;) {
    if (ReadStreamOnce(process.h, generation)) pauseMs = kTrafficReaderRetryMs;
    if (WaitForSingleObject(process.h, pauseMs) != WAIT_TIMEOUT ||
        !IsCurrentTrafficReader(generation))
      break;
    pauseMs = std::min<DWORD>(pauseMs * 2, kTrafficReaderMaxRetryMs);
  }
  StoreTrafficSample(generation, {});
}

struct ReaderStart {
  HANDLE core;
  std::uint64_t generation;
};

DWORD WINAPI ReaderThread(LPVOID parameter) {
  const ReaderStart start = *static_cast<ReaderStart*>(parameter);
  delete static_cast<ReaderStart*>(parameter);
  ReadTrafficStream(start.core, start.generation);
  return 0;
}

}  // namespace

void StartTrafficReader() {
  const std::uint64_t generation = BeginTrafficReaderGeneration();
  HANDLE core = DuplicateCoreProcessHandle();
  if (core == nullptr) return;
  // A plain Windows thread, not a detached std::thread: the MinGW threads
  // library races when it recycles a detached thread's record (see the
  // connection threads of the control server). Nothing joins it; it ends
  // with its core. The stack is reserved small: the reader needs a few KiB.
  constexpr SIZE_T kReaderStackBytes = 64 * 1024;
  auto* start = new ReaderStart{core, generation};
  HANDLE thread = CreateThread(nullptr, kReaderStackBytes, ReaderThread, start,
                               STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (thread == nullptr) {
    delete start;
    CloseHandle(core);
    return;
  }
  CloseHandle(thread);
}

}  // namespace orvel
