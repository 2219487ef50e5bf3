#include "traffic/traffic_reader.h"

#include <algorithm>

#include "core/core_process.h"
#include "core/detached_thread.h"
#include "traffic/core_stats_client.h"
#include "traffic/traffic_sample_slot.h"
#include "traffic/traffic_stream_io.h"

namespace orvel {

namespace {

// One connection: connect, ask, and store every sample until the stream ends
// or fails, or the core ends. The connection is closed on every path. True
// when at least one sample came.
bool ReadStreamOnce(ChildHandle core, std::uint64_t generation) {
  TrafficConnection connection;
  if (!OpenTrafficConnection(core, connection)) return false;
  bool open = SendTrafficRequest(connection, BuildControllerRequest("/traffic"));
  bool sampled = false;
  std::string pending;
  std::string sample;
  // No time-out: a silent controller is waited for as long as the core runs;
  // snapshots meanwhile read the controller themselves.
  while (open && WaitForTrafficData(connection, core)) {
    open = ReceiveTrafficBytes(connection, pending);
    if (TakeLatestTrafficSample(pending, sample)) {
      StoreTrafficSample(generation, sample);
      sampled = true;
    }
  }
  CloseTrafficConnection(connection);
  return sampled;
}

// The reader's thread: owns `core` and ends as soon as that process has ended
// or a newer start or a stop has retired it. The pause between attempts
// doubles while none brings a sample (a controller that is off, or one that
// answers and closes, as with a secret): each closed connection leaves a
// TIME_WAIT row in the socket tables, which Wine's table calls pay for row by
// row. The core's own watcher reaps it (and reports how it ended): never here.
void ReadTrafficStream(ChildHandle core, std::uint64_t generation) {
  std::uint32_t pauseMs = kTrafficReaderRetryMs;
  for (;;) {
    if (ReadStreamOnce(core, generation)) pauseMs = kTrafficReaderRetryMs;
    if (WaitForCoreEnd(core, pauseMs) || !IsCurrentTrafficReader(generation)) break;
    pauseMs = std::min(pauseMs * 2, kTrafficReaderMaxRetryMs);
  }
  CloseChildHandle(core);
  StoreTrafficSample(generation, {});
}

struct ReaderStart {
  ChildHandle core;
  std::uint64_t generation;
};

void RunTrafficReader(void* parameter) {
  const ReaderStart start = *static_cast<ReaderStart*>(parameter);
  delete static_cast<ReaderStart*>(parameter);
  ReadTrafficStream(start.core, start.generation);
}

}  // namespace

void StartTrafficReader() {
  const std::uint64_t generation = BeginTrafficReaderGeneration();
  const ChildHandle core = DuplicateCoreHandle();
  if (core == kNoChildHandle) return;
  // Nothing joins it; it ends with its core.
  auto* reader = new ReaderStart{core, generation};
  if (!StartDetachedThread(RunTrafficReader, reader)) {
    delete reader;
    CloseChildHandle(core);
  }
}

}  // namespace orvel
