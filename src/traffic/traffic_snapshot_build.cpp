#include <thread>

#include "core/core_process.h"
#include "traffic/core_stats_client.h"
#include "traffic/socket_tables.h"
#include "traffic/traffic_reader.h"
#include "traffic/traffic_snapshot.h"

namespace orvel {

std::string BuildProcessEntries() {
  ProcessEntryList list;
  list.nameForPid = &ProcessNameForPid;
  const ObservationSink sink = [&list](const SocketObservation& observation) {
    AppendProcessEntry(list, observation);
  };
  ScanAllTables(sink);
  list.text += ']';
  return list.text;
}

std::string BuildTrafficSnapshot() {
  // Decided afresh from the core's process on every call; without a core not
  // even the socket tables are read.
  if (!IsCoreRunning()) return std::string(kEmptyTrafficSnapshot);

  // The two controller reads and the table scans wait on different things
  // (the core's next one-second tick, the system), so they run side by side
  // and the snapshot costs the slowest of them. The reader's recent sample
  // saves the wait for a tick. The results are not looked at: a controller
  // that is off, silent or refuses leaves its text empty and its figures 0.
  std::string traffic;
  std::string connections;
  std::thread trafficRead;
  if (!TakeFreshTrafficSample(traffic)) {
    trafficRead = std::thread(
        [&traffic] { LocalHttpGet(kCoreApiPort, "/traffic", kCoreApiTimeoutMs, traffic); });
  }
  std::thread connectionsRead([&connections] {
    LocalHttpGet(kCoreApiPort, "/connections", kCoreApiTimeoutMs, connections);
  });

  const std::string processes = BuildProcessEntries();

  if (trafficRead.joinable()) trafficRead.join();
  connectionsRead.join();
  return FormatTrafficSnapshot(ReadCoreFigures(traffic, connections), processes);
}

}  // namespace orvel
