// Loopback round trip of "GET /ping" (a new connection per request) against a
// floor measured in the same run: a bare connect, send, receive, close against
// a trivial accept loop that answers the same bytes without any parsing.
#include <cstdio>
#include <thread>
#include <vector>

#include "bench_load.h"

using namespace orvel;

#include "support/harness.h"

namespace {

constexpr unsigned short kFloorPort = 17991;
constexpr int kSequential = 1000;
constexpr int kClients = 8;
constexpr int kPerClient = 250;
const std::string kPong =
    "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 4\r\nConnection: "
    "close\r\n\r\npong";

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

void Report(const char* label, const bench::LoadRun& helper, const bench::LoadRun& floor) {
  std::printf("%s\n  helper: %s\n  floor:  %s\n  ratio helper/floor: median %.2f, p99 %.2f\n",
              label, bench::DescribeLoad(helper).c_str(), bench::DescribeLoad(floor).c_str(),
              helper.summary.medianUs / floor.summary.medianUs,
              helper.summary.p99Us / floor.summary.p99Us);
}

}  // namespace

int main() {
  WSADATA data{};
  WSAStartup(MAKEWORD(2, 2), &data);
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
  if (!bench::StartBenchHelper(helper, test::CorePlacement::kNone)) return 1;
  bench::RunPingLoad(test::kHelperPort, 1, 50);  // warm-up
  bench::RunPingLoad(kFloorPort, 1, 50);
  std::printf("GET /ping, new connection per request, under Wine on this machine\n");
  Report("sequential (1 client x 1000)", bench::RunPingLoad(test::kHelperPort, 1, kSequential),
         bench::RunPingLoad(kFloorPort, 1, kSequential));
  Report("concurrent (8 clients x 250)",
         bench::RunPingLoad(test::kHelperPort, kClients, kPerClient),
         bench::RunPingLoad(kFloorPort, kClients, kPerClient));
  closesocket(listener);
  return 0;
}
