// The native Linux helper's figures, each against a floor measured in the
// same run: the "/ping" round trip (a new connection per request) against a
// bare accept loop that answers the same bytes; the "/start-tun" answer
// against its 800 ms survival wait; a URL test of 48 nodes that each take
// 200 ms against the ideal for 12 workers, ceil(48/12) rounds of one node's
// whole life measured by running the same stand-in directly; and the helper's
// memory, descriptors and threads before and after 10,000 requests.
//
// The stand-in core is a two-line shell script, so the figures need nothing
// but the helper: `run` sleeps until SIGTERM, `tools ... fetch` sleeps 200 ms.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_stats.h"
#include "urltest/urltest_body.h"

namespace {

namespace fs = std::filesystem;
using orvel::bench::Describe;
using orvel::bench::NowUs;
using orvel::bench::Summarize;
using orvel::bench::Summary;

constexpr unsigned short kHelperPort = 17891;
constexpr unsigned short kFloorPort = 17991;
constexpr int kNodes = 48;
constexpr int kNodeDelayMs = 200;
constexpr int kWorkers = 12;
const std::string kPong =
    "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 4\r\nConnection: "
    "close\r\n\r\npong";

// One request on a new connection; the whole answer, "" on any failure.
std::string Exchange(unsigned short port, const std::string& request) {
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  if (connect(s, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      send(s, request.data(), request.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(request.size())) {
    char chunk[8192];
    for (ssize_t got; (got = recv(s, chunk, sizeof(chunk), 0)) > 0;) answer.append(chunk, got);
  }
  close(s);
  return answer;
}

std::string Post(const std::string& path, const std::string& body) {
  return Exchange(kHelperPort, "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: " +
                                   std::to_string(body.size()) + "\r\n\r\n" + body);
}

// `clients` threads of `perClient` pings each; the round trips that got "pong".
Summary PingLoad(unsigned short port, int clients, int perClient, int& errors) {
  std::vector<std::vector<double>> samples(clients);
  std::vector<int> failed(clients, 0);
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      for (int i = 0; i < perClient; ++i) {
        const double start = NowUs();
        if (Exchange(port, "GET /ping HTTP/1.1\r\n\r\n") == kPong) {
          samples[c].push_back(NowUs() - start);
        } else {
          ++failed[c];
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  std::vector<double> all;
  errors = 0;
  for (int c = 0; c < clients; ++c) {
    all.insert(all.end(), samples[c].begin(), samples[c].end());
    errors += failed[c];
  }
  return Summarize(all);
}

void RunFloorServer(int listener) {
  for (int client; (client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
    char buffer[4096];
    recv(client, buffer, sizeof(buffer), 0);
    send(client, kPong.data(), kPong.size(), MSG_NOSIGNAL);
    close(client);
  }
}

// VmRSS and VmSize (each held thread reserves its stack) in KiB, open
// descriptors and threads of `pid`.
std::string Usage(pid_t pid) {
  const std::string proc = "/proc/" + std::to_string(pid);
  std::ifstream status(proc + "/status");
  std::string line, rss = "?", size = "?", threads = "?";
  while (std::getline(status, line)) {
    const std::size_t value = line.find_first_not_of(" \t", line.find(':') + 1);
    if (line.rfind("VmRSS:", 0) == 0) rss = line.substr(value);
    if (line.rfind("VmSize:", 0) == 0) size = line.substr(value);
    if (line.rfind("Threads:", 0) == 0) threads = line.substr(value);
  }
  std::size_t descriptors = 0;
  std::error_code ec;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(proc + "/fd", ec)) ++descriptors;
  return "rss " + rss + ", size " + size + ", descriptors " + std::to_string(descriptors) +
         ", threads " + threads;
}

void Ratio(const char* label, const Summary& helper, const Summary& floor) {
  std::printf("%s\n  helper: %s\n  floor:  %s\n  ratio helper/floor: median %.2f, p99 %.2f\n",
              label, Describe(helper).c_str(), Describe(floor).c_str(),
              helper.medianUs / floor.medianUs, helper.p99Us / floor.p99Us);
}

}  // namespace

int main(int, char** argv) {
  // The helper built beside this program, in a folder of its own with the stand-in.
  const fs::path bin = fs::canonical("/proc/self/exe").parent_path();
  const fs::path work = bin / "bench-work";
  fs::remove_all(work);
  fs::create_directories(work / "data");
  fs::copy_file(bin / "orvel-vpn-helper", work / "orvel-vpn-helper");
  {
    std::ofstream core(work / "sing-box");
    core << "#!/bin/sh\ncase \" $* \" in *\" run \"*) exec sleep 100000 ;; esac\nexec sleep "
         << kNodeDelayMs / 1000.0 << "\n";
  }
  fs::permissions(work / "sing-box", fs::perms::owner_all);

  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int reuse = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kFloorPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener, SOMAXCONN) != 0 ||
      !Exchange(kHelperPort, "GET /ping HTTP/1.1\r\n\r\n").empty()) {
    std::printf("%s: port %u or %u is taken\n", argv[0], kFloorPort, kHelperPort);
    return 1;
  }
  std::thread(RunFloorServer, listener).detach();

  const pid_t helper = fork();
  if (helper == 0) {
    setenv("XDG_DATA_HOME", (work / "data").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", work.c_str(), 1);
    const std::string exe = (work / "orvel-vpn-helper").string();
    execl(exe.c_str(), exe.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  for (int i = 0; i < 500 && Exchange(kHelperPort, "GET /ping HTTP/1.1\r\n\r\n") != kPong; ++i) {
    usleep(10000);
  }
  const std::string idle = Usage(helper);
  int errors = 0;
  PingLoad(kHelperPort, 1, 50, errors);  // warm-up
  PingLoad(kFloorPort, 1, 50, errors);
  std::printf("GET /ping, new connection per request, native on this machine\n");
  Summary helperRun = PingLoad(kHelperPort, 1, 1000, errors);
  int floorErrors = 0;
  Ratio("sequential (1 client x 1000)", helperRun, PingLoad(kFloorPort, 1, 1000, floorErrors));
  std::printf("  errors: helper %d, floor %d\n", errors, floorErrors);
  helperRun = PingLoad(kHelperPort, 8, 250, errors);
  Ratio("concurrent (8 clients x 250)", helperRun, PingLoad(kFloorPort, 8, 250, floorErrors));
  std::printf("  errors: helper %d, floor %d\n", errors, floorErrors);

  const std::string config = "{\"outbounds\":[{\"type\":\"direct\",\"tag\":\"direct\"}]}";
  std::vector<double> starts;
  for (int i = 0; i < 10; ++i) {
    const double start = NowUs();
    if (Post("/start-tun", config).find("\"connected\"") != std::string::npos) {
      starts.push_back(NowUs() - start);
    }
  }
  Post("/stop", "");
  const Summary start = Summarize(starts);
  std::printf(
      "POST /start-tun (a core that stays up), 10 starts\n  %s\n  over the 800 ms wait: "
      "median %.1f ms\n",
      Describe(start).c_str(), start.medianUs / 1000.0 - 800.0);

  // One node's whole life, measured the way the helper measures it.
  std::vector<double> lives;
  for (int i = 0; i < 20; ++i) {
    const double begin = NowUs();
    const pid_t node = fork();
    if (node == 0) {
      const std::string exe = (work / "sing-box").string();
      execl(exe.c_str(), exe.c_str(), "tools", "fetch", static_cast<char*>(nullptr));
      _exit(127);
    }
    waitpid(node, nullptr, 0);
    lives.push_back(NowUs() - begin);
  }
  const double nodeMs = Summarize(lives).medianUs / 1000.0;
  orvel::UrlTestRequest request{"bench", "http://cp.example.test/", {}, config};
  for (int i = 0; i < kNodes; ++i) request.nodeTags.push_back("node-" + std::to_string(i));
  const double ideal = ((kNodes + kWorkers - 1) / kWorkers) * nodeMs;
  std::printf("URL test, %d nodes of %d ms, %d workers; one node's life run directly: %.1f ms\n",
              kNodes, kNodeDelayMs, kWorkers, nodeMs);
  for (int run = 0; run < 3; ++run) {
    const double begin = NowUs();
    const std::string stream = Post("/urltest", orvel::EncodeUrlTestBody(request, 2));
    const double wallMs = (NowUs() - begin) / 1000.0;
    std::size_t lines = 0;
    for (std::size_t at = 0; (at = stream.find("\"delayMs\":", at)) != std::string::npos; ++at) {
      ++lines;
    }
    std::printf("  run %d: %zu lines, wall %.1f ms, ideal %.1f ms, ratio %.3f\n", run + 1, lines,
                wallMs, ideal, wallMs / ideal);
  }

  const std::string before = Usage(helper);
  PingLoad(kHelperPort, 8, 1250, errors);
  std::printf(
      "10,000 GET /ping (8 clients), errors %d\n  idle at start: %s\n  before: %s\n  "
      "after:  %s\n",
      errors, idle.c_str(), before.c_str(), Usage(helper).c_str());
  // 200 clients of one user that connect and say nothing: only 16 are held
  // (each with a thread until its 10 s head deadline), the rest closed at once.
  std::vector<int> silent;
  for (int i = 0; i < 200; ++i) {
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kHelperPort);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(s, reinterpret_cast<sockaddr*>(&to), sizeof(to));
    silent.push_back(s);
  }
  usleep(300000);
  std::printf("200 silent clients held open: %s\n", Usage(helper).c_str());
  for (const int s : silent) close(s);
  kill(helper, SIGTERM);
  waitpid(helper, nullptr, 0);
  close(listener);
  fs::remove_all(work);
  return 0;
}
