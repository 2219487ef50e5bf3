// Wall time of GET /traffic-snapshot as the client application sees it:
// without a core (the fixed empty answer), with the core double running and
// its controller off (two refused connects and the socket tables), and with
// its controller on, where the floor is the core's own first "/traffic"
// sample, sent one second after the request.
#include <cstdio>
#include <string>
#include <vector>

#include "bench_load.h"
#include "support/helper_process.h"
#include "support/http_client.h"

using namespace orvel;

namespace {

constexpr double kFirstSampleFloorUs = 1000000;

const std::string kConfigStart =
    "{\"log\":{\"level\":\"info\"},"
    "\"inbounds\":[{\"type\":\"tun\",\"tag\":\"tun-in\",\"address\":[\"172.18.0.1/30\"]}],"
    "\"outbounds\":[{\"type\":\"direct\",\"tag\":\"direct\"}]";
const std::string kControllerOff = kConfigStart + "}";
const std::string kControllerOn =
    kConfigStart +
    ",\"experimental\":{\"clash_api\":{\"external_controller\":\"127.0.0.1:19090\"}},"
    "\"x-test-controller\":{\"up\":1024,\"down\":4096,\"uploadTotal\":1,\"downloadTotal\":2}}";

struct Run {
  bench::Summary summary;
  int errors = 0;
  std::size_t bodyBytes = 0;
};

Run Measure(int count) {
  std::vector<double> samples;
  Run run;
  for (int i = 0; i < count; ++i) {
    const double start = bench::NowUs();
    const test::HttpAnswer answer = test::Request("GET", "/traffic-snapshot", {}, 30000);
    const double elapsed = bench::NowUs() - start;
    if (answer.status != 200 || answer.body.rfind("{\"uploadBytesPerSecond\":", 0) != 0) {
      ++run.errors;
      continue;
    }
    run.bodyBytes = answer.body.size();
    samples.push_back(elapsed);
  }
  run.summary = bench::Summarize(samples);
  return run;
}

void Report(const char* label, const Run& run) {
  std::printf("%s\n  %s, errors %d, last body %zu bytes\n", label,
              bench::Describe(run.summary).c_str(), run.errors, run.bodyBytes);
}

bool StartCore(const std::string& config) {
  const test::HttpAnswer answer = test::Request("POST", "/start-tun", config);
  if (answer.body.rfind("{\"status\":\"connected\"", 0) == 0) return true;
  std::printf("core did not start: %s\n", answer.body.c_str());
  return false;
}

}  // namespace

int main() {
  test::ScopedHelper helper;
  if (!bench::StartBenchHelper(helper, test::CorePlacement::kBesideExe)) return 1;
  std::printf("GET /traffic-snapshot, new connection per request, under Wine on this machine\n");
  Measure(5);  // warm-up
  Report("no core (the fixed empty answer)", Measure(200));

  if (!StartCore(kControllerOff)) return 1;
  Measure(3);
  Report("core running, controller off (refused connects + socket tables)", Measure(50));

  if (!StartCore(kControllerOn)) return 1;
  const Run on = Measure(10);
  Report("core running, controller on", on);
  std::printf(
      "  floor: the core's first /traffic sample after 1000 ms; median/floor %.3f, "
      "median above floor %.1f ms\n",
      on.summary.medianUs / kFirstSampleFloorUs,
      (on.summary.medianUs - kFirstSampleFloorUs) / 1000.0);
  return 0;
}
