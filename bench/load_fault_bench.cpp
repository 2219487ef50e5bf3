// Load and fault run against a freshly started helper: ping load with and
// without 200 idle connections held open, the helper's own usage at start,
// after the load and after start/stop cycles and URL tests, and the faults a
// real machine throws at it (a core killed from outside, a silent
// controller, a client hanging up mid-stream, concurrent URL tests with one
// cancelled). It prints figures; timing never fails it. A wrong answer, a
// lost answer or a process left behind is printed as UNEXPECTED and makes the
// exit code 1.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <thread>
#include <vector>

#include "bench_load.h"
#include "urltest/urltest_body.h"

using namespace orvel;

#include "support/harness.h"

namespace {

// sing-box-urltest-*.json files in the data directory.
std::vector<std::wstring> UrlTestConfigFiles() {
  std::vector<std::wstring> files;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(
           std::filesystem::path(test::HelperDataDirectory()), ec)) {
    const std::wstring name = entry.path().filename().wstring();
    if (name.starts_with(L"sing-box-urltest-")) files.push_back(name);
  }
  return files;
}

constexpr int kLoadClients = 8;
constexpr int kLoadPerClient = 1250;  // 10,000 requests in all
constexpr int kIdleConnections = 200;
constexpr int kIdleLoadPerClient = 250;
constexpr int kStartStopCycles = 100;
constexpr int kUrlTests = 20;
constexpr int kNodesPerUrlTest = 12;

const std::string kConnected = "\"status\":\"connected\"";
const std::string kProxyConfig =
    R"({"inbounds":[{"type":"mixed","tag":"orvel-vpn-mixed","listen":"127.0.0.1","listen_port":2080}]})";

int unexpected = 0;

void Check(bool ok, const char* what) {
  std::printf("  %s %s\n", ok ? "ok:        " : "UNEXPECTED:", what);
  if (!ok) ++unexpected;
}

std::string UrlTestBody(const std::string& requestId, int nodes, const std::string& tagSuffix) {
  UrlTestRequest request;
  request.requestId = requestId;
  request.url = "http://example.test/generate_204";
  for (int i = 0; i < nodes; ++i) {
    std::string tag = "n";  // built in steps: GCC 12 warns falsely on a + b + c here
    tag += std::to_string(i);
    tag += tagSuffix;
    request.nodeTags.push_back(tag);
  }
  request.config = R"({"outbounds":[{"type":"direct","tag":"direct"}]})";
  return EncodeUrlTestBody(request, 2);
}

// Lines of a finished stream that carry a delay above zero.
int GoodLines(const test::UrlTestStream& stream) {
  int good = 0;
  for (const auto& line : stream.lines) {
    client::UrlTestResult result;
    if (client::ParseUrlTestResultLine(line.first, result) && result.delayMs > 0) ++good;
  }
  return good;
}

