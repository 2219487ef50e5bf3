// "/cancel-urltest": the answers, the log line, and what a cancel does to a
// running "/urltest" (its processes, its stream, the nodes not yet started).
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "support/helper_process.h"
#include "support/http_client.h"
#include "support/urltest_client.h"
#include "urltest/urltest_body.h"

namespace orvel::test {
namespace {

std::string CancelAnswer(std::string_view body) {
  return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + std::string(body);
}
const std::string kCanceled = CancelAnswer("{\"status\":\"canceled\"}");
const std::string kIgnored = CancelAnswer("{\"status\":\"ignored\"}");

std::string Body(const std::string& id, const std::vector<std::string>& tags, int version = 2) {
  UrlTestRequest request;
  request.requestId = id;
  request.url = "http://cp.example.test/";
  request.nodeTags = tags;
  request.config = "{}";
  return EncodeUrlTestBody(request, version);
}

// The "/urltest" stream read on a thread of its own while the test cancels.
struct BackgroundUrlTest {
  SOCKET socket = INVALID_SOCKET;
  UrlTestStream stream;
  std::thread reader;

  explicit BackgroundUrlTest(const std::string& body) : socket(StartUrlTest(body)) {
    if (socket != INVALID_SOCKET)
      reader = std::thread([this] { stream = ReadUrlTestStream(socket); });
  }
  ~BackgroundUrlTest() { Finish(); }
  const UrlTestStream& Finish() {
    if (reader.joinable()) reader.join();
    if (socket != INVALID_SOCKET) closesocket(socket);
    socket = INVALID_SOCKET;
    return stream;
  }
};

class UrlTestCancel : public ::testing::Test {
 protected:
  void SetUp() override {
    ClearFetchRecords();
    ASSERT_TRUE(helper.Start()) << helper.error;
  }
  std::string Logs() { return Request("GET", "/logs").body; }
  ScopedHelper helper;
};

TEST_F(UrlTestCancel, EmptyIdIsIgnoredAndAnyOtherIsCanceled) {
  EXPECT_EQ(Request("POST", "/cancel-urltest").raw, kIgnored);
  EXPECT_EQ(Logs().find("URLTest"), std::string::npos);
  // Nothing is trimmed: the line feed is part of the id.
  EXPECT_EQ(Request("POST", "/cancel-urltest", "nobody").raw, kCanceled);
  EXPECT_EQ(Request("POST", "/cancel-urltest", "nobody\n").raw, kCanceled);
  const std::string logs = Logs();
  EXPECT_NE(logs.find("] URLTest cancel requested: nobody, processes=0\r\n"), std::string::npos);
  EXPECT_NE(logs.find("] URLTest cancel requested: nobody\n, processes=0\r\n"), std::string::npos);
  // Only POST reaches the route.
  EXPECT_EQ(Request("GET", "/cancel-urltest", "x").status, 404);
}

TEST_F(UrlTestCancel, CancelEndsTheRunningProcessesAndStartsNoMore) {
  std::vector<std::string> tags;
  for (int i = 1; i <= 13; ++i) tags.push_back(std::to_string(i) + "-hang");
  BackgroundUrlTest test(Body("cancel-me", tags));
  ASSERT_NE(test.socket, INVALID_SOCKET);

  std::vector<FetchRecord> records = WaitForFetchRecords(12, 15000);
  ASSERT_EQ(records.size(), 12u);
  std::vector<HANDLE> processes;
  for (const FetchRecord& record : records) {
    const DWORD pid = static_cast<DWORD>(std::stoul(record.Get("pid")));
    // On a loaded machine the first nodes may reach their 3 s limit before the
    // twelfth has started; those are gone already and prove nothing here.
    HANDLE process = OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
    if (process != nullptr) processes.push_back(process);
  }
  ASSERT_FALSE(processes.empty());
  // The helper registers a process just after creating it, long before the
  // process has written its record; a short pause covers a slow thread.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));

  EXPECT_EQ(Request("POST", "/cancel-urltest", "cancel-me\n").raw, kCanceled);
  const std::uint64_t cancelTick = GetTickCount64();
  EXPECT_EQ(Request("POST", "/cancel-urltest", "cancel-me").raw, kCanceled);
  for (HANDLE process : processes) {
    EXPECT_EQ(WaitForSingleObject(process, 2000), WAIT_OBJECT_0);
    DWORD code = 0;
    GetExitCodeProcess(process, &code);
    EXPECT_EQ(code, 1u);
    CloseHandle(process);
  }

  // No lines for the ended nodes, and well before the 3 s limit would have
  // ended them the stream is closed.
  const UrlTestStream& stream = test.Finish();
  EXPECT_EQ(stream.head, kUrlTestStreamHead);
  EXPECT_TRUE(stream.lines.empty());
  EXPECT_TRUE(stream.closedByPeer);
  EXPECT_LT(stream.closedTick - cancelTick, 2000u);
  EXPECT_EQ(ReadFetchRecords().size(), 12u);  // the thirteenth never started
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  EXPECT_TRUE(UrlTestConfigFiles().empty());

  const std::string logs = Logs();
  const std::size_t missed = logs.find("] URLTest cancel requested: cancel-me\n, processes=0\r\n");
  const std::size_t hit = logs.find("] URLTest cancel requested: cancel-me, processes=12\r\n");
  const std::size_t completed = logs.find("] URLTest stream completed for 13 nodes\r\n");
  ASSERT_NE(missed, std::string::npos) << logs;
  ASSERT_NE(hit, std::string::npos) << logs;
  ASSERT_NE(completed, std::string::npos) << logs;
  EXPECT_LT(missed, hit);
  EXPECT_LT(hit, completed);
}

TEST_F(UrlTestCancel, VersionOneTestRunsToItsEnd) {
  BackgroundUrlTest test(Body("", {"a-delay-300", "b-delay-300"}, 1));
  ASSERT_NE(test.socket, INVALID_SOCKET);
  ASSERT_EQ(WaitForFetchRecords(2, 15000).size(), 2u);
  EXPECT_EQ(Request("POST", "/cancel-urltest").raw, kIgnored);
  EXPECT_EQ(Request("POST", "/cancel-urltest", "a-delay-300").raw, kCanceled);
  const UrlTestStream& stream = test.Finish();
  ASSERT_EQ(stream.lines.size(), 2u);
  for (const StreamLine& line : stream.lines) {
    ResultLine result;
    ASSERT_TRUE(ParseResultLine(line, result)) << line.text;
    EXPECT_GT(result.delayMs, 300) << line.text;
  }
  EXPECT_NE(Logs().find("] URLTest stream started for 2 nodes, requestId=\r\n"), std::string::npos);
}

TEST_F(UrlTestCancel, CancelOutsideTheTestsLifeIsForgotten) {
  // Before the test starts, and after an earlier test with the id has ended:
  // either way the next test with the id starts afresh and runs to its end.
  EXPECT_EQ(Request("POST", "/cancel-urltest", "early").raw, kCanceled);
  EXPECT_EQ(RunUrlTest(Body("early", {"x-delay-20", "y-delay-20"})).lines.size(), 2u);
  EXPECT_EQ(Request("POST", "/cancel-urltest", "early").raw, kCanceled);
  EXPECT_EQ(RunUrlTest(Body("early", {"z-delay-20"})).lines.size(), 1u);
}

}  // namespace
}  // namespace orvel::test
