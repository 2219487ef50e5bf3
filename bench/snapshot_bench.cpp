// Wall time of GET /traffic-snapshot as the client application sees it:
// without a core (the fixed empty answer), with the core double running and
// its controller off, and with its controller on, for the first call after a
// start and in steady state; plus the controller connections opened per second
// while a client polls once a second.
//
// Two floors, measured in the same run: the core's first "/traffic" sample,
// sent one second after a connection asks for it; and the table scan, the
// same four socket table scans and entry list that the helper builds, timed
// in this process just before and just after each snapshot. Under Wine a scan
// walks every Wine process's descriptors once per table row (TIME_WAIT rows
// included, and every closed connection leaves one for a minute), so it costs
// from tens of milliseconds to seconds and drifts within a run; each snapshot
// is therefore set against the mean of the two scans around it ("excess").
#include <winsock2.h>
#include <ws2tcpip.h>
// iphlpapi.h after the Winsock headers.
#include <iphlpapi.h>

#include <atomic>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bench_load.h"
#include "traffic/core_stats_client.h"
#include "traffic/socket_tables.h"
#include "traffic/traffic_snapshot.h"

using namespace orvel;

#include "support/harness.h"

namespace {

constexpr double kFirstSampleFloorUs = 1000000;
constexpr double kPollPeriodUs = 1000000;

const std::string kConfigStart =
    "{\"log\":{\"level\":\"info\"},"
    "\"inbounds\":[{\"type\":\"tun\",\"tag\":\"tun-in\",\"address\":[\"172.18.0.1/30\"]}],"
    "\"outbounds\":[{\"type\":\"direct\",\"tag\":\"direct\"}]";
const std::string kControllerOff = kConfigStart + "}";
const std::string kControllerOn =
    kConfigStart +
    ",\"experimental\":{\"clash_api\":{\"external_controller\":\"127.0.0.1:19090\"}},"
    "\"x-test-controller\":{\"up\":1024,\"down\":4096,\"uploadTotal\":1,\"downloadTotal\":2}}";

// The table part of a snapshot, done here: four scans and the entry list.
double TimeTableScanUs() {
  const double start = bench::NowUs();
  BuildProcessEntries();
  return bench::NowUs() - start;
}

struct Series {
  std::vector<double> snapshotUs;
  std::vector<double> scanUs;
  std::vector<double> excessUs;  // snapshot minus the mean of the scans around it
  int errors = 0;
  std::size_t bodyBytes = 0;
};

// One snapshot; false (and counted) unless it is a snapshot answer.
bool Snapshot(Series& series, double& elapsedUs) {
  const double start = bench::NowUs();
  const client::HttpAnswer answer = test::Request("GET", "/traffic-snapshot", {}, 30000);
  elapsedUs = bench::NowUs() - start;
  if (answer.status != 200 || answer.body.rfind("{\"uploadBytesPerSecond\":", 0) != 0) {
    ++series.errors;
    return false;
  }
  series.bodyBytes = answer.body.size();
  series.snapshotUs.push_back(elapsedUs);
  return true;
}

// Snapshots back to back, each between two table scans of this process.
Series MeasurePaired(int count) {
  Series series;
  for (int i = 0; i < count; ++i) {
    const double before = TimeTableScanUs();
    double elapsedUs = 0;
    const bool answered = Snapshot(series, elapsedUs);
    const double scanUs = (before + TimeTableScanUs()) / 2;
    if (!answered) continue;
    series.scanUs.push_back(scanUs);
    series.excessUs.push_back(elapsedUs - scanUs);
  }
  return series;
}

std::string Ms(const bench::Summary& summary) {
  char text[96];
  std::snprintf(text, sizeof(text), "median %.1f ms, p99 %.1f ms (n=%zu)", summary.medianUs / 1000,
                summary.p99Us / 1000, summary.count);
  return text;
}

void ReportPaired(const char* label, const Series& series) {
  std::printf("%s\n  snapshot:   %s, errors %d, last body %zu bytes\n", label,
              Ms(bench::Summarize(series.snapshotUs)).c_str(), series.errors, series.bodyBytes);
  std::printf("  table scan: %s\n", Ms(bench::Summarize(series.scanUs)).c_str());
  std::printf("  excess over the scans around it: %s\n",
              Ms(bench::Summarize(series.excessUs)).c_str());
}

bool StartCore(const std::string& config) {
  const client::HttpAnswer answer = test::Request("POST", "/start-tun", config);
  if (answer.body.rfind("{\"status\":\"connected\"", 0) == 0) return true;
  std::printf("core did not start: %s\n", answer.body.c_str());
  return false;
}

// Client ports of every TCP connection with the controller's port at either
// end, in any state. A connection closed normally stays in the table for a
// minute (TIME_WAIT on the side that closed first); one ended by a reset
// leaves at once, as a "/traffic" read does when the core's next sample meets
// the closed socket, so the table is read over and over while it is open.
std::set<std::uint16_t> ControllerConnections() {
  std::set<std::uint16_t> ports;
  DWORD size = 0;
  GetExtendedTcpTable(nullptr, &size, FALSE, AF_INET, TCP_TABLE_OWNER_PID_ALL, 0);
  std::vector<unsigned char> buffer(size + 64 * sizeof(MIB_TCPROW_OWNER_PID));
  size = static_cast<DWORD>(buffer.size());
  if (GetExtendedTcpTable(buffer.data(), &size, FALSE, AF_INET, TCP_TABLE_OWNER_PID_ALL, 0) !=
      NO_ERROR) {
    return ports;
  }
  const auto* table = reinterpret_cast<const MIB_TCPTABLE_OWNER_PID*>(buffer.data());
  for (DWORD i = 0; i < table->dwNumEntries; ++i) {
    const MIB_TCPROW_OWNER_PID& row = table->table[i];
    const std::uint16_t local = ntohs(static_cast<u_short>(row.dwLocalPort));
    const std::uint16_t remote = ntohs(static_cast<u_short>(row.dwRemotePort));
    if (row.dwState == MIB_TCP_STATE_LISTEN) continue;
    if (remote == kCoreApiPort) ports.insert(local);
    if (local == kCoreApiPort) ports.insert(remote);
  }
  return ports;
}

}  // namespace

