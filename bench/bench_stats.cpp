#include "bench_stats.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace orvel::bench {

Summary Summarize(std::vector<double> samplesUs) {
  Summary summary;
  summary.count = samplesUs.size();
  if (samplesUs.empty()) return summary;
  std::sort(samplesUs.begin(), samplesUs.end());
  summary.medianUs = samplesUs[samplesUs.size() / 2];
  std::size_t p99 = (samplesUs.size() * 99) / 100;
  if (p99 >= samplesUs.size()) p99 = samplesUs.size() - 1;
  summary.p99Us = samplesUs[p99];
  return summary;
}

std::string Describe(const Summary& summary) {
  char text[128];
  std::snprintf(text, sizeof(text), "median %.1f us, p99 %.1f us (n=%zu)", summary.medianUs,
                summary.p99Us, summary.count);
  return text;
}

double NowUs() {
  return std::chrono::duration<double, std::micro>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace orvel::bench
