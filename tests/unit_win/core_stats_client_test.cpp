// LocalHttpGet against small scripted servers in this process: what it sends,
// and which answers it ends by itself instead of waiting for the peer's close
// or for its receive time-out.
#include "traffic/core_stats_client.h"
#include "support/harness.h"

#include <gtest/gtest.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>


namespace orvel {
namespace {

// Long enough that a call ended by its time-out fails the bounds below.
constexpr std::uint32_t kLongTimeoutMs = 30000;
constexpr double kPromptMs = 10000;

struct Step {
  int pauseMs;
  std::string bytes;
};

// Accepts one connection on an ephemeral loopback port, records the request
// head, sends the scripted steps and then closes, or (hold) keeps the
// connection open until the client closes it.
struct ScriptedServer {
  SOCKET listener = INVALID_SOCKET;
  std::uint16_t port = 0;
  std::string request;
  std::thread thread;

  ScriptedServer(std::vector<Step> steps, bool hold) {
    test::EnsureWinsock();
    listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    int length = sizeof(address);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener, 1) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      return;
    }
    port = ntohs(address.sin_port);
    thread = std::thread([this, steps = std::move(steps), hold] { Serve(steps, hold); });
  }
  ~ScriptedServer() {
    if (thread.joinable()) thread.join();
    closesocket(listener);
  }

  // Pauses up to `ms`; true as soon as the client has closed (or sent
  // something, which no client here does), so a long pause never outlives
  // the test.
  static bool WaitForClientClose(SOCKET client, int ms) {
    if (ms == 0) return false;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(client, &readable);
    timeval wait{ms / 1000, (ms % 1000) * 1000};
    return select(0, &readable, nullptr, nullptr, &wait) != 0;
  }

  void Serve(const std::vector<Step>& steps, bool hold) {
    SOCKET client = accept(listener, nullptr, nullptr);
    if (client == INVALID_SOCKET) return;
    char chunk[4096];
    while (request.find("\r\n\r\n") == std::string::npos) {
      const int got = recv(client, chunk, sizeof(chunk), 0);
      if (got <= 0) break;
      request.append(chunk, static_cast<std::size_t>(got));
    }
    bool clientGone = false;
    for (const Step& step : steps) {
      if (WaitForClientClose(client, step.pauseMs)) {
        clientGone = true;
        break;
      }
      if (!test::SendAll(client, step.bytes)) break;
    }
    if (hold && !clientGone) {
      while (recv(client, chunk, sizeof(chunk), 0) > 0) {
      }
    }
    closesocket(client);
  }
};

struct Fetched {
  bool result = false;
  std::string response;
  double elapsedMs = 0;
};

Fetched Fetch(std::uint16_t port, std::string_view path = "/traffic",
              std::uint32_t timeoutMs = kLongTimeoutMs) {
  Fetched fetched;
  fetched.response = "left by the caller";
  const auto start = std::chrono::steady_clock::now();
  fetched.result = LocalHttpGet(port, path, timeoutMs, fetched.response);
  fetched.elapsedMs =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  return fetched;
}

const std::string kTrafficHead =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nVary: Origin\r\n"
    "Transfer-Encoding: chunked\r\n\r\n";

