// The control API as a client sees it: framing, routing and the byte layout
// of answers, against the real helper process.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "support/helper_process.h"
#include "support/http_client.h"

namespace orvel::test {
namespace {

constexpr std::string_view kNotFound =
    "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 9\r\n"
    "Connection: close\r\n\r\nnot found";
constexpr std::string_view kPong =
    "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 4\r\n"
    "Connection: close\r\n\r\npong";

class ControlApi : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(helper.Start(CorePlacement::kNone)) << helper.error; }
  ScopedHelper helper;
};

TEST_F(ControlApi, RoutesMatchMethodAndPathExactly) {
  struct Case {
    std::string_view request;
    std::string_view expected;
  } cases[] = {
      {"GET /ping HTTP/1.1\r\n\r\n", kPong},
      {"GET /ping HTTP/1.0\r\n\r\n", kPong},  // answered as HTTP/1.1 whatever the client spoke
      {"GET /nothing HTTP/1.1\r\n\r\n", kNotFound},
      {"get /ping HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /ping?x=1 HTTP/1.1\r\n\r\n", kNotFound},
      {"POST /ping HTTP/1.1\r\n\r\n", kNotFound},
      {"GET\r\n\r\n", kNotFound},  // method only: empty path
      {"\r\n\r\n", kNotFound},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ExchangeRaw(c.request).raw, c.expected) << c.request;
  }
}

TEST_F(ControlApi, HeadArrivingOneByteAtATimeIsAssembled) {
  SOCKET s = ConnectLoopback(kHelperPort);
  ASSERT_NE(s, INVALID_SOCKET);
  const std::string request = "GET /ping HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  for (char c : request) {
    ASSERT_TRUE(SendAll(s, std::string_view(&c, 1)));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  EXPECT_EQ(ReadToEnd(s), kPong);
  closesocket(s);
}

TEST_F(ControlApi, OversizedHeadGetsExactlyOne413) {
  // One byte past the limit and no blank line: the helper has read everything
  // we sent when it answers, so its close is orderly and the answer arrives.
  std::string request = "GET /ping HTTP/1.1\r\nX: ";
  request += std::string(1048577 - request.size(), 'a');
  ASSERT_EQ(request.size(), 1048577u);
  EXPECT_EQ(ExchangeRaw(request).raw,
            "HTTP/1.1 413 Payload Too Large\r\nContent-Type: text/plain\r\nContent-Length: 17\r\n"
            "Connection: close\r\n\r\nrequest too large");
}

TEST_F(ControlApi, ContentLengthDecidesTheBody) {
  // "/ping" ignores the body, so a complete answer proves the body was read
  // to its declared end and no further.
  for (std::string_view header : {"content-length:   5", "CONTENT-LENGTH: 5", "Content-Length:5"}) {
    const std::string request = "GET /ping HTTP/1.1\r\n" + std::string(header) + "\r\n\r\nhello";
    EXPECT_EQ(ExchangeRaw(request).raw, kPong) << header;
  }
  // No length header: bytes after the blank line are not waited for.
  EXPECT_EQ(ExchangeRaw("GET /ping HTTP/1.1\r\n\r\nstray bytes").raw, kPong);
}

TEST_F(ControlApi, BodyEndingShortGetsNoAnswer) {
  SOCKET s = ConnectLoopback(kHelperPort, 10000);
  ASSERT_NE(s, INVALID_SOCKET);
  ASSERT_TRUE(SendAll(s, "GET /ping HTTP/1.1\r\nContent-Length: 10\r\n\r\n12345"));
  shutdown(s, SD_SEND);
  bool closedByPeer = false;
  EXPECT_EQ(ReadToEnd(s, &closedByPeer), "");
  EXPECT_TRUE(closedByPeer);
  closesocket(s);
}

TEST_F(ControlApi, LogsHoldTheStartLine) {
  HttpAnswer answer = Request("GET", "/logs");
  EXPECT_EQ(answer.status, 200);
  EXPECT_NE(answer.headers.find("Content-Type: text/plain\r\n"), std::string::npos);
  ASSERT_GE(answer.body.size(), 45u);
  EXPECT_EQ(answer.body.substr(0, 1), "[");
  EXPECT_NE(answer.body.find("] OrvelVpnHelper started\r\n"), std::string::npos) << answer.body;
}

TEST_F(ControlApi, SilentClientDoesNotBlockOthers) {
  SOCKET silent = ConnectLoopback(kHelperPort);
  ASSERT_NE(silent, INVALID_SOCKET);
  EXPECT_EQ(Request("GET", "/ping").raw, kPong);
  closesocket(silent);
}

TEST_F(ControlApi, SecondInstanceExitsAtOnceAndFirstKeepsServing) {
  EXPECT_EQ(RunAndWait(helper.ExePath(), L"", 10000), 0u);
  EXPECT_TRUE(helper.Running());
  EXPECT_EQ(Request("GET", "/ping").raw, kPong);
}

}  // namespace
}  // namespace orvel::test
