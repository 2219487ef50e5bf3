#include "core/core_process.h"
#include "traffic/core_stats_client.h"
#include "traffic/socket_tables.h"
#include "traffic/traffic_snapshot.h"

namespace orvel {

std::string BuildTrafficSnapshot() {
  // Decided afresh from the core's process on every call; without a core not
  // even the socket tables are read.
  if (!IsCoreRunning()) return std::string(kEmptyTrafficSnapshot);

  // The results are not looked at: a controller that is off, silent or
  // refuses leaves its text empty and its figures 0.
  std::string traffic;
  std::string connections;
  LocalHttpGet(kCoreApiPort, "/traffic", kCoreApiTimeoutMs, traffic);
  LocalHttpGet(kCoreApiPort, "/connections", kCoreApiTimeoutMs, connections);
  const CoreFigures figures = ReadCoreFigures(traffic, connections);

  ProcessEntryList list;
  list.nameForPid = &ProcessNameForPid;
  const ObservationSink sink = [&list](const SocketObservation& observation) {
    AppendProcessEntry(list, observation);
  };
  ScanTcp4(sink);
  ScanTcp6(sink);
  ScanUdp4(sink);
  ScanUdp6(sink);
  list.text += ']';
  return FormatTrafficSnapshot(figures, list.text);
}

}  // namespace orvel
