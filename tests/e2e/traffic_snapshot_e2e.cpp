// GET /traffic-snapshot against one real helper and the core double, whose
// controller each step configures through the configuration it sends.
//
// Under Wine the socket tables are the Linux host's and carry owning pid 0,
// so every entry is named "pid-0" here, and a UDP socket bound to one IPv4
// address shows up as the wildcard address, which is dropped; so the test's
// own endpoint looked for is an established TCP connection.
#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "support/harness.h"
// after windows.h, which the harness brings in.
#include <tlhelp32.h>

namespace orvel::test {
namespace {

constexpr std::string_view kZeros =
    "{\"uploadBytesPerSecond\":0,\"downloadBytesPerSecond\":0,\"uploadTotalBytes\":0,"
    "\"downloadTotalBytes\":0,\"processes\":[";
constexpr std::string_view kReported =
    "{\"uploadBytesPerSecond\":-7,\"downloadBytesPerSecond\":12,"
    "\"uploadTotalBytes\":9007199254740993,\"downloadTotalBytes\":456,\"processes\":[";

// A TUN configuration (only the core starts). The double's controller takes
// the first "up" and "down" after its marker, so `more` may override them;
// the run-mode marker "x-test-double" is found anywhere.
std::string Config(std::string_view mode, std::string_view more = {}) {
  return "{\"inbounds\":[{\"type\":\"tun\",\"tag\":\"tun-in\",\"address\":[\"172.18.0.1/30\"]}],"
         "\"outbounds\":[{\"type\":\"direct\",\"tag\":\"direct\"}],\"experimental\":{\"clash_api\":"
         "{\"external_controller\":\"127.0.0.1:19090\"}},\"x-test-controller\":{\"mode\":\"" +
         std::string(mode) + "\"," + std::string(more) +
         "\"up\":-7,\"down\":12,\"uploadTotal\":9007199254740993,\"downloadTotal\":456}}";
}

void StartCore(const std::string& config) {
  ASSERT_EQ(Request("POST", "/start-tun", config).body.rfind("{\"status\":\"connected\"", 0), 0u);
}

// Asked from 127.0.0.2, so that the helper's end of this very connection is
// an established endpoint the snapshot must list (127.0.0.1 is dropped).
std::string TakeSnapshot() {
  SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(0x7F000002);  // 127.0.0.2
  auto* peer = reinterpret_cast<sockaddr*>(&address);
  const bool bound = bind(s, peer, sizeof(address)) == 0;
  address.sin_port = htons(kHelperPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const std::string raw = bound && connect(s, peer, sizeof(address)) == 0 &&
                                  SendAll(s, BuildRequest("GET", "/traffic-snapshot"))
                              ? ReadToEnd(s)
                              : "";
  closesocket(s);
  return raw;
}

// Framing, figures and an entry of the asking connection (the entry text,
// the limit and the dropped addresses are the unit tests' business).
void ExpectSnapshot(const std::string& raw, std::string_view figures) {
  const std::string body = raw.substr(std::min(raw.size(), raw.find("\r\n\r\n") + 4));
  EXPECT_EQ(raw, OkAnswer("application/json", body));
  ASSERT_EQ(body.substr(0, figures.size()), figures) << body;
  // With the limit reached, ours may be among the endpoints left out.
  EXPECT_TRUE(std::count(body.begin(), body.end(), '{') > 80 ||  // no name here has one
              body.find("\"method\":\"TCP\",\"host\":\"127.0.0.2:") != std::string::npos);
}

// The fewest threads `processId` had while polling up to `polls` times, 100
// ms apart, until they are down to `target` (Wine keeps some of its own in
// every process).
int FewestThreads(DWORD processId, int target, int polls) {
  int fewest = 1 << 30;
  for (; fewest > target && polls-- > 0; Sleep(100)) {
    int count = 0;
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
      count += entry.th32OwnerProcessID == processId;
    CloseHandle(snapshot);
    fewest = std::min(fewest, count);
  }
  return fewest;
}

// One helper for every step; three snapshots at once in each, as every
// connection builds its own.
TEST(TrafficSnapshot, FiguresFollowTheControllerAndItsReaderLivesAndDiesWithTheCore) {
  ScopedHelper helper;
  ASSERT_TRUE(helper.Start()) << helper.error;
  // The fewest over half a second: a connection thread may still be ending.
  const DWORD pid = helper.process.dwProcessId;
  const int idle = FewestThreads(pid, 0, 5);
  const std::string empty = OkAnswer("application/json", std::string(kZeros) + "]}");
  EXPECT_EQ(TakeSnapshot(), empty);  // no core: not even the tables are read
  const std::pair<std::string, std::string_view> cases[] = {
      {Config("stream"), kReported},
      {Config("silent"), kZeros},  // each read ends at its receive time-out
      // Not ended by the header: read until the receive time-out, and the
      // figures that came before it are still used.
      {Config("length-after-tab"), kReported},
      // This stream ticks every 100 ms, so its reader holds a fresh sample
      // when the next core starts: that core's snapshots must still carry
      // its own figures.
      {Config("stream", "\"tick\":100,\"up\":1,"), "{\"uploadBytesPerSecond\":1,"},
      {Config("stream", "\"x-test-double\":\"die-after-4000\","), kReported},
  };
  for (const auto& [config, figures] : cases) {
    StartCore(config);
    auto a = std::async(std::launch::async, TakeSnapshot);
    auto b = std::async(std::launch::async, TakeSnapshot);
    for (const std::string& raw : {TakeSnapshot(), a.get(), b.get()}) ExpectSnapshot(raw, figures);
  }
  // The last core dies: the next snapshot is the empty text and the reader
  // is gone.
  ASSERT_EQ(WaitUntilNoProcessNamed(L"sing-box.exe", 10000), 0);
  EXPECT_EQ(TakeSnapshot(), empty);
  EXPECT_LE(FewestThreads(pid, idle, 100), idle) << "a reader outlived its core";

  // A silent controller holds the reader's request for ever; a stop in the
  // middle of a snapshot waits neither for it nor for the reader.
  const auto stopMs = [] {
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(Request("POST", "/stop").body.find("\"disconnected\""), 10u);
    return GetTickCount64() - start;
  };
  StartCore(Config("silent"));
  Sleep(300);
  const ULONGLONG aloneMs = stopMs();
  StartCore(Config("silent"));
  auto during = std::async(std::launch::async, TakeSnapshot);
  Sleep(300);
  EXPECT_LT(stopMs(), aloneMs + 500) << "the stop waited for the snapshot";
  ExpectSnapshot(during.get(), kZeros);
  EXPECT_LE(FewestThreads(pid, idle, 100), idle) << "a reader outlived its stop";
}

}  // namespace
}  // namespace orvel::test
