// Loopback round trip of "GET /ping" (a new connection per request) against a
// floor measured in the same run: a bare connect, send, receive, close against
// a trivial accept loop that answers the same bytes without any parsing.
#include <cstdio>
#include <thread>
#include <vector>

#include "bench_stats.h"
#include "support/helper_process.h"
#include "support/http_client.h"

using namespace orvel;

namespace {

constexpr unsigned short kFloorPort = 17991;
constexpr int kSequential = 1000;
constexpr int kClients = 8;
constexpr int kPerClient = 250;
const std::string kPingRequest = "GET /ping HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
const std::string kPong =
    "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 4\r\nConnection: close\r\n\r\npong";

void RunFloorServer(SOCKET listener) {
  for (;;) {
    SOCKET client = accept(listener, nullptr, nullptr);
    if (client == INVALID_SOCKET) return;
    char buffer[4096];
    recv(client, buffer, sizeof(buffer), 0);
    send(client, kPong.data(), static_cast<int>(kPong.size()), 0);
    closesocket(client);
  }
}

bool OneRoundTrip(unsigned short port, double& elapsedUs) {
  const double start = bench::NowUs();
  const test::HttpAnswer answer = test::ExchangeRaw(kPingRequest, port, 10000);
  elapsedUs = bench::NowUs() - start;
  return answer.raw == kPong;
}

struct Run {
  bench::Summary summary;
  int errors = 0;
  double wallMs = 0;
};

Run Measure(unsigned short port, int clients, int perClient) {
  std::vector<std::vector<double>> samples(static_cast<std::size_t>(clients));
  std::vector<int> errors(static_cast<std::size_t>(clients), 0);
  const double start = bench::NowUs();
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      for (int i = 0; i < perClient; ++i) {
        double us = 0;
        if (OneRoundTrip(port, us)) {
          samples[static_cast<std::size_t>(c)].push_back(us);
        } else {
          ++errors[static_cast<std::size_t>(c)];
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  Run run;
  run.wallMs = (bench::NowUs() - start) / 1000.0;
  std::vector<double> all;
  for (std::size_t c = 0; c < samples.size(); ++c) {
    all.insert(all.end(), samples[c].begin(), samples[c].end());
    run.errors += errors[c];
  }
  run.summary = bench::Summarize(all);
  return run;
}

void Report(const char* label, const Run& helper, const Run& floor) {
  std::printf("%s\n  helper: %s, errors %d, %.0f req/s\n  floor:  %s, errors %d, %.0f req/s\n"
              "  ratio helper/floor: median %.2f, p99 %.2f\n",
              label, bench::Describe(helper.summary).c_str(), helper.errors,
              helper.summary.count * 1000.0 / helper.wallMs, bench::Describe(floor.summary).c_str(),
              floor.errors, floor.summary.count * 1000.0 / floor.wallMs,
              helper.summary.medianUs / floor.summary.medianUs, helper.summary.p99Us / floor.summary.p99Us);
}

}  // namespace

int main() {
  test::EnsureWinsock();
  SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kFloorPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener, SOMAXCONN) != 0) {
    std::printf("cannot listen on the floor port %u\n", kFloorPort);
    return 1;
  }
  std::thread(RunFloorServer, listener).detach();

  test::ScopedHelper helper;
  if (!helper.Start(test::CorePlacement::kNone)) {
    std::printf("helper did not start: %s\n", helper.error.c_str());
    return 1;
  }
  Measure(test::kHelperPort, 1, 50);  // warm-up
  Measure(kFloorPort, 1, 50);
  std::printf("GET /ping, new connection per request, under Wine on this machine\n");
  Report("sequential (1 client x 1000)", Measure(test::kHelperPort, 1, kSequential),
         Measure(kFloorPort, 1, kSequential));
  Report("concurrent (8 clients x 250)", Measure(test::kHelperPort, kClients, kPerClient),
         Measure(kFloorPort, kClients, kPerClient));
  closesocket(listener);
  return 0;
}
