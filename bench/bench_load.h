#pragma once

// Shared by the benchmarks: a "GET /ping" load of several clients (a new
// connection per request) and the helper process's own usage figures.

#include <windows.h>

#include <string>

#include "bench_stats.h"
#include "support/harness.h"

namespace orvel::bench {

// Starts a fresh helper for a benchmark; prints why when it does not start.
bool StartBenchHelper(test::ScopedHelper& helper, test::CorePlacement core);

struct LoadRun {
  Summary summary;  // round trips that got the exact "pong" answer
  int errors = 0;   // anything else: refused, cut short, wrong bytes
  double wallMs = 0;
  double RequestsPerSecond() const { return wallMs > 0 ? summary.count * 1000.0 / wallMs : 0; }
};

// `clients` threads, each sending `perClient` "GET /ping" requests in turn.
LoadRun RunPingLoad(unsigned short port, int clients, int perClient);
// "median … us, p99 … us (n=…), errors N, R req/s"
std::string DescribeLoad(const LoadRun& run);

struct ProcessUsage {
  DWORD handles = 0;
  DWORD threads = 0;
  SIZE_T privateBytes = 0;  // 0 where the platform does not report it (Wine)
  SIZE_T committedBytes = 0;
  SIZE_T workingSetBytes = 0;
};

ProcessUsage MeasureProcess(HANDLE process);
// MeasureProcess of a helper the harness started.
inline ProcessUsage MeasureHelper(const test::ScopedHelper& helper) {
  return MeasureProcess(reinterpret_cast<HANDLE>(helper.child.process));
}
// "handles H, threads T, private P KiB, committed C KiB, working set W KiB"
std::string DescribeUsage(const ProcessUsage& usage);
// The same fields as differences from `before`.
std::string DescribeGrowth(const ProcessUsage& before, const ProcessUsage& after);

}  // namespace orvel::bench
