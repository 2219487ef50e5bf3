#pragma once

#include <string>
#include <vector>

namespace orvel::bench {

struct Summary {
  double medianUs = 0;
  double p99Us = 0;
  std::size_t count = 0;
};

// Median and 99th percentile of samples in microseconds (sorts a copy).
Summary Summarize(std::vector<double> samplesUs);
// "median 123.4 us, p99 456.7 us (n=1000)"
std::string Describe(const Summary& summary);
// Microseconds since an arbitrary fixed point (the steady clock).
double NowUs();

}  // namespace orvel::bench