TEST(LocalHttpGet, SendsOneGetWithCloseAndKeepsThePathAsIs) {
  ScriptedServer server({{0, "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n"}}, true);
  ASSERT_NE(server.port, 0);
  const Fetched fetched = Fetch(server.port, "/conn ections?x=%20");
  server.thread.join();
  EXPECT_EQ(server.request,
            "GET /conn ections?x=%20 HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
  EXPECT_TRUE(fetched.result);
  EXPECT_EQ(fetched.response, "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
}

TEST(LocalHttpGet, EndsTheTrafficStreamOnItsFirstWholeSample) {
  // The sample arrives in two pieces; half a sample must not end the read,
  // and the next second's sample must never be waited for.
  ScriptedServer server({{0, kTrafficHead + "1a\r\n{\"up\":-1250,"},
                         {150, "\"down\":98304}\n\r\n"},
                         {static_cast<int>(kLongTimeoutMs), "1a\r\n{\"up\":1,\"down\":2}\n\r\n"}},
                        true);
  ASSERT_NE(server.port, 0);
  const Fetched fetched = Fetch(server.port);
  EXPECT_TRUE(fetched.result);
  EXPECT_EQ(fetched.response, kTrafficHead + "1a\r\n{\"up\":-1250,\"down\":98304}\n\r\n");
  EXPECT_LT(fetched.elapsedMs, kPromptMs);
}

TEST(LocalHttpGet, EndsAtOnceOnContentLengthZero) {
  const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
  ScriptedServer server({{0, answer}, {static_cast<int>(kLongTimeoutMs), "late"}}, true);
  ASSERT_NE(server.port, 0);
  const Fetched fetched = Fetch(server.port);
  EXPECT_EQ(fetched.response, answer);
  EXPECT_LT(fetched.elapsedMs, kPromptMs);
}

TEST(LocalHttpGet, HonoursCapitalisedLengthWithSeveralSpaces) {
  const std::string head = "HTTP/1.1 200 OK\r\nCONTENT-LENGTH:    27\r\n\r\n";
  const std::string body = "{\"message\":\"Unauthorized\"}\n";
  // The body comes in two pieces; bytes after the declared length are not read.
  ScriptedServer server({{0, head + body.substr(0, 10)}, {100, body.substr(10)}, {300, "extra"}},
                        true);
  ASSERT_NE(server.port, 0);
  const Fetched fetched = Fetch(server.port);
  EXPECT_EQ(fetched.response, head + body);
  EXPECT_LT(fetched.elapsedMs, kPromptMs);
}

TEST(LocalHttpGet, IgnoresLengthWrittenAfterATab) {
  // Not ended by the header: the read goes on and picks up the later bytes
  // until the server closes.
  const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length:\t5\r\n\r\nhello";
  ScriptedServer server({{0, answer}, {300, " and more"}}, false);
  ASSERT_NE(server.port, 0);
  const Fetched fetched = Fetch(server.port);
  EXPECT_TRUE(fetched.result);
  EXPECT_EQ(fetched.response, answer + " and more");
}

TEST(LocalHttpGet, SilentServerCostsOneReceiveTimeOut) {
  ScriptedServer server({}, true);
  ASSERT_NE(server.port, 0);
  const Fetched fetched = Fetch(server.port, "/traffic", 300);
  EXPECT_FALSE(fetched.result);
  EXPECT_EQ(fetched.response, "");  // cleared once the request was sent
  EXPECT_LT(fetched.elapsedMs, kPromptMs);
}

TEST(LocalHttpGet, RefusedConnectionLeavesTheResponseAlone) {
  // Bind an ephemeral port without listening, note it and release it.
  test::EnsureWinsock();
  SOCKET probe = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  int length = sizeof(address);
  ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length), 0);
  closesocket(probe);
  const std::uint16_t port = ntohs(address.sin_port);
  const Fetched fetched = Fetch(port);
  EXPECT_FALSE(fetched.result);
  EXPECT_EQ(fetched.response, "left by the caller");
}

TEST(LocalHttpGet, StopsReadingOnceTheCapIsReached) {
  // No blank line, no sample: only the cap ends this answer. It is checked
  // before each receive, so at most one receive chunk lies beyond it.
  ScriptedServer server({{0, std::string(kCoreResponseCapBytes + 300000, 'x')}}, true);
  ASSERT_NE(server.port, 0);
  const Fetched fetched = Fetch(server.port);
  EXPECT_TRUE(fetched.result);
  EXPECT_GE(fetched.response.size(), kCoreResponseCapBytes);
  EXPECT_LT(fetched.response.size(), kCoreResponseCapBytes + kCoreReceiveChunkBytes);
  EXPECT_EQ(fetched.response.find_first_not_of('x'), std::string::npos);
}

}  // namespace
}  // namespace orvel