int main() {
  test::ScopedHelper helper;
  if (!bench::StartBenchHelper(helper, test::CorePlacement::kBesideExe)) return 1;
  std::printf("GET /traffic-snapshot, new connection per request, under Wine on this machine\n");
  {
    Series warm;
    double ignored = 0;
    for (int i = 0; i < 5; ++i) Snapshot(warm, ignored);
    Series none;
    for (int i = 0; i < 200; ++i) Snapshot(none, ignored);
    std::printf("no core (the fixed empty answer)\n  %s, errors %d\n",
                Ms(bench::Summarize(none.snapshotUs)).c_str(), none.errors);
  }

  if (!StartCore(kControllerOff)) return 1;
  MeasurePaired(3);
  ReportPaired("core running, controller off (refused connects beside the socket tables)",
               MeasurePaired(50));

  // The first call right after each start: the reader has no sample yet.
  Series first;
  for (int i = 0; i < 8; ++i) {
    if (!StartCore(kControllerOn)) return 1;
    double elapsedUs = 0;
    if (!Snapshot(first, elapsedUs)) continue;
    const double scanUs = TimeTableScanUs();
    first.scanUs.push_back(scanUs);
    first.excessUs.push_back(elapsedUs - scanUs);
  }
  const bench::Summary firstSummary = bench::Summarize(first.snapshotUs);
  std::printf("core running, controller on, first call right after each start\n");
  std::printf("  snapshot:   %s, errors %d, last body %zu bytes\n", Ms(firstSummary).c_str(),
              first.errors, first.bodyBytes);
  std::printf(
      "  floor: first /traffic sample 1000 ms; median/floor %.3f, median above it %.1f ms\n",
      firstSummary.medianUs / kFirstSampleFloorUs,
      (firstSummary.medianUs - kFirstSampleFloorUs) / 1000);
  std::printf("  table scan (just after): %s; excess over it %s\n",
              Ms(bench::Summarize(first.scanUs)).c_str(),
              Ms(bench::Summarize(first.excessUs)).c_str());

  // Steady state: the reader has samples.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  const Series steady = MeasurePaired(30);
  ReportPaired("core running, controller on, steady state", steady);
  std::printf("  floor: first /traffic sample 1000 ms; median/floor %.3f\n",
              bench::Summarize(steady.snapshotUs).medianUs / kFirstSampleFloorUs);

  // A client polling once a second, for less than a minute so that every
  // connection closed normally meanwhile is still in the table at the end.
  // The table readings beside it slow the snapshots down under Wine.
  const std::set<std::uint16_t> before = ControllerConnections();
  std::set<std::uint16_t> seen;
  std::atomic<bool> polling{true};
  std::thread watcher([&seen, &polling] {
    while (polling) {
      const std::set<std::uint16_t> now = ControllerConnections();
      seen.insert(now.begin(), now.end());
    }
  });
  const double pollStart = bench::NowUs();
  Series polled;
  for (int i = 0; i < 20; ++i) {
    const double callStart = bench::NowUs();
    double elapsedUs = 0;
    Snapshot(polled, elapsedUs);
    const double spentUs = bench::NowUs() - callStart;
    if (spentUs < kPollPeriodUs) {
      std::this_thread::sleep_for(
          std::chrono::microseconds(static_cast<long long>(kPollPeriodUs - spentUs)));
    }
  }
  const double pollSeconds = (bench::NowUs() - pollStart) / 1e6;
  polling = false;
  watcher.join();
  const std::set<std::uint16_t> after = ControllerConnections();
  seen.insert(after.begin(), after.end());
  int opened = 0;
  for (std::uint16_t port : seen) opened += before.count(port) == 0 ? 1 : 0;
  const std::size_t calls = polled.snapshotUs.size();
  std::printf("a client polling once a second: %zu snapshots in %.1f s, %s\n", calls, pollSeconds,
              Ms(bench::Summarize(polled.snapshotUs)).c_str());
  std::printf("  controller connections opened: %d, %.2f/s, %.2f per snapshot\n", opened,
              opened / pollSeconds, calls > 0 ? opened / static_cast<double>(calls) : 0.0);
  return 0;
}
