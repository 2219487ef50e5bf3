// The native Linux helper under the floods a hostile local account can send,
// run as root against a stand-alone helper of root's with a core running:
// root's "/ping" round trip (plain and over a socket bound to the loopback
// device) while 100,000 listening sockets fill the kernel's tables, five uids
// without an account dribble 16 connections each, and one of them floods the
// helper with device-bound "/stop"s; then a stranger's body of 1 GiB, and 100
// cancels with ids of 4 MiB each, with the helper's resident memory around
// them. It prints figures; timing never fails it. A wrong answer or a core
// that a refused caller stopped is printed as UNEXPECTED and makes the exit
// code 1. The end-to-end tests keep the refusals themselves.
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "bench_stats.h"
#include "support/harness.h"

namespace {

using namespace orvel;
using namespace orvel::test;

constexpr std::uint32_t kStrangers[] = {200001, 200002, 200003, 200004, 200005};
constexpr int kSocketRows = 100000;
constexpr int kDribbledPerUid = 16;
constexpr int kFloodRequests = 2000;
const std::string kConfig =
    R"({"inbounds":[{"type":"mixed","tag":"orvel-vpn-mixed","listen":"127.0.0.1",)"
    R"("listen_port":2080}],"outbounds":[{"type":"direct","tag":"direct"}]})";
const std::string kPong =
    "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 4\r\nConnection: "
    "close\r\n\r\npong";

int unexpected = 0;

void Check(bool ok, const char* what) {
  std::printf("  %s %s\n", ok ? "ok:        " : "UNEXPECTED:", what);
  if (!ok) ++unexpected;
}

// A process's resident memory in KiB.
std::uint64_t ResidentKib(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtoull(line.c_str() + 6, nullptr, 10);
  }
  return 0;
}

// A listening socket on `address`:`port`, left open for the process's life.
void ListenOn(std::uint32_t address, int port) {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  if (bind(s, Ipv4(address, static_cast<std::uint16_t>(port)).get(), Ipv4::size) == 0) {
    listen(s, 1);
  }
}

