// The table-and-owner part of a Linux snapshot (the four scans, one pass over
// the processes' descriptors, the names) against `ss -tunap`, which reads the
// same tables and owners, in the same run: 2,000 open sockets spread over 50
// processes of this program, 20 rounds of each, median and p99 and their
// ratio. Run as root, both see every process.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench_stats.h"
#include "traffic/traffic_snapshot.h"

using orvel::bench::Describe;
using orvel::bench::NowUs;
using orvel::bench::Summarize;

int main() {
  constexpr int kProcesses = 50;
  constexpr int kSocketsEach = 40;
  constexpr int kRounds = 20;
  std::vector<pid_t> holders;
  for (int p = 0; p < kProcesses; ++p) {
    int ready[2];
    if (pipe(ready) != 0) return 1;
    const pid_t pid = fork();
    if (pid == 0) {
      close(ready[0]);
      // Half UDP sockets on 127.0.0.2, half TCP connections to a listener of
      // this process on 127.0.0.2: every one a row the snapshot keeps.
      const int listener = socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(0x7F000002);
      bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
      socklen_t length = sizeof(address);
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
      listen(listener, kSocketsEach);
      for (int i = 0; i < kSocketsEach / 2; ++i) {
        const int udp = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in any = address;
        any.sin_port = 0;
        bind(udp, reinterpret_cast<sockaddr*>(&any), sizeof(any));
        const int tcp = socket(AF_INET, SOCK_STREAM, 0);
        connect(tcp, reinterpret_cast<sockaddr*>(&address), sizeof(address));
      }
      [[maybe_unused]] const ssize_t written = write(ready[1], "r", 1);
      pause();
      _exit(0);
    }
    close(ready[1]);
    char byte;
    [[maybe_unused]] const ssize_t got = read(ready[0], &byte, 1);
    close(ready[0]);
    holders.push_back(pid);
  }
  std::vector<double> helper, ss;
  std::size_t entries = 0;
  for (int round = 0; round < kRounds; ++round) {
    double start = NowUs();
    const std::string processes = orvel::BuildProcessEntries();
    helper.push_back(NowUs() - start);
    entries = 0;
    for (std::size_t at = 0; (at = processes.find("{\"processName\"", at)) != std::string::npos;
         ++at) {
      ++entries;
    }
    start = NowUs();
    if (std::system("ss -tunap >/dev/null 2>&1") != 0) {
      std::printf("ss -tunap failed (is iproute2 installed?)\n");
      break;
    }
    ss.push_back(NowUs() - start);
  }
  for (const pid_t pid : holders) kill(pid, SIGKILL);
  for (const pid_t pid : holders) waitpid(pid, nullptr, 0);
  const orvel::bench::Summary ours = Summarize(helper);
  const orvel::bench::Summary theirs = Summarize(ss);
  std::printf("%d sockets over %d processes, %d rounds (%zu entries kept of at most 80)\n",
              kProcesses * kSocketsEach, kProcesses, kRounds, entries);
  std::printf(
      "  helper's scan and owners: %s\n  ss -tunap:                %s\n"
      "  ratio helper/ss: median %.2f, p99 %.2f\n",
      Describe(ours).c_str(), Describe(theirs).c_str(), ours.medianUs / theirs.medianUs,
      ours.p99Us / theirs.p99Us);
  return 0;
}