// Polls until no sing-box.exe runs (up to timeoutMs).
bool WaitNoCores(unsigned timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (test::CountProcessesNamed(L"sing-box.exe") != 0) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

int CountInLog(const std::string& text) {
  const std::string log = test::Request("GET", "/logs").body;
  int count = 0;
  for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
    ++count;
  return count;
}

// Waits until `text` occurs in the log more often than `seenBefore` times.
bool WaitForLog(const std::string& text, int seenBefore, unsigned timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (CountInLog(text) <= seenBefore) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

void RunPingLoads(test::ScopedHelper& helper) {
  const bench::LoadRun load = bench::RunPingLoad(test::kHelperPort, kLoadClients, kLoadPerClient);
  std::printf("10,000 GET /ping from 8 clients: %s\n", bench::DescribeLoad(load).c_str());
  Check(load.errors == 0 && load.summary.count == 10000,
        "every request answered with exactly pong");
  std::printf("  usage after the load: %s\n",
              bench::DescribeUsage(bench::MeasureHelper(helper)).c_str());

  // Sockets close themselves and cannot move: a deque builds them in place.
  std::deque<client::ClientSocket> idle(kIdleConnections);
  const auto connected = std::count_if(
      idle.begin(), idle.end(), [](client::ClientSocket& s) { return test::ConnectToHelper(s); });
  const bench::LoadRun held =
      bench::RunPingLoad(test::kHelperPort, kLoadClients, kIdleLoadPerClient);
  std::printf(
      "%zu idle connections held open (connected, nothing sent), 2,000 GET /ping from 8 "
      "clients: %s\n",
      static_cast<std::size_t>(connected), bench::DescribeLoad(held).c_str());
  Check(connected == kIdleConnections, "all 200 idle connections accepted");
  Check(held.errors == 0, "/ping answered while they are held");
  std::printf("  usage while they are held: %s\n",
              bench::DescribeUsage(bench::MeasureHelper(helper)).c_str());
}

void RunCyclesAndUrlTests(test::ScopedHelper& helper, const bench::ProcessUsage& afterLoad) {
  int failures = 0;
  for (int i = 0; i < kStartStopCycles; ++i) {
    const std::string path = i % 2 == 0 ? "/start" : "/start-tun";
    if (test::Request("POST", path, kProxyConfig).body.find(kConnected) == std::string::npos)
      ++failures;
    test::Request("POST", "/stop");
  }
  std::printf("%d start/stop cycles (proxy and TUN alternating): failures %d\n", kStartStopCycles,
              failures);
  Check(failures == 0, "every start connected");

  int lostLines = 0;
  for (int i = 0; i < kUrlTests; ++i) {
    const test::UrlTestStream stream = test::RunUrlTest(
        UrlTestBody(std::string("load-").append(std::to_string(i)), kNodesPerUrlTest, "-delay-20"));
    lostLines += kNodesPerUrlTest - GoodLines(stream);
  }
  std::printf("%d URL tests of %d nodes: lines lost or failed %d\n", kUrlTests, kNodesPerUrlTest,
              lostLines);
  Check(lostLines == 0, "every node reported with a delay");
  Check(WaitNoCores(5000), "no sing-box.exe left");
  Check(UrlTestConfigFiles().empty(), "no temporary configuration left");
  const bench::ProcessUsage after = bench::MeasureHelper(helper);
  std::printf("  usage after cycles and URL tests: %s\n  growth since the ping load: %s\n",
              bench::DescribeUsage(after).c_str(), bench::DescribeGrowth(afterLoad, after).c_str());
}

void RunCoreKilledFromOutside() {
  std::printf("fault: the core killed from outside\n");
  Check(
      test::Request("POST", "/start-tun", kProxyConfig).body.find(kConnected) != std::string::npos,
      "TUN start connected");
  test::KillProcessesNamed(L"sing-box.exe");
  Check(test::Request("GET", "/status").body.find("\"Windows helper idle\"") != std::string::npos,
        "status then says disconnected / idle");
  Check(
      test::Request("POST", "/start-tun", kProxyConfig).body.find(kConnected) != std::string::npos,
      "the next start works");
  test::Request("POST", "/stop");
  Check(WaitNoCores(5000), "stop leaves no core");
}

void RunSilentController() {
  std::printf("fault: the core's controller accepts and never answers\n");
  const std::string config =
      R"({"experimental":{"clash_api":{"external_controller":"127.0.0.1:19090"}},)"
      R"("x-test-controller":{"mode":"silent"}})";
  Check(test::Request("POST", "/start-tun", config).body.find(kConnected) != std::string::npos,
        "TUN start with a silent controller connected");
  const double start = bench::NowUs();
  const std::string snapshot = test::Request("GET", "/traffic-snapshot").body;
  const double elapsedMs = (bench::NowUs() - start) / 1000.0;
  std::printf(
      "  snapshot answered in %.0f ms (its two 1200 ms receive time-outs run beside the tables)\n",
      elapsedMs);
  Check(snapshot.rfind("{\"uploadBytesPerSecond\":0,\"downloadBytesPerSecond\":0,"
                       "\"uploadTotalBytes\":0,\"downloadTotalBytes\":0,\"processes\":[",
                       0) == 0,
        "the snapshot answers with zero figures");
  // A stop in the middle of a snapshot waits neither for it nor for the
  // reader that the silent controller holds.
  std::thread during([] { test::Request("GET", "/traffic-snapshot"); });
  Sleep(300);
  const double stopStart = bench::NowUs();
  test::Request("POST", "/stop");
  std::printf("  stop during a snapshot took %.0f ms\n", (bench::NowUs() - stopStart) / 1000.0);
  during.join();
  Check(WaitNoCores(5000), "stop leaves no core");
}

void RunClientHangsUpMidStream() {
  std::printf("fault: a client hangs up in the middle of a URL test stream\n");
  const std::string completed = "URLTest stream completed for 12 nodes";
  const int completedBefore = CountInLog(completed);
  int got = 0;
  {
    client::ClientSocket s;
    test::StartUrlTest(UrlTestBody("hang-up", 12, "-delay-1500"), s);
    char head[74];
    got = recv(static_cast<SOCKET>(s.handle), head, sizeof(head), MSG_WAITALL);
  }  // hung up here
  Check(got == 74, "the stream head arrived before the hang-up");
  Check(WaitForLog(completed, completedBefore, 15000), "the test ran to its end");
  Check(WaitNoCores(5000), "every test process ended");
  const std::vector<std::wstring> left = UrlTestConfigFiles();
  for (const std::wstring& name : left) std::printf("  left: %s\n", test::PathText(name).c_str());
  Check(left.empty(), "the temporary file is gone");
}

void RunConcurrentSessionsOneCancelled() {
  std::printf("fault: four URL test sessions at once, one cancelled\n");
  test::ResetTestRecords();
  const char* ids[] = {"s-a", "s-b", "s-c", "s-d"};
  std::vector<test::UrlTestStream> streams(4);
  std::vector<double> closedMs(4);
  const double start = bench::NowUs();
  std::vector<std::thread> sessions;
  for (int i = 0; i < 4; ++i) {
    sessions.emplace_back([&, i] {
      streams[i] = test::RunUrlTest(UrlTestBody(ids[i], 3, "-delay-2000"));
      closedMs[i] = (bench::NowUs() - start) / 1000.0;
    });
  }
  // Every session's three processes have started: none of them can miss the cancel.
  test::WaitForFetchRecords(12, 10000);
  const std::string answer = test::Request("POST", "/cancel-urltest", "s-b").body;
  for (std::thread& t : sessions) t.join();
  std::printf("  stream closed after: a %.0f ms, b %.0f ms (cancelled), c %.0f ms, d %.0f ms\n",
              closedMs[0], closedMs[1], closedMs[2], closedMs[3]);
  Check(answer == R"({"status":"canceled"})", "the cancel is answered");
  Check(streams[1].lines.empty() && closedMs[1] < closedMs[0], "the cancelled session stops early");
  Check(GoodLines(streams[0]) == 3 && GoodLines(streams[2]) == 3 && GoodLines(streams[3]) == 3,
        "the other three report all their nodes");
  Check(WaitForLog("URLTest cancel requested: s-b, processes=3", 0, 1000),
        "the cancel ended 3 processes");
  Check(WaitNoCores(5000), "no test process left");
}

}  // namespace

int main() {
  test::ResetTestRecords();
  test::ResetTestRecords();
  const test::ProxyValues userProxy = test::ReadProxyValues();
  test::ScopedHelper helper;
  if (!bench::StartBenchHelper(helper, test::CorePlacement::kBesideExe)) return 1;
  std::printf("OrvelVpnHelper load and fault run, under Wine on this machine\n");
  const bench::ProcessUsage atStart = bench::MeasureHelper(helper);
  std::printf("usage at start: %s\n", bench::DescribeUsage(atStart).c_str());

  RunPingLoads(helper);
  // The threads of the closed idle connections end as their reads fail.
  bench::ProcessUsage afterLoad = bench::MeasureHelper(helper);
  for (int i = 0; i < 100 && afterLoad.threads > atStart.threads; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    afterLoad = bench::MeasureHelper(helper);
  }
  RunCyclesAndUrlTests(helper, afterLoad);
  RunCoreKilledFromOutside();
  RunSilentController();
  RunClientHangsUpMidStream();
  RunConcurrentSessionsOneCancelled();

  // The same load again: memory that grows per request would show up here.
  const bench::ProcessUsage beforeRepeat = bench::MeasureHelper(helper);
  const bench::LoadRun repeat = bench::RunPingLoad(test::kHelperPort, kLoadClients, kLoadPerClient);
  const bench::ProcessUsage afterRepeat = bench::MeasureHelper(helper);
  std::printf("10,000 GET /ping again: %s\n  growth over it: %s\n",
              bench::DescribeLoad(repeat).c_str(),
              bench::DescribeGrowth(beforeRepeat, afterRepeat).c_str());
  Check(repeat.errors == 0, "every request answered again");

  const bench::ProcessUsage atEnd = bench::MeasureHelper(helper);
  std::printf("usage at the end: %s\n  growth since start: %s\n",
              bench::DescribeUsage(atEnd).c_str(), bench::DescribeGrowth(atStart, atEnd).c_str());
  Check(helper.Running(), "the helper is still running");
  helper.Stop();
  test::WriteProxyValues(userProxy);
  test::ResetTestRecords();
  std::printf("%s\n", unexpected == 0 ? "no unexpected outcome" : "UNEXPECTED outcomes above");
  return unexpected == 0 ? 0 : 1;
}