// Root's pings (plain and device-bound by turns) for `ms`: the round trips,
// and how many answers were not "pong".
std::vector<double> PingFor(unsigned ms, int& wrong) {
  std::vector<double> samplesUs;
  const std::string ping = BuildRequest("GET", "/ping");
  for (const std::uint64_t end = NowMs() + ms; NowMs() < end;) {
    const double start = bench::NowUs();
    const bool bound = samplesUs.size() % 2 == 1;
    const std::string answer = bound ? ExchangeBoundToLoopback(ping) : ExchangeRaw(ping);
    samplesUs.push_back(bench::NowUs() - start);
    if (answer != kPong) ++wrong;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return samplesUs;
}

void RunFloods(const ScopedHelper& helper) {
  int wrong = 0;
  std::printf("root's /ping, alone: %s\n",
              bench::Describe(bench::Summarize(PingFor(2000, wrong))).c_str());
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  const int perHolder = static_cast<int>(std::min<rlim_t>(files.rlim_max - 64, 60000));
  const double rowsStart = bench::NowUs();
  std::vector<std::unique_ptr<SocketHolder>> rows;
  for (int i = 0; i * perHolder < kSocketRows; ++i) {
    rows.push_back(std::make_unique<SocketHolder>([i, perHolder, files] {
      setrlimit(RLIMIT_NOFILE, &files);
      for (int port = 1024; port < 1024 + perHolder; ++port) ListenOn(0x7F000010 + i, port);
    }));
  }
  std::printf("%d listening sockets opened in %.1f s\n", kSocketRows,
              (bench::NowUs() - rowsStart) / 1e6);
  std::printf("root's /ping beside them: %s\n",
              bench::Describe(bench::Summarize(PingFor(2000, wrong))).c_str());
  std::vector<std::future<std::string>> floods;
  for (const std::uint32_t uid : kStrangers) {
    floods.push_back(std::async(std::launch::async, [uid] {
      return RunAs(uid, uid, [] {
        std::vector<client::ClientSocket> held(kDribbledPerUid);
        for (client::ClientSocket& s : held) ConnectToHelper(s);
        for (int round = 0; round < 3; ++round) {
          for (const client::ClientSocket& s : held) {
            client::SendAllBytes(
                s, round == 0 ? "POST /stop HTTP/1.1\r\nContent-Length: 99\r\n\r\n" : "x");
          }
          std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        }
        return std::string("held");
      });
    }));
  }
  floods.push_back(std::async(std::launch::async, [] {
    return RunAs(kStrangers[0], kStrangers[0], [] {
      int forbidden = 0, unanswered = 0;
      for (int i = 0; i < kFloodRequests; ++i) {
        const std::string answer = ExchangeBoundToLoopback(BuildRequest("POST", "/stop"));
        forbidden += answer.starts_with("HTTP/1.1 403 ");
        unanswered += answer.empty();
      }
      return std::to_string(forbidden) + " " + std::to_string(unanswered);
    });
  }));
  std::printf("root's /ping during the dribbling and the device-bound flood: %s\n",
              bench::Describe(bench::Summarize(PingFor(4000, wrong))).c_str());
  for (std::size_t i = 0; i + 1 < floods.size(); ++i) floods[i].get();
  int forbidden = 0, unanswered = 0;
  std::sscanf(floods.back().get().c_str(), "%d %d", &forbidden, &unanswered);
  std::printf("the flood's %d device-bound /stop: %d answered 403, %d closed unanswered\n",
              kFloodRequests, forbidden, unanswered);
  Check(forbidden + unanswered == kFloodRequests, "every /stop of the flood refused");
  rows.clear();
  Check(wrong == 0, "every ping of root's answered \"pong\"");
  Check(CountCores() == 1 && helper.Running(), "the core and the helper still run");
}

void RunMemory(const ScopedHelper& helper) {
  const std::uint64_t start = ResidentKib(helper.Pid());
  std::printf("helper resident: %llu KiB\n", static_cast<unsigned long long>(start));
  const std::string sent = RunAs(kStrangers[0], kStrangers[0], [] {
    client::ClientSocket s;
    if (!ConnectToHelper(s)) return std::string("not connected");
    const std::string mebibyte(1 << 20, 'x');
    int mebibytes = 0;
    if (client::SendAllBytes(s, "POST /start HTTP/1.1\r\nContent-Length: 1073741824\r\n\r\n")) {
      while (mebibytes < 1024 && client::SendAllBytes(s, mebibyte)) ++mebibytes;
    }
    return std::to_string(mebibytes);
  });
  std::printf(
      "a stranger's body of 1 GiB: %s MiB sent before the helper cut it off; resident "
      "after: %llu KiB\n",
      sent.c_str(), static_cast<unsigned long long>(ResidentKib(helper.Pid())));
  const std::uint64_t before = ResidentKib(helper.Pid());
  const std::string longId(4 << 20, 'c');
  for (int i = 0; i < 100; ++i) Request("POST", "/cancel-urltest", longId + std::to_string(i));
  std::printf("100 cancels of 4 MiB ids: resident %llu KiB before, %llu KiB after\n",
              static_cast<unsigned long long>(before),
              static_cast<unsigned long long>(ResidentKib(helper.Pid())));
}

}  // namespace

int main() {
  if (geteuid() != 0) {
    std::fprintf(stderr, "run as root: the floods come from other uids\n");
    return 2;
  }
  std::printf("OrvelVpnHelper (Linux) under floods from other accounts, on this machine\n");
  ScopedHelper helper;
  if (!helper.Start()) {
    std::fprintf(stderr, "the helper did not start: %s\n", helper.error.c_str());
    return 1;
  }
  Check(Request("POST", "/start-tun", kConfig).body.find("\"connected\"") != std::string::npos,
        "the core started");
  RunFloods(helper);
  RunMemory(helper);
  Check(CountCores() == 1, "no refused caller stopped the core");
  return unexpected == 0 ? 0 : 1;
}
