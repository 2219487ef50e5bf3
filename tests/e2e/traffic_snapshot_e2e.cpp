// GET /traffic-snapshot against one real helper and the core double, whose
// controller each case configures through the configuration it sends.
//
// Under Wine the socket tables are the Linux host's and carry owning pid 0,
// so every entry is named "pid-0" here, and a UDP socket bound to one IPv4
// address shows up as the wildcard address, which is dropped; so the test's
// own endpoint looked for is an established TCP connection.
#include <gtest/gtest.h>
#include <ws2tcpip.h>
// after the Winsock headers, which bring in windows.h.
#include <tlhelp32.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>

#include "support/harness.h"

namespace orvel::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kZeros =
    "{\"uploadBytesPerSecond\":0,\"downloadBytesPerSecond\":0,\"uploadTotalBytes\":0,"
    "\"downloadTotalBytes\":0,\"processes\":[";
constexpr std::string_view kReported =
    "{\"uploadBytesPerSecond\":-7,\"downloadBytesPerSecond\":12,"
    "\"uploadTotalBytes\":9007199254740993,\"downloadTotalBytes\":456,\"processes\":[";

// A TUN configuration (only the core starts). The double's controller takes
// the first "up" and "down" after its marker, so `more` may override them;
// the run-mode marker "x-test-double" is found anywhere.
std::string Config(std::string_view mode, std::string_view more = {},
                   std::string_view clashApi = "\"external_controller\":\"127.0.0.1:19090\"") {
  return "{\"inbounds\":[{\"type\":\"tun\",\"tag\":\"tun-in\",\"address\":[\"172.18.0.1/30\"]}],"
         "\"outbounds\":[{\"type\":\"direct\",\"tag\":\"direct\"}],\"experimental\":{"
         "\"clash_api\":{" +
         std::string(clashApi) + "}},\"x-test-controller\":{\"mode\":\"" + std::string(mode) +
         "\"," + std::string(more) +
         "\"up\":-7,\"down\":12,\"uploadTotal\":9007199254740993,\"downloadTotal\":456}}";
}

std::string Empty() { return OkAnswer("application/json", std::string(kZeros) + "]}"); }

double MsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

struct Snapshot {
  std::string raw;
  double ms = 0;
};

// Asked from 127.0.0.2, so that the helper's end of this very connection is
// an established endpoint the snapshot must list (127.0.0.1 is dropped).
Snapshot TakeSnapshot() {
  EnsureWinsock();
  Snapshot snapshot;
  const auto start = Clock::now();
  SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, "127.0.0.2", &address.sin_addr);
  auto* peer = reinterpret_cast<sockaddr*>(&address);
  const bool bound = bind(s, peer, sizeof(address)) == 0;
  address.sin_port = htons(kHelperPort);
  inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  if (bound && connect(s, peer, sizeof(address)) == 0 &&
      SendAll(s, BuildRequest("GET", "/traffic-snapshot"))) {
    snapshot.raw = ReadToEnd(s);
  }
  closesocket(s);
  snapshot.ms = MsSince(start);
  return snapshot;
}

// The fewest threads `processId` had while polling for up to `ms` until
// they are down to `target` (Wine keeps some of its own in every process).
int FewestThreads(DWORD processId, int target, int ms) {
  int fewest = 1 << 30;
  for (const auto end = Clock::now() + std::chrono::milliseconds(ms);
       fewest > target && Clock::now() < end;
       std::this_thread::sleep_for(std::chrono::milliseconds(100))) {
    int count = 0;
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
      count += entry.th32OwnerProcessID == processId;
    }
    CloseHandle(snapshot);
    fewest = std::min(fewest, count);
  }
  return fewest;
}

void StartCore(const std::string& config) {
  ASSERT_EQ(Request("POST", "/start-tun", config).body.rfind("{\"status\":\"connected\"", 0), 0u);
}

