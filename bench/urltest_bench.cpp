// Wall time of a URL test of 48 nodes that each answer after 200 ms, against
// the ideal for 12 workers: ceil(48/12) rounds of (200 ms + one test process
// start), the start measured in the same run by launching the same
// sing-box.exe double directly with the same kind of command line. Also
// prints how many test processes ran at the same moment (from the double's
// records) and the delays the helper reported.
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "bench_load.h"
#include "urltest/urltest_body.h"

using namespace orvel;

#include "support/harness.h"

namespace {

constexpr int kNodes = 48;
constexpr int kNodeDelayMs = 200;
constexpr int kWorkers = 12;
constexpr int kStartSamples = 20;
constexpr int kRuns = 3;

// One fetch that answers at once, started the way the helper starts one
// (no window, output to a pipe end of its own; here simply NUL) and waited for.
bool LaunchFetchAndWait(const std::wstring& core) {
  std::wstring commandLine = L"\"" + core +
                             L"\" --disable-color -c \"C:\\OrvelTest\\none.json\" tools -o "
                             L"\"probe\" fetch \"http://x/\"";
  SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
  HANDLE nul =
      CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_WRITE, &inherit, OPEN_EXISTING, 0, nullptr);
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
  startup.hStdOutput = nul;
  startup.hStdError = nul;
  PROCESS_INFORMATION info{};
  const BOOL created = CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE,
                                      CREATE_NO_WINDOW, nullptr, nullptr, &startup, &info);
  CloseHandle(nul);
  if (!created) return false;
  const bool ended = WaitForSingleObject(info.hProcess, 10000) == WAIT_OBJECT_0;
  CloseHandle(info.hProcess);
  CloseHandle(info.hThread);
  return ended;
}

bench::Summary MeasureProcessStart(const std::wstring& core) {
  std::vector<double> samples;
  for (int i = 0; i < kStartSamples; ++i) {
    const double start = bench::NowUs();
    if (LaunchFetchAndWait(core)) samples.push_back(bench::NowUs() - start);
  }
  return bench::Summarize(samples);
}

std::string NodesBody() {
  UrlTestRequest request;
  request.requestId = "bench";
  request.url = "http://cp.example.test/generate_204";
  request.config = "{\"outbounds\":[]}";
  for (int i = 1; i <= kNodes; ++i) {
    // Appended piece by piece: GCC 12 warns falsely on "a" + to_string(i) + "b".
    std::string tag = std::to_string(i);
    tag += "-delay-";
    tag += std::to_string(kNodeDelayMs);
    request.nodeTags.push_back(tag);
  }
  return EncodeUrlTestBody(request, 2);
}

}  // namespace

// Runs the test while a second thread counts the core double's processes
// every 20 ms (a snapshot of the process list costs well under that); the
// most it saw at once goes to `most`.
test::UrlTestStream RunCountingProcesses(const std::string& body, int& most) {
  std::atomic<bool> done{false};
  most = 0;
  std::thread sampler([&] {
    for (; !done; Sleep(20)) most = std::max(most, test::CountProcessesNamed(L"sing-box.exe"));
  });
  test::UrlTestStream stream = test::RunUrlTest(body);
  done = true;
  sampler.join();
  return stream;
}

int main() {
  test::ScopedHelper helper;
  if (!bench::StartBenchHelper(helper, test::CorePlacement::kBesideExe)) return 1;
  const std::string body = NodesBody();
  test::ResetTestRecords();
  test::RunUrlTest(body);  // warm-up: file cache, first thread creation
  std::printf("URL test of %d nodes at %d ms each, %d workers, under Wine on this machine\n",
              kNodes, kNodeDelayMs, kWorkers);
  for (int run = 1; run <= kRuns; ++run) {
    const bench::Summary start = MeasureProcessStart(helper.directory / L"sing-box.exe");
    const double startMs = start.medianUs / 1000.0;
    test::ResetTestRecords();

    const double began = bench::NowUs();
    int most = 0;
    const test::UrlTestStream stream = RunCountingProcesses(body, most);
    const double wallMs = (bench::NowUs() - began) / 1000.0;

    std::vector<double> delaysUs;
    int failed = 0;
    for (const auto& line : stream.lines) {
      client::UrlTestResult result;
      if (!client::ParseUrlTestResultLine(line.first, result) || result.delayMs <= 0) {
        ++failed;
        continue;
      }
      delaysUs.push_back(static_cast<double>(result.delayMs) * 1000.0);
    }
    const bench::Summary delays = bench::Summarize(delaysUs);
    const int rounds = (kNodes + kWorkers - 1) / kWorkers;
    const double idealMs = rounds * (kNodeDelayMs + startMs);
    std::printf(
        "run %d\n  one process start: median %.1f ms, p99 %.1f ms (n=%zu)\n"
        "  wall %.0f ms, ideal %d x (%d + %.1f) = %.0f ms, ratio %.2f\n"
        "  lines %zu (failed %d), reported delay median %.0f ms, p99 %.0f ms\n"
        "  test processes at once: at most %d\n",
        run, startMs, start.p99Us / 1000.0, start.count, wallMs, rounds, kNodeDelayMs, startMs,
        idealMs, wallMs / idealMs, stream.lines.size(), failed, delays.medianUs / 1000.0,
        delays.p99Us / 1000.0, most);
  }
  return 0;
}
