// "/start" answer time against its 800 ms survival wait, and the helper's
// handle count and memory before and after 100 start/stop cycles (a leak of
// one handle or pipe per cycle shows up as +100 or more).
#include <windows.h>
// windows.h first: psapi.h depends on it.
#include <psapi.h>

#include <cstdio>
#include <vector>

#include "bench_stats.h"
#include "support/helper_process.h"
#include "support/http_client.h"
#include "support/proxy_registry.h"

using namespace orvel;

namespace {

constexpr int kTimedStarts = 20;
constexpr int kCycles = 100;
constexpr double kSurvivalWaitUs = 800000;
const std::string kConfig =
    "{\"inbounds\":[{\"type\":\"mixed\",\"tag\":\"orvel-vpn-mixed\",\"listen_port\":2080}]}";

struct Usage {
  DWORD handles = 0;
  SIZE_T privateBytes = 0;
  SIZE_T pagefileBytes = 0;
  SIZE_T workingSet = 0;
};

// Wine answers GetProcessHandleCount with 0, so the handles are counted in
// the system-wide handle list as well (SystemExtendedHandleInformation).
struct HandleEntry {
  void* object;
  ULONG_PTR processId;
  ULONG_PTR handleValue;
  ULONG grantedAccess;
  USHORT creatorBackTraceIndex;
  USHORT objectTypeIndex;
  ULONG handleAttributes;
  ULONG reserved;
};
struct HandleList {
  ULONG_PTR count;
  ULONG_PTR reserved;
  HandleEntry entries[1];
};

DWORD CountHandlesOf(DWORD processId) {
  using QueryFn = LONG(WINAPI*)(ULONG, void*, ULONG, ULONG*);
  const auto query = reinterpret_cast<QueryFn>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
  if (query == nullptr) return 0;
  std::vector<unsigned char> buffer(1 << 20);
  ULONG needed = 0;
  LONG status = 0;
  while ((status = query(64, buffer.data(), static_cast<ULONG>(buffer.size()), &needed)) ==
         static_cast<LONG>(0xC0000004)) {  // STATUS_INFO_LENGTH_MISMATCH
    buffer.resize(buffer.size() * 2);
  }
  if (status != 0) return 0;
  const auto* list = reinterpret_cast<const HandleList*>(buffer.data());
  DWORD count = 0;
  for (ULONG_PTR i = 0; i < list->count; ++i) {
    if (list->entries[i].processId == processId) ++count;
  }
  return count;
}

Usage Measure(HANDLE process) {
  Usage usage;
  GetProcessHandleCount(process, &usage.handles);
  if (usage.handles == 0) usage.handles = CountHandlesOf(GetProcessId(process));
  PROCESS_MEMORY_COUNTERS_EX counters{};
  counters.cb = sizeof(counters);
  if (K32GetProcessMemoryInfo(process, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                              sizeof(counters))) {
    usage.privateBytes = counters.PrivateUsage;
    usage.pagefileBytes = counters.PagefileUsage;
    usage.workingSet = counters.WorkingSetSize;
  }
  return usage;
}

bool Cycle(std::string_view path) {
  const bool started =
      test::Request("POST", path, kConfig).body.find("\"connected\"") != std::string::npos;
  test::Request("POST", "/stop");
  return started;
}

}  // namespace

int main() {
  test::ResetTestRecords();
  const test::ProxyValues before = test::ReadProxyValues();
  test::ScopedHelper helper;
  if (!helper.Start(test::CorePlacement::kBesideExe)) {
    std::printf("helper did not start: %s\n", helper.error.c_str());
    return 1;
  }
  Cycle("/start");  // warm-up: first load of wininet, first data directory

  std::vector<double> samples;
  int failures = 0;
  for (int i = 0; i < kTimedStarts; ++i) {
    const double start = bench::NowUs();
    const test::HttpAnswer answer = test::Request("POST", "/start", kConfig);
    samples.push_back(bench::NowUs() - start);
    if (answer.body.find("\"connected\"") == std::string::npos) ++failures;
    test::Request("POST", "/stop");
  }
  const bench::Summary summary = bench::Summarize(samples);
  std::printf("POST /start (proxy mode, core double stays up), under Wine on this machine\n");
  std::printf("  answer: %s, failures %d\n", bench::Describe(summary).c_str(), failures);
  std::printf("  over the 800 ms survival wait: median %.1f ms, p99 %.1f ms\n",
              (summary.medianUs - kSurvivalWaitUs) / 1000.0,
              (summary.p99Us - kSurvivalWaitUs) / 1000.0);

  const Usage first = Measure(helper.process.hProcess);
  int cycleFailures = 0;
  const double cyclesStart = bench::NowUs();
  for (int i = 0; i < kCycles; ++i) {
    if (!Cycle(i % 2 == 0 ? "/start" : "/start-tun")) ++cycleFailures;
  }
  const double cyclesMs = (bench::NowUs() - cyclesStart) / 1000.0;
  const Usage last = Measure(helper.process.hProcess);
  std::printf("%d start/stop cycles (proxy and TUN alternating), %.0f ms, failures %d\n", kCycles,
              cyclesMs, cycleFailures);
  std::printf("  handles: %lu before, %lu after (%+ld)\n", first.handles, last.handles,
              static_cast<long>(last.handles) - static_cast<long>(first.handles));
  std::printf("  private bytes: %zu KiB before, %zu KiB after (0: not reported here)\n",
              first.privateBytes / 1024, last.privateBytes / 1024);
  std::printf("  committed: %zu KiB before, %zu KiB after; working set: %zu KiB, %zu KiB\n",
              first.pagefileBytes / 1024, last.pagefileBytes / 1024, first.workingSet / 1024,
              last.workingSet / 1024);
  helper.Stop();
  test::WriteProxyValues(before);
  test::ResetTestRecords();
  return 0;
}
