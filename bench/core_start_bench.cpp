// "/start" answer time against its 800 ms survival wait, and the helper's
// handle count and memory before and after 100 start/stop cycles (a leak of
// one handle or pipe per cycle shows up as +100 or more). Another cycle count
// may be given as the first argument. A start that does not connect prints
// its answer and the helper's log, which tell the step that failed.

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench_load.h"

using namespace orvel;

#include "support/harness.h"

namespace {

constexpr int kTimedStarts = 20;
constexpr int kDefaultCycles = 100;
constexpr double kSurvivalWaitUs = 800000;
const std::string kConfig =
    "{\"inbounds\":[{\"type\":\"mixed\",\"tag\":\"orvel-vpn-mixed\",\"listen_port\":2080}]}";

bool Started(const client::HttpAnswer& answer) {
  if (answer.body.find("\"connected\"") != std::string::npos) return true;
  std::printf("start failed: %d %s\n--- helper log ---\n%s\n---\n", answer.status,
              answer.body.c_str(), test::Request("GET", "/logs").body.c_str());
  return false;
}

bool Cycle(std::string_view path) {
  const bool started = Started(test::Request("POST", path, kConfig));
  test::Request("POST", "/stop");
  return started;
}

}  // namespace

int main(int argc, char** argv) {
  const int cycles = argc > 1 ? std::atoi(argv[1]) : kDefaultCycles;
  test::ResetTestRecords();
  const test::ProxyValues before = test::ReadProxyValues();
  test::ScopedHelper helper;
  if (!bench::StartBenchHelper(helper, test::CorePlacement::kBesideExe)) return 1;
  Cycle("/start");  // warm-up: first load of wininet, first data directory

  std::vector<double> samples;
  int failures = 0;
  for (int i = 0; i < kTimedStarts; ++i) {
    const double start = bench::NowUs();
    const client::HttpAnswer answer = test::Request("POST", "/start", kConfig);
    samples.push_back(bench::NowUs() - start);
    if (!Started(answer)) ++failures;
    test::Request("POST", "/stop");
  }
  const bench::Summary summary = bench::Summarize(samples);
  std::printf("POST /start (proxy mode, core double stays up), under Wine on this machine\n");
  std::printf("  answer: %s, failures %d\n", bench::Describe(summary).c_str(), failures);
  std::printf("  over the 800 ms survival wait: median %.1f ms, p99 %.1f ms\n",
              (summary.medianUs - kSurvivalWaitUs) / 1000.0,
              (summary.p99Us - kSurvivalWaitUs) / 1000.0);

  const bench::ProcessUsage first = bench::MeasureHelper(helper);
  int cycleFailures = 0;
  const double cyclesStart = bench::NowUs();
  for (int i = 0; i < cycles; ++i) {
    if (!Cycle(i % 2 == 0 ? "/start" : "/start-tun")) ++cycleFailures;
  }
  const double cyclesMs = (bench::NowUs() - cyclesStart) / 1000.0;
  const bench::ProcessUsage last = bench::MeasureHelper(helper);
  std::printf("%d start/stop cycles (proxy and TUN alternating), %.0f ms, failures %d\n", cycles,
              cyclesMs, cycleFailures);
  std::printf("  before: %s\n  after:  %s\n  growth: %s\n", bench::DescribeUsage(first).c_str(),
              bench::DescribeUsage(last).c_str(), bench::DescribeGrowth(first, last).c_str());
  helper.Stop();
  test::WriteProxyValues(before);
  test::ResetTestRecords();
  return 0;
}