// Framing, figures, the limit and an entry of the asking connection (the
// entry text and the dropped addresses are the unit tests' business).
void ExpectSnapshot(const std::string& raw, std::string_view figures) {
  const std::string body = raw.substr(std::min(raw.size(), raw.find("\r\n\r\n") + 4));
  EXPECT_EQ(raw, OkAnswer("application/json", body));
  ASSERT_EQ(body.substr(0, figures.size()), figures) << body;
  EXPECT_EQ(body.substr(body.size() - 2), "]}");
  const auto entries = std::count(body.begin(), body.end(), '{') - 1;  // no name here has one
  EXPECT_LE(entries, 80);
  // With the limit reached, ours may be among the endpoints left out. Its
  // owner is the helper, named from the tables (all pid 0 under Wine).
  const bool wine = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version");
  if (entries < 80) {
    EXPECT_NE(body.find(std::string("{\"processName\":\"") +
                        (wine ? "pid-0" : "OrvelVpnHelper.exe") + "\",\"policy\""),
              std::string::npos);
    EXPECT_NE(body.find("\"method\":\"TCP\",\"host\":\"127.0.0.2:"), std::string::npos) << body;
  }
}

// One helper for every step; three snapshots at once in each case, as every
// connection builds its own.
TEST(TrafficSnapshot, FiguresFollowTheControllerAndItsReaderLivesAndDiesWithTheCore) {
  ScopedHelper helper;
  ASSERT_TRUE(helper.Start()) << helper.error;
  // The fewest over half a second: a connection thread may still be ending.
  const DWORD pid = helper.process.dwProcessId;
  const int idle = FewestThreads(pid, 0, 500);
  EXPECT_EQ(TakeSnapshot().raw, Empty());  // no core: not even the tables are read
  const struct {
    std::string name, config;
    std::string_view figures;
  } cases[] = {
      {"controller off", Config("stream", {}, {}), kZeros},  // the time baseline
      {"stream", Config("stream"), kReported},
      {"silent", Config("silent"), kZeros},
      {"secret set",
       Config("stream", {}, "\"external_controller\":\"127.0.0.1:19090\",\"secret\":\"s3cret\""),
       kZeros},
      {"Content-Length 0", Config("length-zero"), kZeros},
      // Not ended by the header: read until the receive time-out, and the
      // figures that came before it are still used.
      {"Content-Length after a tab", Config("length-after-tab"), kReported},
  };
  double baselineMs = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    StartCore(c.config);
    auto a = std::async(std::launch::async, TakeSnapshot);
    auto b = std::async(std::launch::async, TakeSnapshot);
    for (const Snapshot& s : {TakeSnapshot(), a.get(), b.get()}) {
      ExpectSnapshot(s.raw, c.figures);
      if (baselineMs == 0) baselineMs = s.ms;
      // Its two receive time-outs (1200 ms each) at most over the baseline,
      // taken because the socket tables alone take about 1.4 s under Wine;
      // the rest is margin for a machine busy with other test runs.
      EXPECT_LT(s.ms, baselineMs + 2 * 1200 + 5000) << "baseline " << baselineMs;
    }
  }

  // The background reader of the "/traffic" stream belongs to the core it
  // reads. This one's stream ticks every 100 ms, so the reader holds a fresh
  // sample when the next core starts: that core's first snapshot must still
  // carry its own figures.
  StartCore(Config("stream", "\"tick\":100,\"up\":1,\"down\":2,"));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  ExpectSnapshot(TakeSnapshot().raw, "{\"uploadBytesPerSecond\":1,\"downloadBytesPerSecond\":2,");
  StartCore(Config("stream", "\"x-test-double\":\"die-after-2500\","));
  ExpectSnapshot(TakeSnapshot().raw, kReported);
  // The core dies: the next snapshot is the empty text and the reader is gone.
  ASSERT_EQ(WaitUntilNoProcessNamed(L"sing-box.exe", 10000), 0);
  EXPECT_EQ(TakeSnapshot().raw, Empty());
  EXPECT_LE(FewestThreads(pid, idle, 10000), idle) << "a reader outlived its core";

  // A silent controller holds the reader's request for ever; snapshots are
  // bounded by their own time-outs, and a stop in the middle of one waits
  // neither for it nor for the reader.
  const auto stopMs = [] {
    const auto start = Clock::now();
    EXPECT_EQ(Request("POST", "/stop").body.find("\"disconnected\""), 10u);
    return MsSince(start);
  };
  StartCore(Config("silent"));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const double aloneMs = stopMs();
  StartCore(Config("silent"));
  auto during = std::async(std::launch::async, TakeSnapshot);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_LT(stopMs(), aloneMs + 500) << "the stop waited for the snapshot";
  EXPECT_EQ(during.get().raw.rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
  EXPECT_LE(FewestThreads(pid, idle, 10000), idle) << "a reader outlived its stop";
}

}  // namespace
}  // namespace orvel::test
